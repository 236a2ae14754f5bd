// Test-only fault control for the platform's file and module calls.
//
// A test arms rules; while any rule is armed, each file call (and
// LoadLibraryW, allocation points and thread starts) checks whether it matches one and, if so, fails with the
// rule's error, transfers fewer bytes, or is delayed first. With no rule armed
// the cost is one relaxed atomic load per call. Nothing outside tests arms it.
// Any thread may arm, disarm or be affected; rules are process-wide.
#ifndef QLTFSDK_PLATFORM_FAULTS_H
#define QLTFSDK_PLATFORM_FAULTS_H

#include <atomic>
#include <string>

#include "qltfsdk/wintypes.h"

namespace qlt::fault {

// Calls a rule can match (combine with |).
enum Op : unsigned {
  kOpen = 1u << 0,         // CreateFileW
  kRead = 1u << 1,         // ReadFile
  kWrite = 1u << 2,        // WriteFile
  kFlush = 1u << 3,        // FlushFileBuffers
  kSeek = 1u << 4,         // SetFilePointer(Ex)
  kSetEnd = 1u << 5,       // SetEndOfFile
  kClose = 1u << 6,        // CloseHandle of a file
  kDelete = 1u << 7,       // DeleteFileW
  kCreateDir = 1u << 8,    // CreateDirectoryW
  kLoadLibrary = 1u << 9,  // LoadLibraryW (path = the name asked for)
  kSize = 1u << 10,        // GetFileSize(Ex)
  // Resource faults. These ignore `error` and `action`: a firing kAlloc rule
  // makes the layer's next allocation point run out of memory (the call fails
  // with ERROR_NOT_ENOUGH_MEMORY and releases what it had taken); a firing
  // kThreadStart rule makes CreateThread fail to start its thread (null,
  // ERROR_NOT_ENOUGH_MEMORY). Allocation points have no path or handle, so
  // rules for them leave pathPattern and handle empty. Count with nth/times
  // as for the other calls; a rule counts the calls of every thread.
  kAlloc = 1u << 11,        // a platform call that allocates (handle creation, waits, paths, search, settings)
  kThreadStart = 1u << 12,  // CreateThread starting its thread
};

enum class Action {
  kFail,   // the call fails with `error` and does nothing
  kShort,  // a read or write moves at most `shortBytes` bytes and succeeds
  kDelay,  // the call sleeps `delayMs` and then runs normally
  // A write moves at most `shortBytes` bytes, then fails with `error`: the
  // call returns FALSE and reports the bytes that really reached the file.
  kPartialFail,
};

struct Rule {
  unsigned ops = 0;          // which calls match (Op mask)
  std::wstring pathPattern;  // glob over the path ('*', '?'); empty = any path
  HANDLE handle = nullptr;   // when set, only calls on this handle match
  int nth = 1;               // the first matching call that fires (1 = the first)
  int times = 1;             // consecutive matching calls that fire; -1 = all
  Action action = Action::kFail;
  DWORD error = 29;  // ERROR_WRITE_FAULT unless set
  DWORD shortBytes = 0;
  DWORD delayMs = 0;
};

// Arms a rule; returns its id (> 0).
QLTPLATFORM_API int Arm(const Rule& rule);
QLTPLATFORM_API void Disarm(int id);
QLTPLATFORM_API void DisarmAll();
// How many calls this rule has affected so far (0 for an unknown id).
QLTPLATFORM_API int Fired(int id);

// Arms a rule for the lifetime of the object.
class ScopedFault {
 public:
  explicit ScopedFault(const Rule& rule) : m_nId(Arm(rule)) {}
  ~ScopedFault() { Disarm(m_nId); }
  ScopedFault(const ScopedFault&) = delete;
  ScopedFault& operator=(const ScopedFault&) = delete;
  int Fired() const { return qlt::fault::Fired(m_nId); }

 private:
  int m_nId;
};

// ---- Allocation failure through operator new, per thread ------------------
// While the calling thread is armed with n, the nth allocation that an
// instrumented operator new makes on that thread throws std::bad_alloc; the
// other threads allocate normally. Instrumented are the test program's
// operator new (tests/support/alloc_fault) and, on Windows, where each
// library carries its own operator new, the one compiled into every library
// of the SDK but this one (platform/alloc_hook.cc). The platform library's
// own allocations are never counted: its containment is tested with rules
// of kind kAlloc. Arming again restarts the count.
QLTPLATFORM_API void ArmAllocFailure(int nNth);
QLTPLATFORM_API void DisarmAllocFailure();
// True once the armed allocation of this thread has come and failed; stays
// true until the thread arms again.
QLTPLATFORM_API bool AllocFailureFired();
// For instrumented operator new only: counts one allocation of the calling
// thread and returns true when it is the one that must fail. Call it only
// when g_nAllocArmedThreads is not 0.
QLTPLATFORM_API bool TakeAllocFailure();
// How many threads are armed. A relaxed load suffices: a thread arms itself
// before the allocations it targets, so it sees its own store; other
// threads may see a stale count, and TakeAllocFailure answers them by their
// own (unarmed) state.
QLTPLATFORM_API extern std::atomic<int> g_nAllocArmedThreads;

// One allocation point of an instrumented operator new: true when it must
// fail. One relaxed load while no thread is armed.
inline bool AllocationMustFail() {
  return g_nAllocArmedThreads.load(std::memory_order_relaxed) != 0 && TakeAllocFailure();
}

}  // namespace qlt::fault

#endif  // QLTFSDK_PLATFORM_FAULTS_H
