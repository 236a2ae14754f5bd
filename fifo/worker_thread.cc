// CWorkerThread on the platform's CreateThread and events.
#include "fifo/worker_thread.h"

#include <new>
#include <utility>

CWorkerThread::CWorkerThread(std::wstring strName) : m_strName(std::move(strName)) {}

CWorkerThread::~CWorkerThread() {
  RequestStop();
  Join();
  if (m_hStopEvent) CloseHandle(m_hStopEvent);
}

BOOL CWorkerThread::Start(std::function<void()> fnBody) {
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
  HANDLE hThread = nullptr;
  try {
    hThread = CreateThread(nullptr, 0, ThreadProc, this, 0, nullptr);
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);  // the platform's thread start ran out of resources
  }
  if (!hThread) {
    m_fnBody = nullptr;
    return FALSE;
  }
  m_hThread = hThread;
  m_bStarted.store(true, std::memory_order_release);
  return TRUE;
}

void CWorkerThread::RequestStop() {
  m_bStopRequested.store(true, std::memory_order_release);
  if (m_hStopEvent) SetEvent(m_hStopEvent);
}

void CWorkerThread::Join() {
  if (!m_hThread) return;
  WaitForSingleObject(m_hThread, INFINITE);
  CloseHandle(m_hThread);
  m_hThread = nullptr;
  m_fnBody = nullptr;
  m_bStarted.store(false, std::memory_order_release);
}

DWORD WINAPI CWorkerThread::ThreadProc(LPVOID pParam) {
  auto* pSelf = static_cast<CWorkerThread*>(pParam);
  try {
    pSelf->m_fnBody();
  } catch (...) {
    // Nothing may leave a thread: the owner learns of the end by Join.
  }
  return 0;
}
