#include "writer/kx_file_ex.h"

#include <cstring>
#include <new>

#include "companions/logbook/logbook_api.h"
#include "diagnostics/error_entries.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/virtual_storage.h"
#include "diagnostics/web_plugin.h"
#include "diagnostics/write_timing_log.h"
#include "platform/platform.h"
#include "qltfsdk/writeroption.h"

namespace {

constexpr uint64_t kForcedFlushBytes = 16777216;  // a flush is forced past this many bytes
constexpr int32_t kStagingSlack = 1024;           // spare bytes behind each staging buffer
constexpr int32_t kErrorCode = 200;               // the writer's code in the error-code register

bool IsBadHandle(HANDLE h) { return h == nullptr || h == INVALID_HANDLE_VALUE; }

}  // namespace

KxFileEx::KxFileEx() : m_hFile(INVALID_HANDLE_VALUE) {
  InitializeCriticalSection(&m_cs);
  InitializeCriticalSection(&m_csUserData);
  m_info.nCacheMode = 0;
  m_info.nOpMode = 1;
  m_info.nReserved = 0;
  m_info.dwMemoryPoolSize = 33554432;
  m_info.bstrDiskPoolPath = nullptr;
  m_info.dwDiskPoolSize = 4194304;
  m_info.dwWriteCacheSize = 16777216;
  m_nBlockSize = SdkSettings.WriteBufSize;
  if (m_nBlockSize < 1) m_nBlockSize = 524288;
  m_nStagingCapacity = static_cast<int64_t>(m_nBlockSize) + kStagingSlack;
  m_pStaging = new BYTE[static_cast<size_t>(m_nStagingCapacity)];
  // The writer always takes the buffered block-write route.
  SdkSettings.WriteMode = 0;
  AcquireWriteTimingLog();
}

KxFileEx::~KxFileEx() {
  // A writer ended with its file open closes it as close would: what was
  // queued or staged still reaches the file.
  if (m_bLocalOpen) CloseLocal();
  m_registryEntry.Leave();
  m_cache.End();
  m_virtualTarget.End();
  m_webTarget.End();
  delete[] m_pStaging;
  m_pStaging = nullptr;
  ReleaseWriteTimingLog();
  SysFreeString(m_info.bstrDiskPoolPath);
  DeleteCriticalSection(&m_csUserData);
  DeleteCriticalSection(&m_cs);
}

BOOL KxFileEx::Initialize(const QLCT_FIlEACCESSINFO_ST* pInfo) {
  m_nBytesAccepted = 0;
  m_nWriteMs = 0;
  if (!pInfo) return 1;
  BSTR copy = pInfo->bstrDiskPoolPath
                  ? SysAllocStringLen(pInfo->bstrDiskPoolPath, SysStringLen(pInfo->bstrDiskPoolPath))
                  : nullptr;
  SysFreeString(m_info.bstrDiskPoolPath);
  m_info = *pInfo;
  m_info.bstrDiskPoolPath = copy;
  return 1;
}

// ---- Open and attach --------------------------------------------------------

HANDLE KxFileEx::CreateKXFile(const CComBSTR& strFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                              LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                              DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
  // A file still open is closed first, exactly as CloseHandle would close
  // it, so its queued and staged bytes reach it and nothing of it reaches
  // the next file.
  if (m_bLocalOpen) CloseLocal();
  const wchar_t* path = strFileName.m_str ? strFileName.m_str : L"";
  std::wstring scheme = QltUrlScheme(path);
  if (scheme == L"FTP" || scheme == L"OSS") m_bWebFile = 1;
  // Once a web or virtual-storage file was opened, every later file of this
  // writer goes the same way.
  if (m_bWebFile) {
    m_pTarget = &m_webTarget;
    return m_webTarget.Open(strFileName, lpSecurityAttributes);
  }
  if (QltIsVirtualStoragePath(path)) m_bVirtual = 1;
  if (m_bVirtual) {
    m_pTarget = &m_virtualTarget;
    return m_virtualTarget.Open(strFileName, dwDesiredAccess, dwShareMode, dwCreationDisposition);
  }
  return OpenLocal(strFileName, dwDesiredAccess, dwShareMode, dwCreationDisposition, dwFlagsAndAttributes,
                   hTemplateFile);
}

