// The operator new of one SDK library on Windows. The runtime is linked
// statically there, so every library has an operator new of its own and a
// test program's replacement never reaches it; this one lets the per-thread
// allocation failure of the fault control (qlt::fault::ArmAllocFailure)
// reach each library's allocations. Disarmed it costs one relaxed load per
// allocation. Compiled into every Windows library of the SDK except the
// platform library (see cmake/QltExports.cmake); elsewhere a program's own
// operator new serves the whole process and this file is not built.
#include <cstdlib>
#include <new>

#include "platform/faults.h"

namespace {

void* Allocate(std::size_t nBytes) {
  if (qlt::fault::AllocationMustFail()) throw std::bad_alloc();
  // The C runtime is one DLL shared by every module: memory may be released
  // by another library's operator delete.
  for (;;) {
    if (void* p = std::malloc(nBytes ? nBytes : 1)) return p;
    std::new_handler fnHandler = std::get_new_handler();
    if (!fnHandler) throw std::bad_alloc();
    fnHandler();
  }
}

void* AllocateOrNull(std::size_t nBytes) noexcept {
  try {
    return Allocate(nBytes);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace

void* operator new(std::size_t nBytes) { return Allocate(nBytes); }
void* operator new[](std::size_t nBytes) { return Allocate(nBytes); }
void* operator new(std::size_t nBytes, const std::nothrow_t&) noexcept { return AllocateOrNull(nBytes); }
void* operator new[](std::size_t nBytes, const std::nothrow_t&) noexcept { return AllocateOrNull(nBytes); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
