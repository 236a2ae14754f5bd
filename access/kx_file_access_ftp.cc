#include "access/kx_file_access_ftp.h"

#include <algorithm>
#include <new>

#include "platform/platform.h"

namespace {

std::wstring Text(const CComBSTR& s) { return s.m_str ? std::wstring(s.m_str, s.Length()) : std::wstring(); }

}  // namespace

KxFileAccessFtp::KxFileAccessFtp()
    : m_hFileOpened(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      m_hWorkerDone(CreateEventW(nullptr, TRUE, TRUE, nullptr)) {}

KxFileAccessFtp::~KxFileAccessFtp() {
  CloseFile();
  EndAsync();  // a worker enabled before any open still waits
  Disconnect();
  CloseHandle(m_hFileOpened);
  CloseHandle(m_hWorkerDone);
}

void KxFileAccessFtp::Disconnect() {
  m_session.LogOut();
  m_bConnected = false;
}

int KxFileAccessFtp::LogInHost(CComBSTR strHost, CComBSTR strUser, CComBSTR strPassword, int nPort) {
  try {
    // A file still open would lose its connection under it: close it first.
    CloseFile();
    Disconnect();
    m_strAgent = L"QlFtpClient";
    if (!m_session.LogIn(Text(strHost), Text(strUser), Text(strPassword), nPort)) return 0;
    m_strHost = Text(strHost);
    m_strUser = Text(strUser);
    m_nPort = nPort;
    m_bConnected = true;
    return 1;
  } catch (const std::bad_alloc&) {
    Disconnect();
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

int KxFileAccessFtp::OpenFile(CComBSTR strPath, DWORD nMode) {
  try {
    CloseFile();
    if (!m_bConnected) {
      SetLastError(QLT_ERROR_FTP_CANNOT_CONNECT);
      return 0;
    }
    std::wstring path = Text(strPath);
    if (!path.empty() && (path[0] == L'/' || path[0] == L'\\')) path.erase(0, 1);
    m_bstrPath = path.c_str();
    m_bStopWorker.store(0, std::memory_order_relaxed);
    m_nAccessMode = nMode;
    m_bUploadFailed.store(false, std::memory_order_relaxed);
    if (nMode == 1) {
      ULONGLONG size = 0;
      if (!m_session.OpenRead(path, &size)) return 0;
      m_nFileLength = size;
      m_bFileOpen = true;
    } else if (nMode == 2) {
      if (!m_session.OpenWrite(path)) return 0;
      m_bFileOpen = true;
    }
    if (m_bFileOpen && m_pRing) {
      // Asynchronous mode was enabled before this open: its worker waits for
      // the file. A worker of the other direction, or one that already
      // ended, is replaced.
      bool bWaiting = m_hWorker && WaitForSingleObject(m_hWorker, 0) == WAIT_TIMEOUT;
      if (bWaiting && m_bWorkerRead == (nMode == 1)) {
        m_pRing->ResetStream();
        m_nAsyncBase = 0;
      } else {
        int capacity = static_cast<int>(m_pRing->GetBufferSize());
        EnableAsync(nMode == 1, 1, capacity);
      }
    } else if (m_bFileOpen && m_bAsync) {
      EnableAsync(nMode == 1, 1, m_nDefaultAsyncBufferSize);
    }
    if (!m_bFileOpen) return 1;  // other modes open nothing; a waiting worker keeps waiting
    SetEvent(m_hFileOpened);
    return 1;
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

int KxFileAccessFtp::GetAccessMode(DWORD& nMode) {
  if (!m_bFileOpen) {
    nMode = 0xFFFFFFFF;
    return 0;
  }
  nMode = m_nAccessMode;
  return 1;
}

int KxFileAccessFtp::DirectRead(BYTE* pBuffer, int nCount) {
  if (!m_bFileOpen) return 0;
  if (pBuffer) {
    if (nCount <= 0) return 0;
    LONG got = m_session.Read(pBuffer, nCount);
    return got < 0 ? 0 : static_cast<int>(got);
  }
  // Skip: a seek relative to the current position.
  __int64 target = static_cast<__int64>(m_session.Position()) + nCount;
  if (target < 0 || !m_session.Seek(static_cast<ULONGLONG>(target))) return 0;
  return static_cast<int>(static_cast<DWORD>(m_session.Position()));
}

int KxFileAccessFtp::Read(BYTE* pBuffer, int nCount) {
  if (m_bAsync && m_pRing) {
    int got = AsyncRead(pBuffer, nCount);
    m_nAsyncPosition += got;
    return got;
  }
  return DirectRead(pBuffer, nCount);
}

__int64 KxFileAccessFtp::GetPosition() {
  if (!m_bFileOpen) return 0;
  if (m_bAsync && m_pRing) return m_nAsyncPosition;
  return static_cast<__int64>(m_session.Position());
}

int KxFileAccessFtp::SetPosition(__int64 nPos) {
  if (!m_bFileOpen) return 0;
  auto offset = static_cast<LONG>(static_cast<DWORD>(nPos));  // only the low 32 bits reach the seek
  if (offset < 0) {
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }
  bool bReadAhead = m_pRing && m_bWorkerRead;
  if (bReadAhead) StopWorker();  // a deterministic seek: no read-ahead bytes from before it
  BOOL ok = m_session.Seek(static_cast<ULONGLONG>(offset));
  if (bReadAhead) {
    m_pRing->ResetStream();
    if (ok) {
      m_nAsyncBase = 0;
      m_nAsyncPosition = offset;
    }
    StartWorker(true, static_cast<int>(m_pRing->GetBufferSize()));
  }
  if (!ok) return 0;
  return static_cast<int>(static_cast<DWORD>(m_session.Position()));
}

int KxFileAccessFtp::DirectWrite(const BYTE* pBuffer, int nCount) {
  if (!pBuffer || nCount < 1 || !m_bFileOpen || m_nAccessMode != 2) return 0;
  if (m_bUploadFailed.load(std::memory_order_relaxed)) return 0;
  if (!m_session.Write(pBuffer, nCount)) {
    DWORD error = GetLastError();
    m_bUploadFailed.store(true, std::memory_order_relaxed);
    Disconnect();
    SetLastError(error);
    return 0;
  }
  return nCount;
}

int KxFileAccessFtp::Write(const BYTE* pBuffer, int nCount) {
  if (m_bAsync && m_pRing) return AsyncWrite(pBuffer, nCount);
  return DirectWrite(pBuffer, nCount);
}

int KxFileAccessFtp::CloseFile() {
  if (!m_bFileOpen) return 0;
  m_bStopWorker.store(1, std::memory_order_relaxed);
  SetEvent(m_hFileOpened);
  if (m_pRing) {
    StopWorker();
    m_pRing->UninitStream();
    m_pRing.reset();
  }
  ResetEvent(m_hFileOpened);
  DWORD error = ERROR_SUCCESS;
  if (m_bUploadFailed.load(std::memory_order_relaxed)) {
    error = QLT_ERROR_FTP_CONNECTION_ABORTED;
  } else if (!m_session.Close()) {
    error = GetLastError();
  }
  m_bFileOpen = false;
  Disconnect();
  SetLastError(error);
  return 1;
}

// ---- Asynchronous scheme ------------------------------------------------------

bool KxFileAccessFtp::StartWorker(bool bRead, int nCapacity) {
  m_bStopWorker.store(0, std::memory_order_relaxed);
  m_bWorkerRead = bRead;
  ResetEvent(m_hWorkerDone);
  m_hWorker = CreateThread(nullptr, 0, bRead ? &KxFileAccessFtp::ReadAheadMain : &KxFileAccessFtp::WriteBehindMain,
                           this, 0, nullptr);
  if (!m_hWorker) {
    SetEvent(m_hWorkerDone);
    return false;
  }
  SetThreadPriority(m_hWorker, THREAD_PRIORITY_ABOVE_NORMAL);
  return true;
}

void KxFileAccessFtp::StopWorker() {
  if (!m_hWorker) return;
  m_bStopWorker.store(1, std::memory_order_relaxed);
  SetEvent(m_hFileOpened);  // a worker still waiting for a file goes on and stops
  if (m_bWorkerRead) {
    // End a remote read the worker may be blocked in, and take what it puts
    // into the ring until it ends, so a worker blocked on a full ring goes on.
    m_session.Abort();
    while (WaitForSingleObject(m_hWorker, 0) != WAIT_OBJECT_0) {
      LONG n = kReadAheadChunk;
      m_pRing->ReadData(nullptr, n, true);
    }
  } else {
    m_pRing->SetEndOfStream();  // the worker drains the ring into the upload
  }
  WaitForSingleObject(m_hWorker, INFINITE);
  CloseHandle(m_hWorker);
  m_hWorker = nullptr;
  if (!m_bFileOpen) ResetEvent(m_hFileOpened);
}

void KxFileAccessFtp::EndAsync() {
  if (!m_pRing) return;
  bool bRead = m_bWorkerRead;
  StopWorker();
  m_pRing->UninitStream();
  m_pRing.reset();
  // Bytes read ahead but not delivered are dropped: the download goes back to
  // the host's position.
  if (bRead && m_bFileOpen && m_nAccessMode == 1)
    m_session.Seek(m_nAsyncBase + static_cast<ULONGLONG>(m_nAsyncPosition));
}

int KxFileAccessFtp::EnableAsyncWrite(int bEnable, int nBufferSize) {
  if (nBufferSize < 1) return 0;
  return EnableAsync(false, bEnable, nBufferSize);
}

int KxFileAccessFtp::EnableAsyncRead(int bEnable, int nBufferSize) {
  // A ring smaller than one read-ahead chunk could never take a chunk.
  if (nBufferSize < kReadAheadChunk) return 0;
  return EnableAsync(true, bEnable, nBufferSize);
}

int KxFileAccessFtp::EnableAsync(bool bRead, int bEnable, int nBufferSize) {
  if (bEnable && m_bFileOpen && (m_nAccessMode == 1) != bRead) return 0;  // the open file goes the other way
  try {
    ULONGLONG hostPos =
        m_pRing && m_bWorkerRead ? m_nAsyncBase + static_cast<ULONGLONG>(m_nAsyncPosition) : m_session.Position();
    EndAsync();
    m_bAsync = bEnable;
    m_nAsyncBufferSize = nBufferSize;
    if (!bEnable) return 1;
    auto ring = std::make_unique<CRingStream_Wd>(L"input Buffering");
    if (ring->InitStream(static_cast<DWORD>(nBufferSize)) != 0) {
      ring->UninitStream();
      m_bAsync = 0;
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    ring->ResetStream();
    m_pRing = std::move(ring);
    if (bRead) {
      m_nAsyncPosition = 0;
      m_nAsyncBase = m_bFileOpen ? hostPos : 0;
    }
    if (!StartWorker(bRead, nBufferSize)) {
      m_pRing->UninitStream();
      m_pRing.reset();
      m_bAsync = 0;
      return 0;
    }
    return 1;
  } catch (const std::bad_alloc&) {
    m_bAsync = 0;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

int KxFileAccessFtp::AsyncRead(BYTE* pBuffer, int nCount) {
  if (!m_bFileOpen || nCount <= 0) return 0;
  int piece = nCount <= m_nAsyncBufferSize ? nCount : std::min(m_nAsyncBufferSize / 2, 2097152);
  int total = 0;
  while (total < nCount) {
    LONG want = std::min(piece, nCount - total);
    LONG n = want;
    m_pRing->ReadData(pBuffer ? pBuffer + total : nullptr, n, pBuffer == nullptr);
    total += static_cast<int>(n);
    if (n < want) break;  // the stream ended
  }
  return total;
}

int KxFileAccessFtp::AsyncWrite(const BYTE* pBuffer, int nCount) {
  if (!m_pRing || !pBuffer || nCount < 1) return 0;
  if (m_bUploadFailed.load(std::memory_order_relaxed)) return 0;
  int piece = nCount <= m_nAsyncBufferSize ? nCount : std::min(m_nAsyncBufferSize / 2, 2097152);
  int total = 0;
  while (total < nCount) {
    LONG n = std::min(piece, nCount - total);
    m_pRing->WriteData(pBuffer + total, n);
    total += static_cast<int>(n);
    if (n == 0) break;
  }
  return m_bUploadFailed.load(std::memory_order_relaxed) ? 0 : total;
}

DWORD WINAPI KxFileAccessFtp::ReadAheadMain(LPVOID self) {
  static_cast<KxFileAccessFtp*>(self)->ReadAhead();
  return 0;
}

DWORD WINAPI KxFileAccessFtp::WriteBehindMain(LPVOID self) {
  static_cast<KxFileAccessFtp*>(self)->WriteBehind();
  return 0;
}

void KxFileAccessFtp::ReadAhead() {
  std::unique_ptr<BYTE[]> buffer(new (std::nothrow) BYTE[kReadAheadChunk]);
  WaitForSingleObject(m_hFileOpened, INFINITE);
  ResetEvent(m_hWorkerDone);
  while (buffer && !m_bStopWorker.load(std::memory_order_relaxed)) {
    // The session delivers the whole chunk unless the file ends or fails.
    LONG got = m_session.Read(buffer.get(), kReadAheadChunk);
    if (got > 0) {
      LONG n = got;
      m_pRing->WriteData(buffer.get(), n);
      if (n < got) break;
    }
    if (got < kReadAheadChunk) break;
  }
  m_pRing->SetEndOfStream();
  SetEvent(m_hWorkerDone);
}

void KxFileAccessFtp::WriteBehind() {
  // A ring smaller than the usual step would never hold a whole step.
  const LONG kChunk = std::min<LONG>(1572864, static_cast<LONG>(m_pRing->GetBufferSize()));
  std::unique_ptr<BYTE[]> buffer(new (std::nothrow) BYTE[kChunk]);
  WaitForSingleObject(m_hFileOpened, INFINITE);
  ResetEvent(m_hWorkerDone);
  if (!buffer) m_bUploadFailed.store(true, std::memory_order_relaxed);
  while (!m_pRing->IsEndOfStream() || m_pRing->HasData()) {
    LONG n = kChunk;
    m_pRing->ReadData(buffer.get(), n, !buffer);
    if (n <= 0 || m_bUploadFailed.load(std::memory_order_relaxed)) continue;  // after a failure: drain only
    // Not DirectWrite: the caller's thread owns the connection and
    // disconnects after a failure in CloseFile.
    if (!m_session.Write(buffer.get(), n)) m_bUploadFailed.store(true, std::memory_order_relaxed);
  }
  SetEvent(m_hWorkerDone);
}
