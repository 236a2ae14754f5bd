// The virtual-storage back-end: one storage object, operations mapped one to one.
#include "access/kx_virtual_file.h"

#include <cstdio>

#include "access/kx_async_file_access.h"
#include "diagnostics/error_entries.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/virtual_storage.h"

kxVirtualFile::kxVirtualFile() : m_pVirtualFile(QltNewVirtualFile()) {}

kxVirtualFile::~kxVirtualFile() { QltDeleteVirtualFile(m_pVirtualFile); }

void kxVirtualFile::LogEntry(const CErrorLogEntry& entry) {
  if (SdkSettings.LogFileOn != 0) WriteErrorLogEntry(m_errorLog, m_strPath, entry);
}

int kxVirtualFile::EnableAsync(int nBufferSize) {
  if (!m_pVirtualFile) return 0;
  if (nBufferSize < KxAsyncFileAccess::kMinAsyncBufferSize) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  return 1;
}

int kxVirtualFile::OpenFile(CComBSTR strPath, DWORD nMode) {
  if (!m_pVirtualFile) return 0;
  std::wstring path(strPath.m_str ? strPath.m_str : L"", strPath.Length());
  // The access mode travels in the share-mode place; the storage opens
  // for reading and writing and creates a missing file.
  int r = m_pVirtualFile->Open(path.c_str(), GENERIC_READ | GENERIC_WRITE, nMode, OPEN_ALWAYS);
  m_strPath = path;
  if (r < 1) LogEntry(VirtualOpenFailedEntry());
  return r;
}

ULONGLONG kxVirtualFile::GetLength() {
  if (!m_pVirtualFile) return 0;
  __int64 nSize = m_pVirtualFile->GetSize();
  if (nSize < 0) return 0;
  if (static_cast<ULONGLONG>(nSize) < 64) {
    LogEntry(VirtualSizeEntry(nSize));
  }
  return static_cast<ULONGLONG>(nSize);
}

int kxVirtualFile::Read(BYTE* pBuffer, int nCount) {
  if (!m_pVirtualFile || nCount < 0) return 0;
  int nRead = m_pVirtualFile->Read(pBuffer, static_cast<DWORD>(nCount));
  if (nRead != nCount) {
    LogEntry(VirtualShortReadEntry(nCount, nRead));
  }
  return nRead;
}

__int64 kxVirtualFile::GetPosition() { return m_pVirtualFile ? m_pVirtualFile->GetPosition() : 0; }

int kxVirtualFile::SetPosition(__int64 nPos) {
  if (!m_pVirtualFile) return 0;
  if (nPos < 0) {
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }
  __int64 nDistance = nPos;
  __int64 nNew = m_pVirtualFile->Seek(&nDistance, 0, 1);
  if (nNew != nPos) {
    LogEntry(VirtualSeekMissedEntry(nPos, nNew));
  }
  return static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(nNew) & 0xFFFFFFFFu));
}

int kxVirtualFile::Write(const BYTE* pBuffer, int nCount) {
  if (!m_pVirtualFile) return 0;
  if (!pBuffer || nCount <= 0) return 1;
  // The storage reports the bytes it wrote; fewer than asked (a full disk
  // included) is a failed write, and its last error is left for the caller.
  int nWritten = m_pVirtualFile->Write(pBuffer, static_cast<DWORD>(nCount));
  return nWritten == nCount ? 1 : 0;
}

int kxVirtualFile::CloseFile() {
  if (!m_pVirtualFile) return 0;
  m_pVirtualFile->Close();
  return 1;
}
