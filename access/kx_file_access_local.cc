// The local back-end: a block-cached reader and a direct writer over one
// platform file handle, with the shared read-ahead / write-behind scheme.
#include "access/kx_file_access_local.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "diagnostics/error_entries.h"
#include "diagnostics/sdk_settings.h"

namespace {

constexpr __int64 kAlign = 4096;
constexpr DWORD kMaxBlock = 1u << 30;

__int64 AlignDown(__int64 n) { return std::max<__int64>(0, n - n % kAlign); }

BYTE* AllocAligned(size_t n) { return static_cast<BYTE*>(::operator new(n, std::align_val_t(kAlign))); }
void FreeAligned(BYTE* p) {
  if (p) ::operator delete(p, std::align_val_t(kAlign));
}

}  // namespace

KxFileAccessLocal::KxFileAccessLocal() : KxAsyncFileAccess(kReadAheadChunk) {}

KxFileAccessLocal::~KxFileAccessLocal() {
  CloseFile();
  AsyncStop();  // a worker made before any open is still waiting
  FreeAligned(m_pReadCache);
}

void KxFileAccessLocal::LogEntry(const CErrorLogEntry& entry) {
  if (SdkSettings.LogFileOn != 0) WriteErrorLogEntry(m_errorLog, m_strPath, entry);
}

int KxFileAccessLocal::OpenFile(CComBSTR strPath, DWORD nMode) {
  CloseFile();
  m_nShortWrites = 0;
  m_nDiskPos = m_nLogicalPos = m_nReadCacheStart = 0;
  m_nReadCacheLen = 0;
  m_bStopWorker.store(0);
  m_nAccessMode = nMode;
  if (strPath.Length() == 0) return 0;
  DWORD nAccess, nDisposition, nFlags = FILE_ATTRIBUTE_NORMAL;
  if (nMode == 1) {
    nAccess = GENERIC_READ;
    nDisposition = OPEN_EXISTING;
    if (SdkSettings.ReadMode == 1) nFlags |= FILE_FLAG_NO_BUFFERING;
  } else if (nMode == 2) {
    nAccess = GENERIC_READ | GENERIC_WRITE;
    nDisposition = CREATE_ALWAYS;
  } else {
    return 0;
  }
  m_strPath.assign(strPath.m_str, strPath.Length());
  m_bUnbuffered = (nFlags & FILE_FLAG_NO_BUFFERING) != 0;
  m_hFile = CreateFileW(m_strPath.c_str(), nAccess, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, nDisposition, nFlags,
                        nullptr);
  m_nFileLength = 0;
  if (HasFile()) {
    LARGE_INTEGER size;
    if (GetFileSizeEx(m_hFile, &size)) m_nFileLength = static_cast<ULONGLONG>(size.QuadPart);
  }
  AsyncOnOpen(nMode);
  return HasFile() ? 1 : 0;
}

int KxFileAccessLocal::EnableAsyncWrite(int bEnable, int nBufferSize) {
  return AsyncEnable(false, bEnable, nBufferSize, HasFile(), m_nAccessMode);
}

int KxFileAccessLocal::EnableAsyncRead(int bEnable, int nBufferSize) {
  return AsyncEnable(true, bEnable, nBufferSize, HasFile(), m_nAccessMode);
}

void KxFileAccessLocal::ResumeAt(__int64 nFilePos) { SyncSetPosition(nFilePos, false); }

int KxFileAccessLocal::GetAccessMode(DWORD& nMode) {
  if (m_hFile != nullptr) {
    nMode = m_nAccessMode;
    return 1;
  }
  nMode = 0xFFFFFFFFu;
  return 0;
}

int KxFileAccessLocal::SetReadBufferSize(DWORD nSize) {
  if (nSize == 0 || nSize > kMaxBlock) return 0;
  SdkSettings.ReadBufSize = static_cast<int32_t>(nSize);
  return 1;
}

int KxFileAccessLocal::Read(BYTE* pBuffer, int nCount) {
  if (!HasFile()) return 0;
  try {
    if (IsAsyncActive()) {
      int n = AsyncRead(pBuffer, nCount);
      m_nAsyncPosition += n;
      return n;
    }
    return DirectRead(pBuffer, nCount);
  } catch (...) {
    // Logged here, where the operation is known; the facade sets the last error.
    LogEntry(AccessReadExceptionEntry(nCount, 0));
    throw;
  }
}

__int64 KxFileAccessLocal::GetPosition() {
  if (!HasFile()) return 0;
  return IsAsyncActive() ? m_nAsyncPosition : m_nLogicalPos;
}

bool KxFileAccessLocal::MovePointer(__int64 nPos, __int64* pNewPos) {
  LARGE_INTEGER distance, newPos;
  distance.QuadPart = nPos;
  newPos.QuadPart = 0;
  BOOL ok = SetFilePointerEx(m_hFile, distance, &newPos, FILE_BEGIN);
  if (pNewPos) *pNewPos = ok ? newPos.QuadPart : 0;
  return ok != FALSE;
}