HANDLE KxFileEx::OpenLocal(const CComBSTR& strFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                           DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
  CAutoLock lock(&m_cs);
  m_nExtent = 0;
  m_nPresetSize = 0;
  const wchar_t* path = strFileName.m_str ? strFileName.m_str : L"";
  m_strPath = path;
  m_hFile = ::CreateFileW(path, dwDesiredAccess, dwShareMode, nullptr, dwCreationDisposition, dwFlagsAndAttributes,
                          hTemplateFile);
  if (IsBadHandle(m_hFile)) {
    DWORD err = GetLastError();
    m_hFile = INVALID_HANDLE_VALUE;
    try {
      QLT_LogBookU log;
      log - CComBSTR(L"KxFileEx CreateFile error! lastError: ") - static_cast<unsigned long>(err) -
          CComBSTR(L"fileName: ") - strFileName - endl;
    } catch (...) {
    }
    SetLastError(err);
    return nullptr;
  }
  // Whether this open made the file: a failed set-up below removes it again.
  const bool bCreated = dwCreationDisposition == CREATE_NEW ||
                        ((dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == OPEN_ALWAYS) &&
                         GetLastError() != ERROR_ALREADY_EXISTS);
  LARGE_INTEGER size{};
  const uint64_t nStart = ::GetFileSizeEx(m_hFile, &size) ? static_cast<uint64_t>(size.QuadPart) : 0;
  m_bstrFileName = strFileName;
  ResetCounters();
  if ((m_info.nOpMode == 2 && !ApplyPresetSize(m_hFile, strFileName, 0)) || !ApplyBlockSize(strFileName) ||
      m_cache.SetUp(m_info, m_bstrFileName, m_guid, m_hFile) <= 0) {
    AbandonLocal(bCreated, nStart);
    return nullptr;
  }
  m_bLocalOpen = true;
  EnterRegistry();
  return m_hFile;
}

void KxFileEx::AbandonLocal(bool bCreated, uint64_t nStart) {
  DWORD err = GetLastError();
  if (m_nPresetSize > 0) {
    // Give the file back the length it had before the preset allocation.
    LARGE_INTEGER to{};
    to.QuadPart = static_cast<LONGLONG>(nStart);
    if (::SetFilePointerEx(m_hFile, to, nullptr, FILE_BEGIN)) ::SetEndOfFile(m_hFile);
    m_nPresetSize = 0;
  }
  QLT_WriterOption::ClearItem(m_bstrFileName);
  ::CloseHandle(m_hFile);
  m_hFile = INVALID_HANDLE_VALUE;
  if (bCreated) ::DeleteFileW(m_strPath.c_str());
  SetLastError(err);
}

bool KxFileEx::ApplyPresetSize(HANDLE hFile, const CComBSTR& strName, uint64_t nPos) {
  ULONGLONG nPreset = 0;
  if (QLT_WriterOption2::GetPresetFileSize(strName, nPreset) <= 0) return true;
  m_nPresetSize = nPreset;
  LARGE_INTEGER to{}, back{};
  to.QuadPart = static_cast<LONGLONG>(nPreset);
  back.QuadPart = static_cast<LONGLONG>(nPos);
  return ::SetFilePointerEx(hFile, to, nullptr, FILE_BEGIN) && ::SetEndOfFile(hFile) &&
         ::SetFilePointerEx(hFile, back, nullptr, FILE_BEGIN);
}

