#include "tests/support/alloc_fault.h"

#if !defined(_WIN32)
#include <dlfcn.h>
#include <execinfo.h>
#endif

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>

namespace {

// Per thread, so that other threads allocate normally. 0: not armed.
thread_local int t_nCountdown = 0;
thread_local bool t_bFired = false;

// Allocations made by the platform library's own code are not counted: the
// platform layer's containment is tested with that layer. The module that
// decides is the first one on the stack that is neither this program (the
// allocator, the test) nor a runtime library (a std::string of the platform
// layer allocates from inside libstdc++).
#if defined(_WIN32)
// With the runtime linked statically each DLL has an operator new of its
// own: only allocations of this program's own code arrive here, never the
// platform library's.
bool FromPlatformLibrary() { return false; }
#else
// The C++ library, the unwinder and the sanitizer runtimes.
bool IsRuntime(const char* pszFile) {
  for (const char* pszName : {"libstdc++", "libgcc_s", "libasan", "libtsan", "libubsan"})
    if (std::strstr(pszFile, pszName)) return true;
  return false;
}

bool FromPlatformLibrary() {
  Dl_info self{};
  dladdr(reinterpret_cast<const void*>(&FromPlatformLibrary), &self);
  void* frames[32];
  const int nFrames = backtrace(frames, 32);
  for (int i = 0; i < nFrames; ++i) {
    Dl_info info{};
    if (!dladdr(frames[i], &info) || !info.dli_fname) return false;
    if (std::strstr(info.dli_fname, "libqltplatform")) return true;
    if (std::strcmp(info.dli_fname, self.dli_fname) != 0 && !IsRuntime(info.dli_fname)) return false;
  }
  return false;
}
#endif

void* Allocate(std::size_t nBytes) {
  if (t_nCountdown > 0 && !FromPlatformLibrary() && --t_nCountdown == 0) {
    t_bFired = true;
    throw std::bad_alloc();
  }
  void* p = std::malloc(nBytes ? nBytes : 1);
  if (!p) throw std::bad_alloc();
  return p;
}

void* AllocateOrNull(std::size_t nBytes) noexcept {
  try {
    return Allocate(nBytes);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

// Every unaligned form is replaced, so that allocation and release always
// meet in this pair (malloc and free), also under the sanitizers.
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

ScopedAllocFailure::ScopedAllocFailure(int nNth) {
#if !defined(_WIN32)
  void* frames[1];
  backtrace(frames, 1);  // its first call loads the unwinder: not while armed
#endif
  t_bFired = false;
  t_nCountdown = nNth;
}

ScopedAllocFailure::~ScopedAllocFailure() { t_nCountdown = 0; }

bool ScopedAllocFailure::Fired() const { return t_bFired; }
