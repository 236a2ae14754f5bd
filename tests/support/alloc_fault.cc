#include "tests/support/alloc_fault.h"

#include <cstdlib>
#include <new>

namespace {

// Per thread, so that other threads allocate normally. 0: not armed.
thread_local int t_nCountdown = 0;
thread_local bool t_bFired = false;

void* Allocate(std::size_t nBytes) {
  if (t_nCountdown > 0 && --t_nCountdown == 0) {
    t_bFired = true;
    throw std::bad_alloc();
  }
  void* p = std::malloc(nBytes ? nBytes : 1);
  if (!p) throw std::bad_alloc();
  return p;
}

}  // namespace

void* operator new(std::size_t nBytes) { return Allocate(nBytes); }
void* operator new[](std::size_t nBytes) { return Allocate(nBytes); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

ScopedAllocFailure::ScopedAllocFailure(int nNth) {
  t_bFired = false;
  t_nCountdown = nNth;
}

ScopedAllocFailure::~ScopedAllocFailure() { t_nCountdown = 0; }

bool ScopedAllocFailure::Fired() const { return t_bFired; }
