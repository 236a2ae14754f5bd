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
#include <map>

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

// Named events: name -> the event, while some handle to it is open. An event
// leaves the map when its last handle closes (a later create makes a new one).
struct EventObject;
struct NameTable {
  CRITICAL_SECTION lock;
  std::map<std::wstring, EventObject*> events GUARDED_BY(lock);
};
NameTable& Names() {
  static NameTable* t = new NameTable;
  return *t;
}

struct EventObject : Waitable {
  EventObject(bool manual, bool initial) : Waitable(manual, initial) {}
  BOOL OnClose() override {
    if (name.empty()) return TRUE;
    CAutoLock g(&Names().lock);
    if (--handles == 0) Names().events.erase(name);
    return TRUE;
  }
  std::wstring name;                         // empty for an unnamed event; set before it is shared
  int handles GUARDED_BY(Names().lock) = 1;  // open handles of a named event
};

struct ThreadObject : Waitable {
  ThreadObject() : Waitable(true, false) {}
  ~ThreadObject() override {
    if (thread.joinable()) thread.detach();  // only when the start failed half-way
  }
  // A finished thread is joined so that none outlives the call that waited
  // for it; a running one goes on (as on Windows) and holds its own
  // reference until it ends.
  BOOL OnClose() override {
    bool finished;
    {
      std::lock_guard<std::mutex> g(WaitLock());
      finished = signaled;
    }
    std::lock_guard<std::mutex> g(joinLock);
    if (thread.joinable()) {
      if (finished && thread.get_id() != std::this_thread::get_id())
        thread.join();
      else
        thread.detach();
    }
    return TRUE;
  }
  std::mutex joinLock;                                // guards thread against a close racing the start
  std::thread thread;                                 // guarded by joinLock
  DWORD exitCode = STILL_ACTIVE;                      // guarded by WaitLock()
  DWORD threadId = 0;                                 // written before CreateThread returns
  std::atomic<int> priority{THREAD_PRIORITY_NORMAL};  // any thread; relaxed: a value, ordering nothing
};

// Registers one waiter on a set of objects and always takes it off again.
class WaiterRegistration {
 public:
  // REQUIRES: WaitLock() held for the whole life of this object.
  WaiterRegistration(Waiter* w, Waitable* const* objs, DWORD count) : m_pWaiter(w), m_pObjs(objs) {
    for (; m_nAdded < count; ++m_nAdded) {
      faults::CheckAlloc();
      objs[m_nAdded]->waiters.emplace_back(w, static_cast<int>(m_nAdded));
    }
  }
  ~WaiterRegistration() {
    for (DWORD i = 0; i < m_nAdded; ++i) {
      auto& v = m_pObjs[i]->waiters;
      v.erase(std::remove_if(v.begin(), v.end(), [&](const auto& e) { return e.first == m_pWaiter; }), v.end());
    }
  }
  WaiterRegistration(const WaiterRegistration&) = delete;
  WaiterRegistration& operator=(const WaiterRegistration&) = delete;

 private:
  Waiter* m_pWaiter;
  Waitable* const* m_pObjs;
  DWORD m_nAdded = 0;
};

DWORD WaitMany(DWORD count, const HANDLE* handles, DWORD ms) {
  if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return WAIT_FAILED;
  }
  // The references keep every object alive for the whole wait, even when
  // another thread closes its handle meanwhile.
  Ref<Waitable> refs[MAXIMUM_WAIT_OBJECTS];
  Waitable* objs[MAXIMUM_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i) {
    refs[i] = Lookup<Waitable>(handles[i]);
    if (!(objs[i] = refs[i].get())) return WAIT_FAILED;
  }

  std::unique_lock<std::mutex> lock(WaitLock());
  for (DWORD i = 0; i < count; ++i)
    if (objs[i]->signaled) {
      if (!objs[i]->manualReset) objs[i]->signaled = false;
      return WAIT_OBJECT_0 + i;
    }
  if (ms == 0) return WAIT_TIMEOUT;

  Waiter w;
  WaiterRegistration registration(&w, objs, count);
  if (ms == INFINITE) {
    w.cv.wait(lock, [&] { return w.granted >= 0; });
  } else {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    w.cv.wait_until(lock, deadline, [&] { return w.granted >= 0; });
  }
  return w.granted >= 0 ? WAIT_OBJECT_0 + static_cast<DWORD>(w.granted) : WAIT_TIMEOUT;
}

thread_local DWORD t_nThreadId = 0;

}  // namespace
}  // namespace qlt::plat

using namespace qlt::plat;

HANDLE qlt::win::CreateEventW(LPSECURITY_ATTRIBUTES /*sa*/, BOOL bManualReset, BOOL bInitialState, LPCWSTR name) {
  return NoThrow<HANDLE>(nullptr, [&]() -> HANDLE {
    if (name && *name) {
      CAutoLock g(&Names().lock);
      auto it = Names().events.find(name);
      if (it != Names().events.end()) {
        HANDLE h = InsertHandle(it->second);
        ++it->second->handles;
        SetLastError(ERROR_ALREADY_EXISTS);
        return h;
      }
      Ref<EventObject> e(new EventObject(bManualReset != FALSE, bInitialState != FALSE));
      e->name = name;
      auto slot = Names().events.emplace(e->name, e.get()).first;
      try {
        HANDLE h = InsertHandle(e.get());
        SetLastError(ERROR_SUCCESS);
        return h;
      } catch (...) {
        Names().events.erase(slot);
        throw;
      }
    }
    Ref<EventObject> e(new EventObject(bManualReset != FALSE, bInitialState != FALSE));
    HANDLE h = InsertHandle(e.get());
    SetLastError(ERROR_SUCCESS);
    return h;
  });
}

