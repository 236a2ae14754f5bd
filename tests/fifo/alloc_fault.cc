// The program's operator new with a per-thread "fail the nth allocation"
// switch. Kept in a file of its own so that no caller inlines the pair.
#include "tests/fifo/alloc_fault.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace {
thread_local bool t_bArmed = false;
thread_local int t_nFailAt = 0;  // the allocation to fail, counted from 1; <= 0 none
thread_local int t_nSeen = 0;    // allocations since arming
}  // namespace

void fifotest::ArmAllocationFault(int n) {
  t_nFailAt = n;
  t_nSeen = 0;
  t_bArmed = true;
}

int fifotest::DisarmAllocationFault() {
  t_bArmed = false;
  return t_nSeen;
}

namespace {

// The platform library's own calls contain (or not) their allocations; its
// tests cover them. Faults here go to the allocations of the layers above.
bool FromPlatform(void* pCaller) {
  Dl_info info;
  return dladdr(pCaller, &info) && info.dli_fname && std::strstr(info.dli_fname, "libqltplatform");
}

}  // namespace

void* operator new(std::size_t n) {
  if (t_bArmed) {
    t_bArmed = false;  // dladdr may allocate
    const bool bCount = !FromPlatform(__builtin_return_address(0));
    t_bArmed = true;
    if (bCount && ++t_nSeen == t_nFailAt) throw std::bad_alloc();
  }
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
