#include "tests/support/alloc_fault.h"

#if !defined(_WIN32)
#include <dlfcn.h>
#include <execinfo.h>
#endif

#include <cstring>
#include <initializer_list>

#include "platform/faults.h"

namespace {

// The countdown is the platform's, per thread (qlt::fault::ArmAllocFailure),
// so that on Windows the operator new of each SDK library, which the
// statically linked runtime gives every library of its own, counts on the
// same countdown as this program's.
//
// Allocations made by the platform library's own code are not counted: the
// platform layer's containment is tested with that layer. On Windows that
// library has no instrumented operator new, so its allocations never arrive
// here. Elsewhere this operator new serves the whole process: the module
// that decides is the first one on the stack that is neither this program
// (the allocator, the test) nor a runtime library (a std::string of the
// platform layer allocates from inside libstdc++).
#if defined(_WIN32)
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

bool AllocationRefused() {
  return qlt::fault::g_nAllocArmedThreads.load(std::memory_order_relaxed) != 0 && !FromPlatformLibrary() &&
         qlt::fault::TakeAllocFailure();
}

}  // namespace

#include "platform/alloc_operators.inc"

ScopedAllocFailure::ScopedAllocFailure(int nNth) {
#if !defined(_WIN32)
  void* frames[1];
  backtrace(frames, 1);  // its first call loads the unwinder: not while armed
#endif
  qlt::fault::ArmAllocFailure(nNth);
}

ScopedAllocFailure::~ScopedAllocFailure() { qlt::fault::DisarmAllocFailure(); }

bool ScopedAllocFailure::Fired() const { return qlt::fault::AllocFailureFired(); }
