#include "writer/web_target.h"

#include <cstring>

#include "diagnostics/web_plugin.h"

HANDLE CWebTarget::Open(const CComBSTR& strFileName, LPSECURITY_ATTRIBUTES lpOptions) {
  // The writer of an earlier web file of this object ends here.
  End();
  m_pWebWriter = QltCreateWebFileWriter();
  if (!m_pWebWriter) return nullptr;
  if (lpOptions && lpOptions->lpSecurityDescriptor) {
    // The security-attributes argument carries option words for web files:
    // nLength bytes of narrow text at lpSecurityDescriptor.
    const char* text = static_cast<const char*>(lpOptions->lpSecurityDescriptor);
    const size_t length = lpOptions->nLength;
    size_t at = 0;
    if (length - at >= 13 && std::memcmp(text + at, "PublicWebFile", 13) == 0) {
      m_pWebWriter->SetOrOpen(CComBSTR(L"PublicWebFile"));
      at += 14;  // the word and one separator
    }
    if (at <= length && length - at >= 7 && std::memcmp(text + at, "PutMode", 7) == 0)
      m_pWebWriter->SetOrOpen(CComBSTR(L"PutMode"));
  }
  if (m_pWebWriter->SetOrOpen(strFileName) > 0) return reinterpret_cast<HANDLE>(m_pWebWriter);
  End();
  return nullptr;
}

void CWebTarget::End() {
  if (!m_pWebWriter) return;
  m_pWebWriter->Destroy(1);
  m_pWebWriter = nullptr;
}

BOOL CWebTarget::Write(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, DWORD /*dwUserData*/) {
  if (!m_pWebWriter) return 0;
  int n = m_pWebWriter->Write(pBuffer, nLength);
  if (n <= 0) return 0;
  if (pWritten) *pWritten = static_cast<DWORD>(n);
  return 1;
}

BOOL CWebTarget::Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) {
  if (!m_pWebWriter) return 0;
  __int64 pos = m_pWebWriter->Seek(liDistance.QuadPart, static_cast<int>(dwMoveMethod));
  if (pos < 0) return 0;
  if (pNewPos) pNewPos->QuadPart = pos;
  return 1;
}

BOOL CWebTarget::GetSize(PLARGE_INTEGER pSize) {
  __int64 size = m_pWebWriter ? m_pWebWriter->GetSize() : -1;
  if (size < 0) return 0;
  if (pSize) pSize->QuadPart = size;
  return 1;
}

BOOL CWebTarget::Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED /*pOverlapped*/) {
  int n = m_pWebWriter ? m_pWebWriter->Read(pBuffer, nToRead) : 0;
  if (n <= 0) return 0;
  if (pRead) *pRead = static_cast<DWORD>(n);
  return 1;
}

BOOL CWebTarget::Close() { return (m_pWebWriter && m_pWebWriter->Close() == 1) ? 1 : 0; }
