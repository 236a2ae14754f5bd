#include "writer/virtual_target.h"

#include "diagnostics/virtual_storage.h"

HANDLE CVirtualTarget::Open(const CComBSTR& strFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                            DWORD dwCreationDisposition) {
  End();
  m_pVirtualFile = QltNewVirtualFile();
  if (!m_pVirtualFile) return nullptr;
  if (m_pVirtualFile->Open(strFileName.m_str ? strFileName.m_str : L"", dwDesiredAccess, dwShareMode,
                           dwCreationDisposition) == 0)
    return nullptr;
  return m_pVirtualFile->GetHandle();
}

void CVirtualTarget::End() {
  if (!m_pVirtualFile) return;
  QltDeleteVirtualFile(m_pVirtualFile);
  m_pVirtualFile = nullptr;
}

BOOL CVirtualTarget::Write(LPCVOID pBuffer, DWORD nLength, LPDWORD /*pWritten*/, DWORD /*dwUserData*/) {
  // The storage reports the bytes it wrote; fewer than asked is a failed
  // write with the last error set, and the close reports it too.
  if (nLength == 0) return 1;
  int n = 0;
  if (!m_pVirtualFile) {
    SetLastError(ERROR_INVALID_HANDLE);
  } else {
    n = m_pVirtualFile->Write(pBuffer, nLength);
    if (n >= 0 && static_cast<DWORD>(n) == nLength) return 1;
  }
  ++m_nFailedWrites;
  if (m_dwFailError == NO_ERROR) m_dwFailError = GetLastError() != NO_ERROR ? GetLastError() : ERROR_WRITE_FAULT;
  return 0;
}

BOOL CVirtualTarget::Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) {
  if (!m_pVirtualFile) return 0;
  const __int64 distance = liDistance.QuadPart;
  int origin = 0, forward = 0;
  switch (dwMoveMethod) {
    case FILE_BEGIN: forward = 1; break;
    case FILE_CURRENT:
      origin = 1;
      forward = distance > 0 ? 1 : 0;
      break;
    case FILE_END: origin = 2; break;
    default: break;
  }
  __int64 d = distance;
  __int64 pos = m_pVirtualFile->Seek(&d, origin, forward);
  if (pNewPos) pNewPos->QuadPart = pos;
  return 1;
}

BOOL CVirtualTarget::GetSize(PLARGE_INTEGER pSize) {
  if (pSize) pSize->QuadPart = m_pVirtualFile ? m_pVirtualFile->GetSize() : 0;
  return 1;
}

BOOL CVirtualTarget::Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED /*pOverlapped*/) {
  int n = m_pVirtualFile ? m_pVirtualFile->Read(pBuffer, nToRead) : 0;
  if (pRead) *pRead = static_cast<DWORD>(n);
  return 1;
}

BOOL CVirtualTarget::Close() {
  // A write the storage refused since the open fails the close too.
  BOOL bClosed = m_pVirtualFile && m_pVirtualFile->Close() == 1;
  if (m_nFailedWrites > 0) {
    m_nFailedWrites = 0;
    SetLastError(m_dwFailError);
    m_dwFailError = 0;
    return 0;
  }
  return bClosed ? 1 : 0;
}
