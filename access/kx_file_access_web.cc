// The web back-end: forwards reads to one plug-in object per open file.
#include "access/kx_file_access_web.h"

#include <algorithm>
#include <vector>

#include "companions/webfile/web_file_api.h"
#include "diagnostics/web_plugin.h"
#include "qltfsdk/fileaccess.h"

KxFileAccessWeb::~KxFileAccessWeb() { CloseFile(); }

int KxFileAccessWeb::OpenFile(CComBSTR strPath, DWORD nMode) {
  if (nMode != ACCESS_MODE_READ) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  CloseFile();
  CQltWebFile* pFile = QltCreateWebFileWriter();
  if (!pFile) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return 0;
  }
  CComBSTR readOnly(L"ReadOnly");
  pFile->SetOrOpen(readOnly.m_str);
  if (pFile->SetOrOpen(strPath.m_str) <= 0) {
    DWORD err = GetLastError();
    pFile->Destroy(1);
    SetLastError(err);
    return 0;
  }
  __int64 nSize = pFile->GetSize();
  m_nFileLength = nSize > 0 ? static_cast<ULONGLONG>(nSize) : 0;
  m_pFile = pFile;
  m_nPos = 0;
  return 1;
}

int KxFileAccessWeb::GetAccessMode(DWORD& nMode) {
  if (!m_pFile) return 0;
  nMode = ACCESS_MODE_READ;
  return 1;
}

int KxFileAccessWeb::Read(BYTE* pBuffer, int nCount) {
  if (!m_pFile || nCount < 0) return 0;
  if (m_pFile->Seek(m_nPos, 0) < 0) return 0;
  int nDone = 0;
  std::vector<BYTE> skip;
  while (nDone < nCount) {
    BYTE* pTarget = pBuffer ? pBuffer + nDone : nullptr;
    DWORD nWant = static_cast<DWORD>(nCount - nDone);
    if (!pTarget) {  // skipping: read into a scratch buffer
      nWant = std::min<DWORD>(nWant, 1u << 20);
      skip.resize(nWant);
      pTarget = skip.data();
    }
    int n = m_pFile->Read(pTarget, nWant);
    if (n <= 0) break;
    nDone += n;
    m_nPos += n;
  }
  return nDone;
}

int KxFileAccessWeb::SetPosition(__int64 nPos) {
  if (!m_pFile) return 0;
  if (nPos < 0) {
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }
  m_nPos = nPos;
  return 1;
}

int KxFileAccessWeb::CloseFile() {
  if (!m_pFile) return 0;
  int r = m_pFile->Close();
  m_pFile->Destroy(1);
  m_pFile = nullptr;
  m_nPos = 0;
  m_nFileLength = 0;
  return r;
}