bool KxFileEx::ApplyBlockSize(const CComBSTR& strName) {
  int nBlock = QLT_WriterOption::GetWriteBlockSize(strName);
  if (nBlock < 1) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  int64_t nNeeded = static_cast<int64_t>(nBlock) + kStagingSlack;
  if (nNeeded > m_nStagingCapacity) {
    BYTE* p = new (std::nothrow) BYTE[static_cast<size_t>(nNeeded)];
    if (!p) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return false;
    }
    delete[] m_pStaging;
    m_pStaging = p;
    m_nStagingCapacity = nNeeded;
  }
  m_nBlockSize = nBlock;
  // Bytes staged for a file that was never closed belong to no file now.
  m_nStaged = 0;
  return true;
}

void KxFileEx::ResetCounters() {
  m_nLogicalPos = 0;
  m_nLogicalSize = 0;
  m_nFailedWrites = 0;
  m_dwFailError = 0;
  m_nGoodPos = 0;
  m_nPhysPos = 0;
  m_nExtent = 0;
  // No cache thread runs here: the last one was joined by close or by the
  // set-up that replaced it.
  m_cache.ResetFailure();
  m_nBytesAccepted = 0;
  m_nBytesOnDisk = 0;
  m_nWriteMs = 0;
}

BOOL KxFileEx::Attach(HANDLE hFile, const CComBSTR& strFileName) {
  if (m_bLocalOpen) CloseLocal();
  return m_pTarget->AttachFile(hFile, strFileName);
}

BOOL KxFileEx::AttachFile(HANDLE hFile, const CComBSTR& strFileName) {
  CAutoLock lock(&m_cs);
  // The handle may be anywhere in a file of any length: writing goes on
  // from its position, and a retry rewrites from there.
  LARGE_INTEGER size{}, zero{}, pos{};
  if (!::GetFileSizeEx(hFile, &size) || !::SetFilePointerEx(hFile, zero, &pos, FILE_CURRENT)) return 0;
  const uint64_t nSize = static_cast<uint64_t>(size.QuadPart);
  const uint64_t nPos = static_cast<uint64_t>(pos.QuadPart);
  m_hFile = hFile;
  m_strPath = strFileName.m_str ? strFileName.m_str : L"";
  m_bstrFileName = strFileName;
  m_nPresetSize = 0;
  ResetCounters();
  m_nLogicalSize = nSize;
  if (m_info.nOpMode == 2) m_nLogicalPos = nPos;
  m_nGoodPos = m_nPhysPos = nPos;
  // The bytes already in the file count as written: a trim keeps them.
  m_nExtent = nSize > nPos ? nSize : nPos;
  if ((m_info.nOpMode == 2 && !ApplyPresetSize(hFile, strFileName, nPos)) || !ApplyBlockSize(strFileName) ||
      m_cache.SetUp(m_info, m_bstrFileName, m_guid, m_hFile) <= 0) {
    AbandonLocal(false, nSize);
    return 0;
  }
  m_bLocalOpen = true;
  EnterRegistry();
  return 1;
}

// ---- Writing ------------------------------------------------------------------

void KxFileEx::LogEntry(const CErrorLogEntry& entry) {
  if (SdkSettings.LogFileOn == 0) return;
  WriteErrorLogEntry(m_errorLog, m_strPath, entry);
}

BOOL KxFileEx::WriteFile(HANDLE /*hFile*/, LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten,
                         LPOVERLAPPED /*pOverlapped*/, DWORD dwUserData) {
  if (pBuffer == nullptr && nLength > 0) {
    // Nothing can be taken from a null buffer: the call fails and accepts
    // nothing.
    SetLastError(ERROR_INVALID_PARAMETER);
    LogEntry(WriteFailedEntry(nLength, 0));
    return 0;
  }
  return m_pTarget->Write(pBuffer, nLength, pWritten, dwUserData);
}

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
  }
  if (nWritten != static_cast<DWORD>(nLength)) SetLastError(err != NO_ERROR ? err : ERROR_WRITE_FAULT);
  return nWritten;
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

