#include "writer/kx_file_ex.h"

#include "diagnostics/error_entries.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/virtual_storage.h"
#include "diagnostics/web_plugin.h"
#include "diagnostics/write_timing_log.h"
#include "platform/platform.h"
#include "qltfsdk/writeroption.h"
#include "writer/writer_constants.h"

using namespace qlt::writer;

KxFileEx::KxFileEx() : m_hFile(INVALID_HANDLE_VALUE) {
  InitializeCriticalSection(&m_cs);
  InitializeCriticalSection(&m_csUserData);
  m_info.nCacheMode = 0;
  m_info.nOpMode = 1;
  m_info.nReserved = 0;
  m_info.dwMemoryPoolSize = CDataFifoMan::kDefaultMemoryPoolSize;
  m_info.bstrDiskPoolPath = nullptr;
  m_info.dwDiskPoolSize = 4194304;
  m_info.dwWriteCacheSize = KxDataFifoPool::kDefaultWriteCacheSize;
  m_nBlockSize = SdkSettings.WriteBufSize;
  if (m_nBlockSize < 1) m_nBlockSize = kDefaultWriteBufSize;
  m_nStagingCapacity = static_cast<int64_t>(m_nBlockSize) + kStagingSlack;
  m_pStagingBlock = new BYTE[static_cast<size_t>(m_nStagingCapacity) + kStagingAlign - 1];
  m_pStaging = AlignStaging(m_pStagingBlock);
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
  delete[] m_pStagingBlock;
  m_pStagingBlock = nullptr;
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

BOOL KxFileEx::Attach(HANDLE hFile, const CComBSTR& strFileName) {
  if (m_bLocalOpen) CloseLocal();
  return m_pTarget->AttachFile(hFile, strFileName);
}

// ---- Writing, seeking, reading: handed to the target -------------------------

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

BOOL KxFileEx::SetFilePointerEx(HANDLE /*hFile*/, LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos,
                                DWORD dwMoveMethod) {
  return m_pTarget->Seek(liDistance, pNewPos, dwMoveMethod);
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

DWORD KxFileEx::GetFileSize(HANDLE /*hFile*/, LPDWORD pHigh) { return m_pTarget->GetSize32(pHigh); }

BOOL KxFileEx::ReadFile(HANDLE /*hFile*/, LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) {
  return m_pTarget->Read(pBuffer, nToRead, pRead, pOverlapped);
}

// ---- Close, user data and status -------------------------------------------

BOOL KxFileEx::CloseHandle(HANDLE /*hFile*/) { return m_pTarget->Close(); }

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
  const int32_t nEstimateMs =
      m_nBytesOnDisk > 0 ? static_cast<int32_t>(static_cast<int64_t>(m_nWriteMs) * static_cast<int64_t>(pending) /
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
