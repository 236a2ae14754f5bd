// The easy-file back-end: forwards to one QLT_EasyFile per open file.
#include "access/easy_file_access.h"

#include <climits>
#include <new>

#include "companions/utilbase/utilbase_api.h"

CEasyFileAccess::~CEasyFileAccess() { CloseFile(); }

int CEasyFileAccess::OpenFile(CComBSTR strPath, DWORD nMode) {
  if (nMode != 1) return 0;
  CloseFile();
  m_pEasyFile = new (std::nothrow) QLT_EasyFile();
  if (!m_pEasyFile) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  m_pEasyFile->Initialize(false);
  return m_pEasyFile->Open(strPath);
}

ULONGLONG CEasyFileAccess::GetLength() {
  if (!m_pEasyFile) return 0;
  __int64 nSize = m_pEasyFile->GetFileSize(false);
  return nSize > 0 ? static_cast<ULONGLONG>(nSize) : 0;
}

int CEasyFileAccess::SetReadBufferSize(DWORD nSize) {
  if (!m_pEasyFile) return 0;
  return m_pEasyFile->SetReadBlockSize(nSize > INT_MAX ? INT_MAX : static_cast<int>(nSize));
}

int CEasyFileAccess::Read(BYTE* pBuffer, int nCount) { return m_pEasyFile ? m_pEasyFile->Read(pBuffer, nCount, 1) : 0; }

__int64 CEasyFileAccess::GetPosition() { return m_pEasyFile ? m_pEasyFile->GetPos() : 0; }

int CEasyFileAccess::SetPosition(__int64 nPos) {
  if (!m_pEasyFile) return 0;
  if (nPos < 0) {  // before the file's start: refused, nothing moves
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }
  return m_pEasyFile->SetPos(nPos, 0);
}

int CEasyFileAccess::CloseFile() {
  if (!m_pEasyFile) return 0;
  int r = m_pEasyFile->Close();
  delete m_pEasyFile;
  m_pEasyFile = nullptr;
  return r;
}
