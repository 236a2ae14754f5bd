// KxFileTransfer: the paced block copy, its progress reports and its abort.
#include "transfer/kx_file_transfer.h"

#include <algorithm>
#include <climits>
#include <new>

#include "platform/contain.h"

namespace {

// The pacing wait starts only when the copy is more than this far ahead of
// its schedule, so the average rate approaches the limit from below.
constexpr LONGLONG kPacingSlackMs = 3;

// The source buffer: one block plus room to round a tail up to whole sectors.
constexpr size_t kBufferSize = KxFileTransfer::kBlockSize + 1024;

struct AlignedBuffer {
  AlignedBuffer()
      : m_pData(static_cast<char*>(
            ::operator new(kBufferSize, std::align_val_t(KxFileTransfer::kSectorSize), std::nothrow))) {}
  ~AlignedBuffer() { ::operator delete(m_pData, std::align_val_t(KxFileTransfer::kSectorSize)); }
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  char* m_pData;
};

// The achieved rate over nBytes, in bits per second: whole milliseconds as
// the time base, or the counter's own ticks for a copy that took less than
// one. Saturates at INT_MAX and is at least 1, so 0 always means failure.
int AchievedRate(LONGLONG nBytes, const CStopwatch& clock) {
  double dRate;
  LONGLONG nMs = clock.Milliseconds();
  if (nMs > 0) {
    dRate = static_cast<double>(nBytes * 8 * 1000 / nMs);
  } else {
    LONGLONG nTicks = clock.Ticks();
    dRate = nTicks > 0 ? static_cast<double>(nBytes) * 8.0 * static_cast<double>(clock.Frequency()) /
                             static_cast<double>(nTicks)
                       : static_cast<double>(INT_MAX);
  }
  return static_cast<int>(std::clamp(dRate, 1.0, static_cast<double>(INT_MAX)));
}

// Reads up to nAsk bytes; false (with a last error) unless at least nNeed
// arrived.
bool ReadWhole(HANDLE hFile, char* pBuffer, DWORD nAsk, DWORD nNeed) {
  DWORD nDone = 0;
  if (!ReadFile(hFile, pBuffer, nAsk, &nDone, nullptr)) return false;
  if (nDone >= nNeed) return true;
  SetLastError(ERROR_HANDLE_EOF);  // the source shrank while being copied
  return false;
}

bool WriteWhole(HANDLE hFile, const char* pBuffer, DWORD nBytes) {
  DWORD nDone = 0;
  if (!WriteFile(hFile, pBuffer, nBytes, &nDone, nullptr)) return false;
  if (nDone == nBytes) return true;
  SetLastError(ERROR_WRITE_FAULT);
  return false;
}

class CMonotonicClock : public CTransferClock {
 public:
  LONGLONG Ticks() override {
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return now.QuadPart;
  }
  LONGLONG Frequency() override {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return frequency.QuadPart;
  }
  void Wait(HANDLE hAbort, DWORD nMs) override { WaitForSingleObject(hAbort, nMs); }
};

}  // namespace

CTransferClock& CTransferClock::Monotonic() {
  static CMonotonicClock clock;  // stateless: any thread may use it
  return clock;
}

KxFileTransfer::KxFileTransfer()
    : m_pfnProgress(nullptr),
      m_pUserData(nullptr),
      m_nBitrate(kDefaultBitrate),
      m_pClock(&CTransferClock::Monotonic()),
      m_bRunning(false),
      m_nTransferThreadId(0),
      m_nAbortWaiters(0),
      m_bAbort(0),
      m_hDoneEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      m_hAbortEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      m_hNoAbortWaitersEvent(CreateEventW(nullptr, TRUE, TRUE, nullptr)) {
  InitializeCriticalSection(&m_cs);
}

KxFileTransfer::~KxFileTransfer() {
  if (m_hDoneEvent) CloseHandle(m_hDoneEvent);
  if (m_hAbortEvent) CloseHandle(m_hAbortEvent);
  if (m_hNoAbortWaitersEvent) CloseHandle(m_hNoAbortWaitersEvent);
  DeleteCriticalSection(&m_cs);
}

