// The local file's write path: the staging engine, the block write with its
// flush and retry, and the failure bookkeeping.
#include <cstring>

#include "diagnostics/error_entries.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/write_timing_log.h"
#include "platform/platform.h"
#include "writer/kx_file_ex.h"
#include "writer/writer_constants.h"

using namespace qlt::writer;

BOOL KxFileEx::Write(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, DWORD dwUserData) {
  const BYTE* pData = static_cast<const BYTE*>(pBuffer);
  bool ok = true;
  try {
    if (UsesCache()) {
      if (m_cache.Failed()) {
        // The cache thread could not write earlier bytes: nothing more is
        // taken, so the host learns of the loss now.
        SetLastError(m_cache.Error());
        ok = false;
      } else if (!m_cache.HasPool()) {
        SetLastError(ERROR_INVALID_FUNCTION);  // a cache needs managed mode
        ok = false;
      } else {
        SetLastError(NO_ERROR);
        ok = m_cache.QueueWrite(pData, nLength, dwUserData);
        if (!ok && GetLastError() == NO_ERROR) SetLastError(ERROR_WRITE_FAULT);
      }
      if (pWritten) *pWritten = nLength;
    } else {
      int64_t room = static_cast<int64_t>(m_nBlockSize) - m_nStaged;
      if (room > static_cast<int64_t>(nLength)) {
        if (nLength > 0) std::memcpy(m_pStaging + m_nStaged, pData, nLength);
        m_nStaged += static_cast<int32_t>(nLength);
      } else {
        DWORD err = NO_ERROR;
        int64_t left = nLength;
        if (m_nStaged > 0) {
          std::memcpy(m_pStaging + m_nStaged, pData, static_cast<size_t>(room));
          pData += room;
          left -= room;
          m_nStaged = 0;
          if (BlockWrite(m_hFile, m_pStaging, m_nBlockSize) != static_cast<DWORD>(m_nBlockSize)) {
            ok = false;
            err = GetLastError();
          }
        }
        // Whole blocks go straight from the host's buffer.
        while (left >= m_nBlockSize) {
          if (BlockWrite(m_hFile, pData, m_nBlockSize) != static_cast<DWORD>(m_nBlockSize) && ok) {
            ok = false;
            err = GetLastError();
          }
          pData += m_nBlockSize;
          left -= m_nBlockSize;
        }
        if (left > 0) std::memcpy(m_pStaging, pData, static_cast<size_t>(left));
        m_nStaged = static_cast<int32_t>(left);
        if (!ok) SetLastError(err);
      }
      if (pWritten) *pWritten = nLength;
      if (dwUserData != 0) {
        CAutoLock lock(&m_csUserData);
        m_userData.Add(dwUserData);
      }
    }
  } catch (...) {
    // Counted as a failed write; the entry names the call's length.
    DWORD nDone = pWritten ? *pWritten : 0;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    try {
      LogEntry(WriteFailedEntry(nLength, nDone));
    } catch (...) {
    }
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    ok = false;
  }
  m_nLogicalPos += nLength;
  if (m_nLogicalPos > m_nLogicalSize) m_nLogicalSize = m_nLogicalPos;
  m_nBytesAccepted += nLength;
  {
    // The registry reads a live writer's length and pending bytes from here.
    m_registryEntry.Progress(m_nLogicalSize, m_nBytesAccepted > m_nBytesOnDisk ? m_nBytesAccepted - m_nBytesOnDisk : 0);
  }
  if (!ok) {
    NoteFailedWrite();
    DWORD err = GetLastError();
    m_errorCodes.Report(kErrorCode, L"");
    SetLastError(err);
  }
  return ok ? 1 : 0;
}

void KxFileEx::NoteFailedWrite() {
  ++m_nFailedWrites;
  if (m_dwFailError == NO_ERROR) m_dwFailError = GetLastError() != NO_ERROR ? GetLastError() : ERROR_WRITE_FAULT;
}

void KxFileEx::CacheUserData(DWORD dwUserData) {
  CAutoLock lock(&m_csUserData);
  m_userData.Add(dwUserData);
}

bool KxFileEx::FilePosition(uint64_t* pPos) {
  LARGE_INTEGER zero{}, pos{};
  if (!::SetFilePointerEx(m_hFile, zero, &pos, FILE_CURRENT)) return false;
  *pPos = static_cast<uint64_t>(pos.QuadPart);
  return true;
}

void KxFileEx::TrackWritten(DWORD nWritten) {
  m_nPhysPos += nWritten;
  if (m_nPhysPos > m_nExtent) m_nExtent = m_nPhysPos;
}

DWORD KxFileEx::BlockWrite(HANDLE hFile, const BYTE* pBuffer, int64_t nLength) {
  if (pBuffer == nullptr || nLength <= 0) return 0;
  const int nRetries = SdkSettings.WriteRetryCount;
  if (IsBadHandle(hFile) && nRetries <= 0) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  DWORD nWritten = 0;
  if (nRetries > 0) {
    RetryWrite(pBuffer, static_cast<DWORD>(nLength), &nWritten);
  } else {
    nWritten = WriteOnce(pBuffer, static_cast<DWORD>(nLength));
    // The next block starts where this one ended: a retry switched on later
    // rewrites from there.
    if (nWritten == static_cast<DWORD>(nLength)) m_nGoodPos = m_nPhysPos;
  }
  DWORD err = GetLastError();
  m_nUnflushed += static_cast<uint64_t>(nLength);
  if (m_nUnflushed > kForcedFlushBytes) {
    m_nUnflushed = 0;
    ::FlushFileBuffers(hFile);
    m_nWriteBackBytes = 0;
  } else if (nRetries <= 0 && nWritten > 0) {
    // With retries every block was flushed already. The write's last error
    // stands whatever the write-back start does.
    StartWriteBack(hFile, m_nPhysPos - nWritten, nWritten);
    SetLastError(err);
  }
  if (nWritten != static_cast<DWORD>(nLength)) SetLastError(err != NO_ERROR ? err : ERROR_WRITE_FAULT);
  return nWritten;
}