// ---- Seek, size and read-back ----------------------------------------------

BOOL KxFileEx::SetFilePointerEx(HANDLE /*hFile*/, LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos,
                                DWORD dwMoveMethod) {
  return m_pTarget->Seek(liDistance, pNewPos, dwMoveMethod);
}

BOOL KxFileEx::Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) {
  const int64_t distance = liDistance.QuadPart;
  LARGE_INTEGER newPos{};
  if (UsesCache()) {
    // The cache thread makes the platform seek, in order with the writes.
    if (m_info.nOpMode == 1 || !m_cache.HasPool()) {
      SetLastError(ERROR_INVALID_FUNCTION);
      return 0;
    }
    // The file system's end lies beyond the bytes written while a preset
    // allocation is in place: every seek is queued from the beginning.
    uint64_t target = 0;
    if (!ManagedTarget(distance, dwMoveMethod, &target)) return 0;
    bool bQueued = m_cache.QueueSeek(target);
    m_nLogicalPos = target;
    if (pNewPos) pNewPos->QuadPart = static_cast<LONGLONG>(m_nLogicalPos);
    return bQueued ? 1 : 0;
  }
  try {
    if (m_nStaged > 0) {
      if (!WriteOutStaged()) return 0;
      ::FlushFileBuffers(m_hFile);
    }
    const bool bManaged = m_info.nOpMode == 2;
    LARGE_INTEGER to = liDistance;
    DWORD dwMethod = dwMoveMethod;
    if (bManaged) {
      // In managed mode the writer's own view decides: FILE_END is the
      // furthest byte written, not the end of a preset allocation.
      uint64_t target = 0;
      if (!ManagedTarget(distance, dwMoveMethod, &target)) {
        LogEntry(SeekFailedEntry(distance, 0));
        SetLastError(ERROR_NEGATIVE_SEEK);
        return 0;
      }
      to.QuadPart = static_cast<LONGLONG>(target);
      dwMethod = FILE_BEGIN;
    }
    if (!SeekFile(to, dwMethod, distance, bManaged, newPos)) return 0;
    if (pNewPos) *pNewPos = newPos;
    if (bManaged) m_nLogicalPos = m_nPhysPos;
    return 1;
  } catch (...) {
    LogEntry(SeekExceptionEntry(distance, newPos.QuadPart));
    throw;
  }
}

bool KxFileEx::SeekFile(LARGE_INTEGER liTo, DWORD dwMoveMethod, int64_t nLoggedDistance, bool bExtend,
                        LARGE_INTEGER& newPos) {
  if (!::SetFilePointerEx(m_hFile, liTo, &newPos, dwMoveMethod)) {
    LogEntry(SeekFailedEntry(nLoggedDistance, newPos.QuadPart));
    return false;
  }
  // The next block is written here, and a retry rewrites from here.
  m_nGoodPos = m_nPhysPos = static_cast<uint64_t>(newPos.QuadPart);
  if (bExtend && m_nPhysPos > m_nExtent) m_nExtent = m_nPhysPos;
  return true;
}

bool KxFileEx::CacheSeek(LARGE_INTEGER liDistance, DWORD dwMoveMethod) {
  // Every seek the cache queues is absolute and in managed mode.
  LARGE_INTEGER newPos{};
  return SeekFile(liDistance, dwMoveMethod, liDistance.QuadPart, true, newPos);
}

bool KxFileEx::ManagedTarget(int64_t nDistance, DWORD dwMoveMethod, uint64_t* pTarget) const {
  int64_t base = 0;
  switch (dwMoveMethod) {
    case FILE_BEGIN: base = 0; break;
    case FILE_CURRENT: base = static_cast<int64_t>(m_nLogicalPos); break;
    case FILE_END: base = static_cast<int64_t>(m_nLogicalSize); break;
    default: SetLastError(ERROR_INVALID_PARAMETER); return false;
  }
  int64_t target = 0;
  if (__builtin_add_overflow(base, nDistance, &target) || target < 0) {
    SetLastError(ERROR_NEGATIVE_SEEK);
    return false;
  }
  *pTarget = static_cast<uint64_t>(target);
  return true;
}

