#include "diagnostics/write_timing_log.h"

#include <atomic>

#include "companions/logbook/logbook_api.h"
#include "diagnostics/sdk_settings.h"
#include "platform/platform.h"

namespace {

struct TimingLogState {
  TimingLogState() { InitializeCriticalSection(&cs); }
  CRITICAL_SECTION cs;
  // The shared log. Created and destroyed under cs; TimedWriteFile reads it
  // without the lock. The store is a release and the load an acquire, so a
  // writing thread that sees the pointer sees the constructed and named
  // object. Every writer holds a reference while it writes, so the object
  // cannot be destroyed under a timed write.
  std::atomic<QLT_LogBookU*> pLog{nullptr};
  int32_t nHolders GUARDED_BY(cs) = 0;
};

TimingLogState& State() {
  static TimingLogState* pState = new TimingLogState;  // never destroyed: usable during exit
  return *pState;
}

}  // namespace

void AcquireWriteTimingLog() {
  TimingLogState& s = State();
  CAutoLock lock(&s.cs);
  if (s.nHolders == 0) {
    QLT_LogBookU* pLog = new QLT_LogBookU;
    pLog->ConfigName(CComBSTR(L"SDKWriteIO"));
    s.pLog.store(pLog, std::memory_order_release);
  }
  ++s.nHolders;
}

void ReleaseWriteTimingLog() {
  TimingLogState& s = State();
  CAutoLock lock(&s.cs);
  if (s.nHolders == 0) return;  // unbalanced release: nothing to drop
  if (--s.nHolders == 0) {
    QLT_LogBookU* pLog = s.pLog.exchange(nullptr, std::memory_order_acq_rel);
    delete pLog;
  }
}

BOOL TimedWriteFile(HANDLE h, LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, LPOVERLAPPED pOverlapped,
                    __int64 nOffset, int nBuffered, DWORD nOwner) {
  const bool bTimed = SdkSettings.IOWriteTimeOn != 0;
  LARGE_INTEGER frequency{}, start{};
  if (bTimed) {
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&start);
  }
  BOOL bResult = WriteFile(h, pBuffer, nLength, pWritten, pOverlapped);
  if (pOverlapped && !bResult && GetLastError() == ERROR_IO_PENDING) bResult = TRUE;
  if (!bTimed) return bResult;

  DWORD dwLastError = GetLastError();  // the caller may want the write's error
  LARGE_INTEGER end{};
  QueryPerformanceCounter(&end);
  double dElapsedMs = frequency.QuadPart > 0 ? static_cast<double>(end.QuadPart - start.QuadPart) * 1000.0 /
                                                   static_cast<double>(frequency.QuadPart)
                                             : 0.0;
  QLT_LogBookU* pLog = State().pLog.load(std::memory_order_acquire);
  if (pLog && IsSlowWrite(dElapsedMs, SdkSettings.IOWriteBlockTimeTh)) {
    try {
      *pLog - CComBSTR(L"this:") - static_cast<unsigned long>(nOwner) -
          CComBSTR(nBuffered == 1 ? L"<BufferWriteFile> Offset = " : L"<NoBufferWriteFile> Offset = ") -
          static_cast<__int64>(nOffset) - CComBSTR(L"Length = ") - static_cast<unsigned long>(nLength) -
          CComBSTR(L"CostTime(ms):") - dElapsedMs - endl;
    } catch (...) {
      // The log line is lost; the write's outcome stands.
    }
  }
  SetLastError(dwLastError);
  return bResult;
}

QLT_LogBookU* CurrentWriteTimingLog() { return State().pLog.load(std::memory_order_acquire); }

int WriteTimingLogHolders() {
  TimingLogState& s = State();
  CAutoLock lock(&s.cs);
  return s.nHolders;
}