int KxFileAccessLocal::SyncSetPosition(__int64 nPos, bool bAsyncEntry) {
  m_nLogicalPos = nPos;
  // The block cache wants 4,096-aligned fills; a writer wants its next byte
  // exactly where it asked, so nothing before it is overwritten.
  m_nDiskPos = m_nAccessMode == 2 ? nPos : AlignDown(nPos);
  __int64 nNew = 0;
  if (!MovePointer(m_nDiskPos, &nNew)) {
    // A seek asked for in asynchronous mode names the caller's position; a
    // synchronous one the aligned position the pointer was sent to.
    LogEntry(SeekFailedEntry(bAsyncEntry ? nPos : m_nDiskPos, nNew));
    return 0;
  }
  return 1;
}

int KxFileAccessLocal::SetPosition(__int64 nPos) {
  if (!HasFile()) return 0;
  if (nPos < 0) {
    // Refused before anything moves: no position before the file's start
    // reaches the cache arithmetic or the worker.
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }
  try {
    if (IsAsyncActive()) {
      // Deterministic seek: end the worker (queued writes land at the old
      // place, read-ahead is dropped), move, and start it again from there.
      bool bRead = IsAsyncRead();
      DWORD nCapacity = AsyncCapacity();
      AsyncStop();
      int r = SyncSetPosition(nPos, true);
      m_nAsyncPosition = nPos;
      AsyncRestart(bRead, nCapacity, nPos);
      return r;
    }
    return SyncSetPosition(nPos, false);
  } catch (...) {
    // Logged here, where the operation is known; the facade sets the last error.
    LogEntry(AccessSeekExceptionEntry(nPos, 0));
    throw;
  }
}

int KxFileAccessLocal::Write(const BYTE* pBuffer, int nCount) {
  if (!HasFile() || !pBuffer || nCount < 1) return 0;
  try {
    if (IsAsyncActive()) return AsyncWrite(pBuffer, nCount);
    return DirectWrite(pBuffer, nCount);
  } catch (...) {
    // Logged here, where the operation is known; the facade sets the last error.
    LogEntry(AccessWriteExceptionEntry(nCount, 0));
    throw;
  }
}

int KxFileAccessLocal::CloseFile() {
  if (m_hFile == nullptr) return 0;  // a ring made before the open stays
  AsyncStop();
  AsyncOnClose();
  if (m_hFile == INVALID_HANDLE_VALUE) return 0;  // failed open: keeps its mark
  BOOL ok = CloseHandle(m_hFile);
  m_hFile = nullptr;
  return ok && m_nShortWrites <= 0 ? 1 : 0;
}

bool KxFileAccessLocal::GrowCache(__int64 nNeed) {
  if (m_nReadCacheCapacity >= nNeed) return true;
  FreeAligned(m_pReadCache);
  m_pReadCache = nullptr;
  m_nReadCacheCapacity = 0;
  m_nReadCacheLen = 0;
  m_pReadCache = AllocAligned(static_cast<size_t>(nNeed + kAlign));
  m_nReadCacheCapacity = nNeed + kAlign;
  return true;
}

