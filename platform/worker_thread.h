// CWorkerThread: one named background thread with a stop request and a join.
//
// Start runs a callable on a new platform thread. RequestStop raises the stop
// request: an atomic flag the body polls (StopRequested) and a manual-reset
// event it, or anyone else, can wait on (StopEvent). The request only asks:
// the body must notice it (and whatever else it waits on must be released by
// its owner, e.g. by closing a ring). Join waits until the body has returned;
// the destructor requests the stop and joins.
//
// Thread rule: Start, Join and destruction come from the owning thread (the
// one that controls the worker's purpose), never from the worker itself.
// RequestStop, StopRequested, StopEvent, IsRunning and GetName may come from
// any thread, the worker's body included. A stop request stays raised until
// the next Start.
//
// Header-only: the FIFO and the file accessor both run their workers on it,
// and every library that compiles it in gets its own copy, so it adds no
// name to the platform library's exports.
#ifndef QLTFSDK_PLATFORM_WORKER_THREAD_H
#define QLTFSDK_PLATFORM_WORKER_THREAD_H

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "platform/contain.h"
#include "platform/platform.h"

class CWorkerThread {
 public:
  // Stores the name (a label for diagnostics); starts nothing.
  explicit CWorkerThread(std::wstring strName);
  // Requests the stop, joins a running thread and closes the stop event.
  ~CWorkerThread();
  CWorkerThread(const CWorkerThread&) = delete;
  CWorkerThread& operator=(const CWorkerThread&) = delete;

  // Clears the stop request and runs fnBody on a new thread at the given
  // priority level (THREAD_PRIORITY_*; a level the system refuses leaves the
  // thread at normal priority, which changes only its share of the processor).
  // Returns TRUE when the thread runs. Returns FALSE with the last error set,
  // and nothing running, when a thread is still started (ERROR_BUSY: Join it
  // first), fnBody is empty (ERROR_INVALID_PARAMETER), memory is short
  // (ERROR_NOT_ENOUGH_MEMORY) or the platform cannot create the event or the
  // thread (its own error). Never throws. An exception leaving fnBody ends the
  // thread quietly; it does not reach the owner. Owning thread only.
  BOOL Start(std::function<void()> fnBody, int nPriority = THREAD_PRIORITY_NORMAL);
  // Raises the stop request: sets the flag, then the stop event. Any thread.
  void RequestStop();
  // True from RequestStop until the next Start. Any thread.
  bool StopRequested() const { return m_bStopRequested.load(std::memory_order_acquire); }
  // Manual-reset event set by RequestStop and reset by Start; null before
  // the first successful Start. It lives as long as this object. Any thread.
  HANDLE StopEvent() const { return m_hStopEvent; }
  // Waits until the body has returned and releases the thread; does nothing
  // when no thread is started. Owning thread only.
  void Join();
  // True from a successful Start until Join. Any thread.
  bool IsRunning() const { return m_bStarted.load(std::memory_order_acquire); }
  const std::wstring& GetName() const { return m_strName; }
  // The running thread's priority level as the system reports it;
  // THREAD_PRIORITY_ERROR_RETURN when no thread is started. Owning thread only.
  int GetPriority() const { return m_hThread ? GetThreadPriority(m_hThread) : THREAD_PRIORITY_ERROR_RETURN; }

 private:
  static DWORD WINAPI ThreadProc(LPVOID pParam);

  const std::wstring m_strName;               // immutable
  std::function<void()> m_fnBody;             // set by Start before the thread exists; read by it only
  HANDLE m_hThread = nullptr;                 // owning thread only
  HANDLE m_hStopEvent = nullptr;              // created by the first Start, closed by the destructor
  std::atomic<bool> m_bStopRequested{false};  // any thread
  std::atomic<bool> m_bStarted{false};        // written by the owning thread
};

inline CWorkerThread::CWorkerThread(std::wstring strName) : m_strName(std::move(strName)) {}

inline CWorkerThread::~CWorkerThread() {
  RequestStop();
  Join();
  if (m_hStopEvent) CloseHandle(m_hStopEvent);
}

inline BOOL CWorkerThread::Start(std::function<void()> fnBody, int nPriority) {
  if (m_hThread) {
    SetLastError(ERROR_BUSY);
    return FALSE;
  }
  if (!fnBody) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (!m_hStopEvent) {
    m_hStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!m_hStopEvent) return FALSE;  // the platform set the last error
  }
  ResetEvent(m_hStopEvent);
  m_bStopRequested.store(false, std::memory_order_release);
  m_fnBody = std::move(fnBody);  // a move: no allocation
  // A platform thread that cannot start throws; that is out of resources
  // (ERROR_NOT_ENOUGH_MEMORY), like any allocation on the way.
  HANDLE hThread =
      QltContain<HANDLE>(nullptr, [this] { return CreateThread(nullptr, 0, ThreadProc, this, 0, nullptr); });
  if (!hThread) {
    m_fnBody = nullptr;
    return FALSE;
  }
  if (nPriority != THREAD_PRIORITY_NORMAL) {
    DWORD nError = GetLastError();
    SetThreadPriority(hThread, nPriority);  // a refusal keeps the thread at normal priority
    SetLastError(nError);
  }
  m_hThread = hThread;
  m_bStarted.store(true, std::memory_order_release);
  return TRUE;
}

inline void CWorkerThread::RequestStop() {
  m_bStopRequested.store(true, std::memory_order_release);
  if (m_hStopEvent) SetEvent(m_hStopEvent);
}

inline void CWorkerThread::Join() {
  if (!m_hThread) return;
  WaitForSingleObject(m_hThread, INFINITE);
  CloseHandle(m_hThread);
  m_hThread = nullptr;
  m_fnBody = nullptr;
  m_bStarted.store(false, std::memory_order_release);
}

inline DWORD WINAPI CWorkerThread::ThreadProc(LPVOID pParam) {
  auto* pSelf = static_cast<CWorkerThread*>(pParam);
  try {
    pSelf->m_fnBody();
  } catch (...) {
    // Nothing may leave a thread: the owner learns of the end by Join.
  }
  return 0;
}

#endif  // QLTFSDK_PLATFORM_WORKER_THREAD_H