DWORD KxFileEx::SetFilePointer(HANDLE hFile, LONG lDistance, LONG* pDistanceHigh, DWORD dwMoveMethod) {
  LARGE_INTEGER distance{};
  if (pDistanceHigh) {
    distance.QuadPart = static_cast<LONGLONG>((static_cast<uint64_t>(static_cast<uint32_t>(*pDistanceHigh)) << 32) |
                                              static_cast<uint32_t>(lDistance));
  } else {
    distance.QuadPart = lDistance;
  }
  LARGE_INTEGER newPos{};
  if (!SetFilePointerEx(hFile, distance, &newPos, dwMoveMethod)) return INVALID_SET_FILE_POINTER;
  if (pDistanceHigh) *pDistanceHigh = newPos.u.HighPart;
  return newPos.u.LowPart;
}

BOOL KxFileEx::GetFileSizeEx(HANDLE /*hFile*/, PLARGE_INTEGER pSize) { return m_pTarget->GetSize(pSize); }

BOOL KxFileEx::GetSize(PLARGE_INTEGER pSize) {
  if (m_info.nOpMode == 2 || UsesCache()) {
    if (pSize) pSize->QuadPart = static_cast<LONGLONG>(m_nLogicalSize);
    return 1;
  }
  return ::GetFileSizeEx(m_hFile, pSize);
}

DWORD KxFileEx::GetFileSize(HANDLE /*hFile*/, LPDWORD pHigh) { return m_pTarget->GetSize32(pHigh); }

DWORD KxFileEx::GetSize32(LPDWORD pHigh) {
  if (m_info.nOpMode == 2 || UsesCache()) {
    if (pHigh) *pHigh = static_cast<DWORD>(m_nLogicalSize >> 32);
    return static_cast<DWORD>(m_nLogicalSize);
  }
  return ::GetFileSize(m_hFile, pHigh);
}

BOOL KxFileEx::ReadFile(HANDLE /*hFile*/, LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) {
  return m_pTarget->Read(pBuffer, nToRead, pRead, pOverlapped);
}

BOOL KxFileEx::Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) {
  if (UsesCache()) return 0;
  DWORD nRead = 0;
  try {
    LARGE_INTEGER zero{}, pos{};
    if (!::SetFilePointerEx(m_hFile, zero, &pos, FILE_CURRENT))
      LogEntry(SeekBeforeReadFailedEntry(0, pos.QuadPart));
    BOOL bOk = ::ReadFile(m_hFile, pBuffer, nToRead, &nRead, pOverlapped);
    if (pRead) *pRead = nRead;
    if (!bOk) LogEntry(ReadFailedEntry(nToRead, nRead));
    // The read moved the file pointer: the next block is written after the
    // bytes read, and a retry rewrites from there.
    uint64_t after = 0;
    if (nRead > 0 && FilePosition(&after)) {
      m_nGoodPos = m_nPhysPos = after;
      if (m_info.nOpMode == 2) {
        m_nLogicalPos = after;
        if (after > m_nLogicalSize) m_nLogicalSize = after;
      }
    }
    return bOk;
  } catch (...) {
    LogEntry(ReadExceptionEntry(nToRead, nRead));
    throw;
  }
}

// ---- Close, user data and status -------------------------------------------

BOOL KxFileEx::CloseHandle(HANDLE /*hFile*/) { return m_pTarget->Close(); }

BOOL KxFileEx::Close() {
  if (!m_bLocalOpen) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  return CloseLocal();
}