int KxFileAccessLocal::DirectRead(BYTE* pBuffer, int nCount) {
  if (!HasFile()) return 0;
  if (!pBuffer) {
    // Skip: no bytes are copied; the cache is emptied and the pointer goes
    // exactly to the new position (a write after a skip lands there; a
    // fill that needs an aligned start realigns itself).
    __int64 nTarget = m_nLogicalPos + nCount;
    __int64 nNew = 0;
    if (nTarget < 0 || !MovePointer(nTarget, &nNew)) {
      if (nTarget < 0) SetLastError(ERROR_NEGATIVE_SEEK);
      LogEntry(SeekBeforeReadFailedEntry(nTarget, nNew));
      return 0;
    }
    m_nLogicalPos = nTarget;
    m_nDiskPos = m_nReadCacheStart = nTarget;
    m_nReadCacheLen = 0;
    __int64 nAbs = nCount < 0 ? -static_cast<__int64>(nCount) : nCount;
    return static_cast<int>(std::min<__int64>(nAbs, INT_MAX));
  }
  if (nCount <= 0) return 0;
  if (m_nLogicalPos < 0) {  // never set so; kept out of the copies below
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }

  __int64 nRemainder = nCount;
  if (m_nReadCacheStart < m_nLogicalPos) {
    __int64 nAvailable = m_nReadCacheStart + m_nReadCacheLen - m_nLogicalPos;
    if (nAvailable > 0 && m_nReadCacheStart >= 0) {
      __int64 nTake = std::min<__int64>(nAvailable, nCount);
      std::memcpy(pBuffer, m_pReadCache + (m_nLogicalPos - m_nReadCacheStart), static_cast<size_t>(nTake));
      m_nLogicalPos += nTake;
      nRemainder -= nTake;
    }
  }
  if (nRemainder <= 0) return nCount;

  // The fill starts at the platform pointer (m_nDiskPos). It must not lie
  // beyond the caller's position, and an unbuffered handle reads only at
  // aligned offsets: otherwise restart it at the aligned block below.
  if (m_nDiskPos > m_nLogicalPos || (m_bUnbuffered && m_nDiskPos % kAlign != 0)) {
    __int64 nDisk = AlignDown(m_nLogicalPos);
    __int64 nNew = 0;
    if (!MovePointer(nDisk, &nNew)) {
      LogEntry(SeekBeforeReadFailedEntry(nDisk, nNew));
      return static_cast<int>(nCount - nRemainder);
    }
    m_nDiskPos = nDisk;
  }

  __int64 nBlock = SdkSettings.ReadBufSize;
  if (nBlock < 1) nBlock = kDefaultReadBufSize;
  if (m_bUnbuffered && nBlock % kAlign != 0) nBlock += kAlign - nBlock % kAlign;

  // Whole blocks the caller asked for go straight into its buffer when the
  // pointer stands at the caller's position: still whole-block platform
  // reads, one copy fewer. An unbuffered handle needs an aligned buffer.
  BYTE* pDest = pBuffer + (nCount - nRemainder);
  if (nRemainder >= nBlock && m_nDiskPos == m_nLogicalPos &&
      (!m_bUnbuffered || reinterpret_cast<uintptr_t>(pDest) % kAlign == 0)) {
    __int64 nDirect = nRemainder - nRemainder % nBlock;
    DWORD nRead = 0;
    // One platform read for all the blocks: a large request lets the
    // system read ahead as far as the caller wants.
    if (!ReadFile(m_hFile, pDest, static_cast<DWORD>(nDirect), &nRead, nullptr)) {
      // The entry names the block size, as every failed read does.
      LogEntry(ReadFailedEntry(nBlock, nRead));
      m_nDiskPos = m_nReadCacheStart = m_nLogicalPos;
      m_nReadCacheLen = 0;
      MovePointer(m_nDiskPos, nullptr);  // where the next read retries
      return static_cast<int>(nCount - nRemainder);
    }
    __int64 nDone = nRead;
    bool bEnd = nDone < nDirect;
    m_nLogicalPos += nDone;
    m_nDiskPos = m_nReadCacheStart = m_nLogicalPos;
    m_nReadCacheLen = 0;
    nRemainder -= nDone;
    if (bEnd || nRemainder <= 0) return static_cast<int>(nCount - nRemainder);
  }

  __int64 nGap = m_nLogicalPos - m_nDiskPos;  // 0 or more: the pointer was moved back above otherwise
  if (nGap < 0) return static_cast<int>(nCount - nRemainder);
  __int64 nNeed = nGap + nRemainder;
  if (nNeed % kAlign != 0) nNeed += kAlign - nNeed % kAlign;
  if (nNeed <= nBlock)
    nNeed = nBlock;
  else
    nNeed = nNeed + nBlock - nNeed % nBlock;
  GrowCache(nNeed);

  m_nReadCacheLen = 0;
  bool bFailed = false;
  for (__int64 i = 0, nBlocks = nNeed / nBlock; i < nBlocks; ++i) {
    LARGE_INTEGER zero, cur;
    zero.QuadPart = 0;
    cur.QuadPart = 0;
    if (!SetFilePointerEx(m_hFile, zero, &cur, FILE_CURRENT)) LogEntry(SeekBeforeReadFailedEntry(0, cur.QuadPart));
    DWORD nRead = 0;
    bFailed = !ReadFile(m_hFile, m_pReadCache + m_nReadCacheLen, static_cast<DWORD>(nBlock), &nRead, nullptr);
    if (bFailed) LogEntry(ReadFailedEntry(nBlock, nRead));
    m_nReadCacheLen += nRead;
    if (bFailed || nRead < nBlock) break;
  }
  if (bFailed) {
    // The cache no longer matches its bookkeeping: empty it, and put the
    // pointer back where the fill began so a later read tries again.
    m_nReadCacheLen = 0;
    m_nReadCacheStart = m_nDiskPos;
    MovePointer(m_nDiskPos, nullptr);
    return static_cast<int>(nCount - nRemainder);
  }
  __int64 nAvailable = static_cast<__int64>(m_nReadCacheLen) - nGap;
  if (nAvailable > 0) {
    __int64 nTake = std::min(nRemainder, nAvailable);
    std::memcpy(pBuffer + (nCount - nRemainder), m_pReadCache + nGap, static_cast<size_t>(nTake));
    m_nLogicalPos += nTake;
    nRemainder -= nTake;
  }
  m_nReadCacheStart = m_nDiskPos;
  m_nDiskPos += m_nReadCacheLen;
  return static_cast<int>(nCount - nRemainder);
}

int KxFileAccessLocal::DirectWrite(const BYTE* pBuffer, int nCount) {
  if (!pBuffer || nCount < 1 || !HasFile()) return 0;
  DWORD nWritten = 0;
  if (!WriteFile(m_hFile, pBuffer, static_cast<DWORD>(nCount), &nWritten, nullptr))
    LogEntry(WriteFailedEntry(nCount, nWritten));
  if (nWritten != static_cast<DWORD>(nCount)) ++m_nShortWrites;
  return static_cast<int>(nWritten);
}
