// Shared pieces of the platform layer's implementation. Not part of the
// surface: nothing outside platform/ includes this header.
#ifndef QLTFSDK_PLATFORM_INTERNAL_H
#define QLTFSDK_PLATFORM_INTERNAL_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/platform.h"

namespace qlt::plat {

// The one errno -> Windows error table. Nothing else looks at errno values.
DWORD ErrnoToWin(int err);
// Sets the thread's last error from errno and returns FALSE, for one-line
// failure returns.
BOOL FailErrno();
BOOL Fail(DWORD err);

// Every handle the layer gives out points at one of these. Live handles are
// kept in a registry so that a stale or foreign handle fails with
// ERROR_INVALID_HANDLE instead of being dereferenced.
enum class Kind { kFile, kEvent, kThread, kFind };

struct KObject {
  explicit KObject(Kind k) : kind(k) {}
  virtual ~KObject() = default;
  const Kind kind;
};

void RegisterHandle(KObject* obj);
// Removes and returns the object when h is live, else null.
KObject* UnregisterHandle(HANDLE h);
// The live object of the given kind behind h, or null (last error set).
KObject* LookupHandle(HANDLE h, Kind kind);

// ---- Waiting --------------------------------------------------------------------
// All waitable state is guarded by one process-wide mutex (WaitLock). A
// waiting thread registers a Waiter with every object it waits on; a signal
// grants the waiter the index of the signalled object and wakes it. An
// auto-reset object grants at most one waiter and is then consumed.
struct Waiter {
  std::condition_variable cv;
  int granted = -1;  // index into the wait array, guarded by WaitLock()
};

struct Waitable : KObject {
  Waitable(Kind k, bool manual, bool initial) : KObject(k), manualReset(manual), signaled(initial) {}
  const bool manualReset;
  bool signaled;                                 // guarded by WaitLock()
  std::vector<std::pair<Waiter*, int>> waiters;  // guarded by WaitLock()
};

std::mutex& WaitLock();
// Signals obj; WaitLock() must be held.
void SignalLocked(Waitable* obj);

// ---- Threads --------------------------------------------------------------------
struct ThreadObject : Waitable {
  ThreadObject() : Waitable(Kind::kThread, true, false) {}
  std::thread thread;
  std::atomic<int> refs{2};       // one for the handle, one for the running thread
  DWORD exitCode = STILL_ACTIVE;  // guarded by WaitLock()
  DWORD threadId = 0;             // written before the thread is released
};

// ---- Paths ----------------------------------------------------------------------
// Native path for a Windows-shaped one; false (last error ERROR_PATH_NOT_FOUND
// or ERROR_INVALID_PARAMETER) when it cannot be translated.
bool TranslatePath(LPCWSTR path, std::string* out);
// Directory holding the platform library's own file.
std::string PlatformDirectory();

// ---- Fault control --------------------------------------------------------------
namespace faults {
extern std::atomic<int> g_nArmed;  // number of armed rules; relaxed loads suffice
                                   // because a test arms before the calls it
                                   // targets, on a thread ordered before them.
struct Outcome {
  fault::Action action;
  DWORD error;
  DWORD shortBytes;
};
// True when a rule fires for this call; out receives what to do.
bool Match(unsigned op, const std::string& nativePath, HANDLE h, Outcome* out);
inline bool Armed() { return g_nArmed.load(std::memory_order_relaxed) != 0; }
// For calls named by a path alone: true (last error set to the rule's error)
// when an armed rule makes this call fail now.
bool InjectPathFault(unsigned op, const std::string& nativePath);
}  // namespace faults

}  // namespace qlt::plat

#endif  // QLTFSDK_PLATFORM_INTERNAL_H