void KxFileTransfer::SetProgressCallBack(KX_TRANS_PROGRESS_CALLBACK pfnCallback, void* pUserData) {
  CAutoLock lock(&m_cs);
  m_pfnProgress = pfnCallback;
  m_pUserData = pUserData;
}

void KxFileTransfer::SetTransferBitrate(int nBitsPerSecond) {
  CAutoLock lock(&m_cs);
  m_nBitrate = nBitsPerSecond;
}

void KxFileTransfer::SetClock(CTransferClock* pClock) {
  CAutoLock lock(&m_cs);
  m_pClock = pClock ? pClock : &CTransferClock::Monotonic();
}

int KxFileTransfer::GetTransferBitrate() {
  CAutoLock lock(&m_cs);
  return m_nBitrate;
}

bool KxFileTransfer::BeginTransfer(Settings* pSettings) {
  for (;;) {
    {
      CAutoLock lock(&m_cs);
      if (m_bRunning) {
        SetLastError(ERROR_BUSY);
        return false;
      }
      // An Abort still waiting for the previous transfer must see its done
      // event set; this transfer resets it only once that call has left.
      if (m_nAbortWaiters == 0) {
        m_bRunning = true;
        m_nTransferThreadId = GetCurrentThreadId();
        m_bAbort.store(0, std::memory_order_relaxed);
        ResetEvent(m_hDoneEvent);
        ResetEvent(m_hAbortEvent);
        pSettings->pfnProgress = m_pfnProgress;
        pSettings->pUserData = m_pUserData;
        pSettings->pClock = m_pClock;
        return true;
      }
    }
    WaitForSingleObject(m_hNoAbortWaitersEvent, INFINITE);
  }
}

void KxFileTransfer::EndTransfer() {
  CAutoLock lock(&m_cs);
  m_bRunning = false;
  SetEvent(m_hDoneEvent);
}

void KxFileTransfer::Abort() {
  {
    CAutoLock lock(&m_cs);
    if (!m_bRunning) return;
    m_bAbort.store(1, std::memory_order_relaxed);
    SetEvent(m_hAbortEvent);
    // From the progress callback: the transfer stops once the callback
    // returns; waiting here would wait for ourselves.
    if (m_nTransferThreadId == GetCurrentThreadId()) return;
    if (m_nAbortWaiters++ == 0) ResetEvent(m_hNoAbortWaitersEvent);
  }
  WaitForSingleObject(m_hDoneEvent, INFINITE);
  CAutoLock lock(&m_cs);
  if (--m_nAbortWaiters == 0) SetEvent(m_hNoAbortWaitersEvent);
}

bool KxFileTransfer::Report(const Settings& settings, int nPercent, LONGLONG nWritten, bool bFinished) {
  if (!settings.pfnProgress) return true;
  KX_TRANS_PROGRESS_INFO_ST info{-1, -1, nPercent, 0, 0, 0.0, 0.0, nWritten, bFinished ? 1 : 0};
  // Host code: whatever it throws stops here, so the transfer still closes
  // its files and ends (a transfer left marked running would refuse every
  // later one and keep Abort waiting).
  try {
    settings.pfnProgress(&info, settings.pUserData);
    return true;
  } catch (...) {
    return false;
  }
}

int KxFileTransfer::TransferFile(const wchar_t* pszSource, const wchar_t* pszDestination) {
  if (!IsValid()) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  if (!pszSource || !*pszSource || !pszDestination || !*pszDestination) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  // Replacing the destination would empty a source that is the same file,
  // however the two paths are spelt (relative, through a link, hard link).
  const BOOL bSameFile = QltSameFile(pszSource, pszDestination);
  const DWORD nSameFileError = GetLastError();
  if (bSameFile || nSameFileError == ERROR_NOT_ENOUGH_MEMORY) {  // refused, or could not tell
    SetLastError(bSameFile ? ERROR_INVALID_PARAMETER : nSameFileError);
    return 0;
  }
  Settings settings{};
  if (!BeginTransfer(&settings)) return 0;
  // Whatever happens from here on, the transfer ends: files closed, done
  // event set. Nothing below throws (the callback is contained in Report);
  // the catch only keeps that promise if something unforeseen does.
  DWORD nError = ERROR_SUCCESS;
  int nRate = 0;
  try {
    nRate = Copy(pszSource, pszDestination, settings);
    nError = GetLastError();
  } catch (...) {
    nError = QltCurrentExceptionError();
  }
  EndTransfer();
  SetLastError(nRate ? ERROR_SUCCESS : nError);
  return nRate;
}

