// Events, waits, threads and critical sections.
//
// Waiting uses one process-wide mutex for all waitable objects: a wait
// registers one Waiter (with its own condition variable) on every handle it
// waits for, and a signal grants the first eligible waiter. That keeps the
// Windows rules exact: an auto-reset event releases exactly one waiter, and a
// wait on several handles reports the first signalled one in array order.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "platform/internal.h"

namespace qlt::plat {

std::mutex& WaitLock() {
  static std::mutex* m = new std::mutex;  // never destroyed: waits may run during exit
  return *m;
}

void SignalLocked(Waitable* obj) {
  if (obj->manualReset) {
    obj->signaled = true;
    for (auto& [w, index] : obj->waiters)
      if (w->granted < 0) {
        w->granted = index;
        w->cv.notify_one();
      }
    return;
  }
  for (auto& [w, index] : obj->waiters)
    if (w->granted < 0) {  // hand the signal to one waiter; the event stays reset
      w->granted = index;
      w->cv.notify_one();
      return;
    }
  obj->signaled = true;
}

namespace {

struct EventObject : Waitable {
  EventObject(bool manual, bool initial) : Waitable(Kind::kEvent, manual, initial) {}
};

Waitable* WaitableOf(HANDLE h) {
  KObject* o = LookupHandle(h, Kind::kEvent);
  if (!o) o = LookupHandle(h, Kind::kThread);
  if (!o) SetLastError(ERROR_INVALID_HANDLE);
  return static_cast<Waitable*>(o);
}

DWORD WaitMany(DWORD count, const HANDLE* handles, DWORD ms) {
  if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return WAIT_FAILED;
  }
  Waitable* objs[MAXIMUM_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i)
    if (!(objs[i] = WaitableOf(handles[i]))) return WAIT_FAILED;

  std::unique_lock<std::mutex> lock(WaitLock());
  for (DWORD i = 0; i < count; ++i)
    if (objs[i]->signaled) {
      if (!objs[i]->manualReset) objs[i]->signaled = false;
      return WAIT_OBJECT_0 + i;
    }
  if (ms == 0) return WAIT_TIMEOUT;

  Waiter w;
  for (DWORD i = 0; i < count; ++i) objs[i]->waiters.emplace_back(&w, static_cast<int>(i));
  if (ms == INFINITE) {
    w.cv.wait(lock, [&] { return w.granted >= 0; });
  } else {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    w.cv.wait_until(lock, deadline, [&] { return w.granted >= 0; });
  }
  for (DWORD i = 0; i < count; ++i) {
    auto& v = objs[i]->waiters;
    v.erase(std::remove_if(v.begin(), v.end(), [&](const auto& e) { return e.first == &w; }), v.end());
  }
  return w.granted >= 0 ? WAIT_OBJECT_0 + static_cast<DWORD>(w.granted) : WAIT_TIMEOUT;
}

thread_local DWORD t_nThreadId = 0;

}  // namespace

void CloseThreadObject(ThreadObject* t) {
  bool finished;
  {
    std::lock_guard<std::mutex> g(WaitLock());
    finished = t->signaled;
  }
  // A finished thread is joined so that none outlives the call that waited
  // for it; a running one goes on (as on Windows) and frees the object itself.
  if (finished && t->thread.get_id() != std::this_thread::get_id())
    t->thread.join();
  else
    t->thread.detach();
  if (t->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete t;
}

}  // namespace qlt::plat

using namespace qlt::plat;

extern "C" HANDLE CreateEventW(LPSECURITY_ATTRIBUTES /*sa*/, BOOL bManualReset, BOOL bInitialState, LPCWSTR /*name*/) {
  auto* e = new EventObject(bManualReset != FALSE, bInitialState != FALSE);
  RegisterHandle(e);
  return e;
}

extern "C" BOOL SetEvent(HANDLE h) {
  KObject* o = LookupHandle(h, Kind::kEvent);
  if (!o) return FALSE;
  std::lock_guard<std::mutex> g(WaitLock());
  SignalLocked(static_cast<Waitable*>(o));
  return TRUE;
}

extern "C" BOOL ResetEvent(HANDLE h) {
  KObject* o = LookupHandle(h, Kind::kEvent);
  if (!o) return FALSE;
  std::lock_guard<std::mutex> g(WaitLock());
  static_cast<Waitable*>(o)->signaled = false;
  return TRUE;
}

extern "C" DWORD WaitForSingleObject(HANDLE h, DWORD ms) { return WaitMany(1, &h, ms); }

extern "C" DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL bWaitAll, DWORD ms) {
  if (bWaitAll) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return WAIT_FAILED;
  }
  return WaitMany(count, handles, ms);
}

extern "C" void Sleep(DWORD ms) {
  if (ms == 0) {
    std::this_thread::yield();
    return;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

extern "C" DWORD GetCurrentThreadId() {
  if (t_nThreadId == 0) t_nThreadId = static_cast<DWORD>(::syscall(SYS_gettid));
  return t_nThreadId;
}

extern "C" DWORD GetCurrentProcessId() { return static_cast<DWORD>(::getpid()); }

extern "C" HANDLE CreateThread(LPSECURITY_ATTRIBUTES /*sa*/, size_t /*stackSize*/, LPTHREAD_START_ROUTINE start,
                               LPVOID param, DWORD /*flags*/, DWORD* pThreadId) {
  if (!start) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto* t = new ThreadObject;
  std::mutex idLock;
  std::condition_variable idReady;
  bool haveId = false;
  try {
    t->thread = std::thread([t, start, param, &idLock, &idReady, &haveId] {
      {
        std::lock_guard<std::mutex> g(idLock);
        t->threadId = GetCurrentThreadId();
        haveId = true;
        idReady.notify_one();  // under the lock: the creator's stack frame outlives it
      }
      DWORD code = start(param);
      {
        std::lock_guard<std::mutex> g(WaitLock());
        t->exitCode = code;
        SignalLocked(t);
      }
      if (t->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete t;
    });
  } catch (const std::system_error&) {
    delete t;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  {
    std::unique_lock<std::mutex> g(idLock);
    idReady.wait(g, [&] { return haveId; });
  }
  if (pThreadId) *pThreadId = t->threadId;
  RegisterHandle(t);
  return t;
}

extern "C" BOOL SetThreadPriority(HANDLE h, int /*priority*/) {
  // Priorities above normal need privileges here; the value is accepted and
  // the thread keeps the default scheduling class.
  return LookupHandle(h, Kind::kThread) ? TRUE : FALSE;
}

extern "C" BOOL GetExitCodeThread(HANDLE h, DWORD* pExitCode) {
  auto* t = static_cast<ThreadObject*>(LookupHandle(h, Kind::kThread));
  if (!t) return FALSE;
  if (!pExitCode) return Fail(ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> g(WaitLock());
  *pExitCode = t->exitCode;
  return TRUE;
}

extern "C" void InitializeCriticalSection(LPCRITICAL_SECTION) {}
extern "C" void DeleteCriticalSection(LPCRITICAL_SECTION) {}
extern "C" void EnterCriticalSection(LPCRITICAL_SECTION cs) { cs->m.lock(); }
extern "C" void LeaveCriticalSection(LPCRITICAL_SECTION cs) { cs->m.unlock(); }
