#include "access/kx_file_access_ftp.h"

#include <new>

#include "access/ftp_back_end.h"
#include "platform/platform.h"

namespace {

std::wstring Text(const CComBSTR& s) { return s.m_str ? std::wstring(s.m_str, s.Length()) : std::wstring(); }

}  // namespace

KxFileAccessBase* QltNewFtpBackEnd() { return new (std::nothrow) KxFileAccessFtp(); }

KxFileAccessFtp::KxFileAccessFtp() : KxAsyncFileAccess(kReadAheadChunk) {}

KxFileAccessFtp::~KxFileAccessFtp() {
  CloseFile();
  StopWorker();  // a worker made before any open still waits
  Disconnect();
}

void KxFileAccessFtp::Disconnect() {
  m_session.LogOut();
  m_bConnected = false;
}

void KxFileAccessFtp::StopWorker() {
  // A released read-ahead worker blocked in a remote read is aborted by
  // InterruptWorker.
  AsyncStop();
}

void KxFileAccessFtp::InterruptWorker() { m_session.Abort(); }

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
  } catch (...) {
    Disconnect();  // no half-made connection stays behind
    throw;
  }
}

int KxFileAccessFtp::OpenFile(CComBSTR strPath, DWORD nMode) {
  CloseFile();
  if (!m_bConnected) {
    SetLastError(QLT_ERROR_FTP_CANNOT_CONNECT);
    return 0;
  }
  std::wstring path = Text(strPath);
  if (!path.empty() && (path[0] == L'/' || path[0] == L'\\')) path.erase(0, 1);
  m_bstrPath = path.c_str();
  m_bStopWorker.store(0);
  m_nAccessMode = nMode;
  m_bUploadFailed.store(false, std::memory_order_relaxed);
  if (nMode == 1) {
    ULONGLONG size = 0;
    if (!m_session.OpenRead(path, &size)) return 0;
    m_nFileLength = size;
  } else if (nMode == 2) {
    if (!m_session.OpenWrite(path)) return 0;
  } else {
    return 1;  // other modes open nothing; a worker made before waits on
  }
  m_bFileOpen = true;
  AsyncOnOpen(nMode);
  return 1;
}

int KxFileAccessFtp::EnableAsyncWrite(int bEnable, int nBufferSize) {
  return AsyncEnable(false, bEnable, nBufferSize, m_bFileOpen, m_nAccessMode);
}

int KxFileAccessFtp::EnableAsyncRead(int bEnable, int nBufferSize) {
  return AsyncEnable(true, bEnable, nBufferSize, m_bFileOpen, m_nAccessMode);
}

void KxFileAccessFtp::ResumeAt(__int64 nFilePos) {
  if (nFilePos >= 0) m_session.Seek(static_cast<ULONGLONG>(nFilePos));
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
    return got < 0 ? -1 : static_cast<int>(got);
  }
  // Skip: a seek relative to the current position.
  __int64 target = static_cast<__int64>(m_session.Position()) + nCount;
  if (target < 0 || !m_session.Seek(static_cast<ULONGLONG>(target))) return 0;
  return static_cast<int>(static_cast<DWORD>(m_session.Position()));
}

int KxFileAccessFtp::WorkerRead(BYTE* pBuffer, int nCount) {
  // What the server has sent so far, as soon as there is any: the first
  // bytes reach the caller without waiting for the whole chunk, and bytes
  // received before a failure are kept.
  LONG got = m_session.ReadSome(pBuffer, nCount);
  return got < 0 ? -1 : static_cast<int>(got);
}

int KxFileAccessFtp::Read(BYTE* pBuffer, int nCount) {
  if (!m_bFileOpen) return 0;
  if (IsAsyncActive()) {
    int got = AsyncRead(pBuffer, nCount);
    m_nAsyncPosition += got;
    return got;
  }
  return DirectRead(pBuffer, nCount);
}

__int64 KxFileAccessFtp::GetPosition() {
  if (!m_bFileOpen) return 0;
  if (IsAsyncActive()) return m_nAsyncPosition;
  return static_cast<__int64>(m_session.Position());
}

int KxFileAccessFtp::SetPosition(__int64 nPos) {
  if (!m_bFileOpen) return 0;
  if (nPos < 0) {  // refused whatever its low 32 bits say
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }
  auto offset = static_cast<LONG>(static_cast<DWORD>(nPos));  // only the low 32 bits reach the seek
  if (offset < 0 || m_nAccessMode != 1) {
    SetLastError(offset < 0 ? ERROR_NEGATIVE_SEEK : ERROR_INVALID_FUNCTION);
    return 0;
  }
  if (IsAsyncRead()) {
    // A deterministic seek: read-ahead from before it is dropped, and the
    // worker starts again at the new position.
    DWORD nCapacity = AsyncCapacity();
    StopWorker();
    BOOL ok = m_session.Seek(static_cast<ULONGLONG>(offset));
    m_nAsyncPosition = static_cast<__int64>(m_session.Position());
    AsyncRestart(true, nCapacity, m_nAsyncPosition);
    return ok ? static_cast<int>(static_cast<DWORD>(m_nAsyncPosition)) : 0;
  }
  if (!m_session.Seek(static_cast<ULONGLONG>(offset))) return 0;
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

int KxFileAccessFtp::WorkerWrite(const BYTE* pBuffer, int nCount) {
  // After a failure the worker only drains the ring, so the caller never
  // waits on it; the caller's thread disconnects in CloseFile.
  if (m_bUploadFailed.load(std::memory_order_relaxed)) return 0;
  if (!m_session.Write(pBuffer, nCount)) {
    m_bUploadFailed.store(true, std::memory_order_relaxed);
    return 0;
  }
  return nCount;
}

int KxFileAccessFtp::Write(const BYTE* pBuffer, int nCount) {
  if (!m_bFileOpen || !pBuffer || nCount < 1) return 0;
  if (IsAsyncActive()) {
    if (m_bUploadFailed.load(std::memory_order_relaxed)) {
      SetLastError(QLT_ERROR_FTP_CONNECTION_ABORTED);
      return 0;
    }
    return AsyncWrite(pBuffer, nCount);
  }
  return DirectWrite(pBuffer, nCount);
}

int KxFileAccessFtp::CloseFile() {
  if (!m_bFileOpen) return 0;
  m_bStopWorker.store(1);
  StopWorker();
  AsyncOnClose();
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