BOOL KxFileEx::CloseLocal() {
  m_bLocalOpen = false;
  m_registryEntry.Leave();
  DWORD err = m_nFailedWrites > 0 ? m_dwFailError : NO_ERROR;
  if (m_cache.HasPool()) {
    // Close waits, without a time limit, until every queued record is in
    // the file and the cache thread has ended.
    m_cache.Drain();
    // Joined: the thread's failure record is final and visible here.
    if (m_cache.Failed() && err == NO_ERROR) err = m_cache.Error();
  }
  m_nLogicalPos = 0;
  m_nLogicalSize = 0;
  RefreshStatus();
  if (m_info.bstrDiskPoolPath && SysStringLen(m_info.bstrDiskPoolPath) > 0) ::RemoveDirectoryW(m_info.bstrDiskPoolPath);
  ::FlushFileBuffers(m_hFile);
  {
    CAutoLock lock(&m_csUserData);
    m_userData.RemoveAll();
  }
  if (m_nStaged > 0) {
    DWORD nWritten = BlockWrite(m_hFile, m_pStaging, m_nStaged);
    if (nWritten != static_cast<DWORD>(m_nStaged) && err == NO_ERROR) err = GetLastError();
    m_nStaged = 0;
  }
  if (m_info.nOpMode == 2 && m_nPresetSize > 0) {
    LARGE_INTEGER end{};
    end.QuadPart = static_cast<LONGLONG>(m_nExtent);
    if (!::SetFilePointerEx(m_hFile, end, nullptr, FILE_BEGIN) || !::SetEndOfFile(m_hFile)) {
      if (err == NO_ERROR) err = GetLastError();
    }
  }
  QLT_WriterOption::ClearItem(m_bstrFileName);
  if (!::CloseHandle(m_hFile) && err == NO_ERROR) err = GetLastError();
  m_hFile = INVALID_HANDLE_VALUE;
  m_nPresetSize = 0;
  if (err != NO_ERROR || m_nFailedWrites > 0 || m_cache.Failed()) {
    SetLastError(err != NO_ERROR ? err : ERROR_WRITE_FAULT);
    return 0;
  }
  return 1;
}

BOOL KxFileEx::GetUserDataList(CArray<DWORD, DWORD>& list, int nMode) { return m_pTarget->GetUserData(list, nMode); }

BOOL KxFileEx::GetUserData(CArray<DWORD, DWORD>& list, int nMode) {
  CAutoLock lock(&m_csUserData);
  if (m_userData.IsEmpty()) return 0;
  list.RemoveAll();
  if (nMode == 0) {
    list.Add(m_userData[m_userData.GetSize() - 1]);
    return 1;
  }
  if (nMode == 1) {
    for (int i = 0; i < m_userData.GetSize(); ++i) list.Add(m_userData[i]);
    return 1;
  }
  return 0;
}

void KxFileEx::RefreshStatus() {
  uint64_t pending = m_nBytesAccepted > m_nBytesOnDisk ? m_nBytesAccepted - m_nBytesOnDisk : 0;
  if (!UsesCache() && m_info.nOpMode != 2) {
    // Outside managed mode the file system's size is the file's size; in
    // managed mode a preset allocation makes it larger than what was written.
    LARGE_INTEGER size{};
    if (GetSize(&size)) m_nLogicalSize = static_cast<uint64_t>(size.QuadPart);
  }
  const int32_t nEstimateMs = m_nBytesOnDisk > 0
                                  ? static_cast<int32_t>(static_cast<int64_t>(m_nWriteMs) *
                                                         static_cast<int64_t>(pending) /
                                                         static_cast<int64_t>(m_nBytesOnDisk))
                                  : 0;
  m_registryEntry.Update(m_bstrFileName, m_nLogicalSize, pending, nEstimateMs);
}

GUID KxFileEx::NewGuid() {
  GUID guid{};
  CoCreateGuid(&guid);
  return guid;
}

void KxFileEx::EnterRegistry() {
  RefreshStatus();
  m_registryEntry.Enter();
}