void KxFileEx::StartWriteBack(HANDLE hFile, uint64_t nAt, DWORD nWritten) {
  // The bytes start on their way to the device once kWriteBackChunk of them
  // have gathered, so the forced flush finds most of the 16 MiB already
  // written instead of waiting for all of it while nothing else moves.
  // Small blocks (small cached records) gather, so the call is not made for
  // every few KiB; a write elsewhere (after a seek) starts what had gathered.
  if (m_nWriteBackBytes > 0 && nAt != m_nWriteBackFrom + m_nWriteBackBytes) {
    ::QltStartWriteBack(hFile, m_nWriteBackFrom, m_nWriteBackBytes);
    m_nWriteBackBytes = 0;
  }
  if (m_nWriteBackBytes == 0) m_nWriteBackFrom = nAt;
  m_nWriteBackBytes += nWritten;
  if (m_nWriteBackBytes >= kWriteBackChunk) {
    // A failure only loses the head start.
    ::QltStartWriteBack(hFile, m_nWriteBackFrom, m_nWriteBackBytes);
    m_nWriteBackBytes = 0;
  }
}

DWORD KxFileEx::WriteOnce(const BYTE* pBuffer, DWORD nLength) {
  DWORD nWritten = 0;
  try {
    SetLastError(NO_ERROR);
    BOOL bOk = TimedWriteFile(m_hFile, pBuffer, nLength, &nWritten, nullptr, LoggedOffset(), 1,
                              static_cast<DWORD>(reinterpret_cast<uintptr_t>(this)));
    // Bytes that reached the file moved the file pointer, also when the
    // call failed after them.
    TrackWritten(nWritten);
    if (!bOk) {
      DWORD err = GetLastError();
      LogEntry(WriteFailedEntry(nLength, nWritten));
      SetLastError(err != NO_ERROR ? err : ERROR_WRITE_FAULT);
      if (nWritten == nLength) nWritten = 0;  // a failed call never counts as complete
    }
  } catch (...) {
    // A failed attempt like any other, with its entry.
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    try {
      LogEntry(WriteFailedEntry(nLength, nWritten));
    } catch (...) {
    }
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    nWritten = 0;
  }
  return nWritten;
}

BOOL KxFileEx::RetryWrite(const BYTE* pBuffer, DWORD nLength, DWORD* pWritten) {
  DWORD nWritten = WriteOnce(pBuffer, nLength);
  DWORD err = GetLastError();
  // With retries every block is on disk before the block write returns.
  ::FlushFileBuffers(m_hFile);
  const int nRetries = SdkSettings.WriteRetryCount;
  for (int attempt = 0; nWritten != nLength && attempt < nRetries; ++attempt) {
    if (!IsBadHandle(m_hFile)) {
      ::FlushFileBuffers(m_hFile);
      ::CloseHandle(m_hFile);
    }
    m_hFile = ::CreateFileW(m_bstrFileName.m_str ? m_bstrFileName.m_str : L"", GENERIC_WRITE,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (IsBadHandle(m_hFile)) {
      err = GetLastError();
      m_hFile = INVALID_HANDLE_VALUE;
      nWritten = 0;
      const int nWaitMs = SdkSettings.WriteRetryTime;
      if (nWaitMs > 0) Sleep(static_cast<DWORD>(nWaitMs));
      continue;
    }
    LARGE_INTEGER back{}, now{};
    back.QuadPart = static_cast<LONGLONG>(m_nGoodPos);
    if (!::SetFilePointerEx(m_hFile, back, &now, FILE_BEGIN)) {
      LogEntry(RetrySeekFailedEntry(back.QuadPart, now.QuadPart));
    } else {
      // The rewrite starts where the failed block was to be written: bytes
      // a failed attempt left behind are overwritten, not counted twice.
      m_nPhysPos = m_nGoodPos;
    }
    nWritten = WriteOnce(pBuffer, nLength);
    err = GetLastError();
  }
  *pWritten = nWritten;
  if (nWritten == nLength) {
    if (!FilePosition(&m_nGoodPos)) LogEntry(RetrySeekFailedEntry(0, static_cast<int64_t>(m_nGoodPos)));
    return 1;
  }
  m_errorCodes.Report(kErrorCode, L"write file error");
  SetLastError(err != NO_ERROR ? err : ERROR_WRITE_FAULT);
  return 0;
}

bool KxFileEx::WriteOutStaged() {
  if (m_nStaged <= 0) return true;
  DWORD nWritten = BlockWrite(m_hFile, m_pStaging, m_nStaged);
  if (nWritten < static_cast<DWORD>(m_nStaged)) return false;
  m_nStaged = 0;
  return true;
}