BOOL qlt::win::SetEvent(HANDLE h) {
  Ref<EventObject> e = Lookup<EventObject>(h);
  if (!e) return FALSE;
  std::lock_guard<std::mutex> g(WaitLock());
  SignalLocked(e.get());
  return TRUE;
}

BOOL qlt::win::ResetEvent(HANDLE h) {
  Ref<EventObject> e = Lookup<EventObject>(h);
  if (!e) return FALSE;
  std::lock_guard<std::mutex> g(WaitLock());
  e->signaled = false;
  return TRUE;
}

DWORD qlt::win::WaitForSingleObject(HANDLE h, DWORD ms) {
  return NoThrow<DWORD>(WAIT_FAILED, [&] { return WaitMany(1, &h, ms); });
}

DWORD qlt::win::WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL bWaitAll, DWORD ms) {
  if (bWaitAll) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return WAIT_FAILED;
  }
  return NoThrow<DWORD>(WAIT_FAILED, [&] { return WaitMany(count, handles, ms); });
}

void qlt::win::Sleep(DWORD ms) {
  if (ms == 0) {
    std::this_thread::yield();
    return;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

DWORD qlt::win::GetCurrentThreadId() {
  if (t_nThreadId == 0) t_nThreadId = static_cast<DWORD>(::syscall(SYS_gettid));
  return t_nThreadId;
}

DWORD qlt::win::GetCurrentProcessId() { return static_cast<DWORD>(::getpid()); }

HANDLE qlt::win::CreateThread(LPSECURITY_ATTRIBUTES /*sa*/, size_t /*stackSize*/, LPTHREAD_START_ROUTINE start,
                              LPVOID param, DWORD /*flags*/, DWORD* pThreadId) {
  if (!start) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  DWORD callerError = GetLastError();
  return NoThrow<HANDLE>(nullptr, [&]() -> HANDLE {
    Ref<ThreadObject> t(new ThreadObject);
    HANDLE h = InsertHandle(t.get());
    try {
      faults::CheckThreadStart();
      std::mutex idLock;
      std::condition_variable idReady;
      bool haveId = false;
      std::lock_guard<std::mutex> join(t->joinLock);
      t->AddRef();  // the running thread's reference
      try {
        ThreadObject* self = t.get();
        t->thread = std::thread([self, start, param, &idLock, &idReady, &haveId] {
          {
            std::lock_guard<std::mutex> g(idLock);
            self->threadId = GetCurrentThreadId();
            haveId = true;
            idReady.notify_one();  // under the lock: the creator's stack frame outlives it
          }
          DWORD code = start(param);
          {
            std::lock_guard<std::mutex> g(WaitLock());
            self->exitCode = code;
            SignalLocked(self);
          }
          self->Release();
        });
      } catch (...) {
        t->Release();  // the thread never ran
        throw;
      }
      std::unique_lock<std::mutex> g(idLock);
      idReady.wait(g, [&] { return haveId; });
    } catch (...) {
      if (KObject* o = TakeHandle(h)) o->Release();
      throw;
    }
    if (pThreadId) *pThreadId = t->threadId;
    SetLastError(callerError);
    return h;
  });
}

BOOL qlt::win::SetThreadPriority(HANDLE h, int priority) {
  // Priorities above normal need privileges here; the level is kept and the
  // thread keeps the default scheduling class.
  Ref<ThreadObject> t = Lookup<ThreadObject>(h);
  if (!t) return FALSE;
  if (priority != THREAD_PRIORITY_IDLE && priority != THREAD_PRIORITY_TIME_CRITICAL &&
      (priority < THREAD_PRIORITY_LOWEST || priority > THREAD_PRIORITY_HIGHEST))
    return Fail(ERROR_INVALID_PARAMETER);
  t->priority.store(priority, std::memory_order_relaxed);
  return TRUE;
}

int qlt::win::GetThreadPriority(HANDLE h) {
  Ref<ThreadObject> t = Lookup<ThreadObject>(h);
  if (!t) return THREAD_PRIORITY_ERROR_RETURN;
  return t->priority.load(std::memory_order_relaxed);
}

BOOL qlt::win::GetExitCodeThread(HANDLE h, DWORD* pExitCode) {
  Ref<ThreadObject> t = Lookup<ThreadObject>(h);
  if (!t) return FALSE;
  if (!pExitCode) return Fail(ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> g(WaitLock());
  *pExitCode = t->exitCode;
  return TRUE;
}

void qlt::win::InitializeCriticalSection(LPCRITICAL_SECTION) {}
void qlt::win::DeleteCriticalSection(LPCRITICAL_SECTION) {}
// The lock itself: what it acquires is the section, which the analysis
// cannot see through the mutex inside.
void qlt::win::EnterCriticalSection(LPCRITICAL_SECTION cs) NO_THREAD_SAFETY_ANALYSIS { cs->m.lock(); }
void qlt::win::LeaveCriticalSection(LPCRITICAL_SECTION cs) NO_THREAD_SAFETY_ANALYSIS { cs->m.unlock(); }