int KxFileTransfer::Copy(const wchar_t* pszSource, const wchar_t* pszDestination, const Settings& settings) {
  CAutoHandle source(CreateFileW(pszSource, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_NO_BUFFERING | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!source.IsValid()) return 0;
  CAutoHandle destination(CreateFileW(pszDestination, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      CREATE_ALWAYS, FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!destination.IsValid()) return 0;

  AlignedBuffer buffer;
  LARGE_INTEGER size{};
  bool bOk = buffer.m_pData != nullptr && GetFileSizeEx(source.Get(), &size);
  if (!buffer.m_pData) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  // The destination takes its final size at once.
  LARGE_INTEGER zero{};
  bOk = bOk && SetFilePointerEx(destination.Get(), size, nullptr, FILE_BEGIN) && SetEndOfFile(destination.Get()) &&
        SetFilePointerEx(destination.Get(), zero, nullptr, FILE_BEGIN);

  CStopwatch clock(*settings.pClock);
  LONGLONG nWritten = 0;
  if (bOk) bOk = CopyData(source.Get(), destination.Get(), buffer.m_pData, size.QuadPart, settings, clock, &nWritten);
  DWORD nError = GetLastError();
  source.Reset();
  destination.Reset();

  // A callback that threw while copying still gets its final report.
  if (!Report(settings, 100, nWritten, true) && bOk) {
    bOk = false;
    nError = ERROR_CANCELLED;
  }
  int nRate = bOk ? AchievedRate(size.QuadPart, clock) : 0;
  SetLastError(bOk ? ERROR_SUCCESS : nError);
  return nRate;
}

bool KxFileTransfer::CopyData(HANDLE hSource, HANDLE hDestination, char* pBuffer, LONGLONG nSize,
                              const Settings& settings, const CStopwatch& clock, LONGLONG* pWritten) {
  LONGLONG nBytesPerSecond;
  {
    CAutoLock lock(&m_cs);
    if (m_nBitrate <= 0) m_nBitrate = kMinimumBitrate;
    nBytesPerSecond = (static_cast<LONGLONG>(m_nBitrate) + 7) / 8;
  }
  const LONGLONG nBlocks = nSize / kBlockSize;
  int nLastPercent = -1;
  for (LONGLONG i = 0; i < nBlocks && !m_bAbort.load(std::memory_order_relaxed); ++i) {
    if (!ReadWhole(hSource, pBuffer, kBlockSize, kBlockSize)) return false;
    if (!WriteWhole(hDestination, pBuffer, kBlockSize)) return false;
    *pWritten += kBlockSize;

    int nPercent = static_cast<int>(std::min<LONGLONG>(i * 100 / nBlocks, 99));
    if (nPercent != nLastPercent) {
      nLastPercent = nPercent;
      if (!Report(settings, nPercent, *pWritten, false)) {
        SetLastError(ERROR_CANCELLED);  // the host's callback failed: stop here
        return false;
      }
    }

    // Compare the whole schedule with the whole elapsed time, so that a
    // wait that overran is paid back by the next ones.
    LONGLONG nAheadMs = *pWritten * 1000 / nBytesPerSecond - clock.Milliseconds();
    if (nAheadMs > kPacingSlackMs)
      clock.Wait(m_hAbortEvent, static_cast<DWORD>(std::min<LONGLONG>(nAheadMs, INFINITE - 1)));
  }
  if (m_bAbort.load(std::memory_order_relaxed)) return true;

  // The tail: read as whole sectors (an unbuffered source refuses anything
  // else), write only its own bytes at its place.
  const DWORD nTail = static_cast<DWORD>(nSize - nBlocks * kBlockSize);
  if (nTail == 0) return true;
  const DWORD nAsk = (nTail + kSectorSize - 1) / kSectorSize * kSectorSize;
  if (!ReadWhole(hSource, pBuffer, nAsk, nTail)) return false;
  if (!WriteWhole(hDestination, pBuffer, nTail)) return false;
  *pWritten += nTail;
  return true;
}
