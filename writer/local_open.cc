// Opening, attaching and closing the local file.
#include <new>

#include "companions/logbook/logbook_api.h"
#include "platform/platform.h"
#include "qltfsdk/writeroption.h"
#include "writer/kx_file_ex.h"
#include "writer/writer_constants.h"

using namespace qlt::writer;

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
    BYTE* p = new (std::nothrow) BYTE[static_cast<size_t>(nNeeded) + kStagingAlign - 1];
    if (!p) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return false;
    }
    delete[] m_pStagingBlock;
    m_pStagingBlock = p;
    m_pStaging = AlignStaging(p);
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
  m_nWriteBackBytes = 0;  // a range gathered for an earlier file is that file's
  // No cache thread runs here: the last one was joined by close or by the
  // set-up that replaced it.
  m_cache.ResetFailure();
  m_nBytesAccepted = 0;
  m_nBytesOnDisk = 0;
  m_nWriteMs = 0;
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
