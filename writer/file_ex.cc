// The exported writer facade: forwards every call to its KxFileEx and turns
// anything thrown inside into a failure result.
#include <new>

#include "diagnostics/sdk_settings.h"
#include "platform/contain.h"
#include "platform/platform.h"
#include "qltfsdk/fileex.h"
#include "writer/kx_file_ex.h"

QLCT_FileEx::QLCT_FileEx() : m_hFile(nullptr), m_pImpl(nullptr) {}

QLCT_FileEx::~QLCT_FileEx() {
  CloseHandle();
  delete m_pImpl;
  m_pImpl = nullptr;
}

BOOL QLCT_FileEx::Initialize(QLCT_FIlEACCESSINFO_ST* pInfo) {
  return QltContain<BOOL>(0, [&]() -> BOOL {
    KxFileEx* pImpl = new (std::nothrow) KxFileEx();
    if (!pImpl) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    if (m_pImpl) {
      // A second Initialize starts over: the old file is closed first.
      CloseHandle();
      delete m_pImpl;
    }
    m_pImpl = pImpl;
    return m_pImpl->Initialize(pInfo);
  });
}

HANDLE QLCT_FileEx::CreateKXFile(CComBSTR strFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                 LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                                 DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
  if (!m_pImpl) return nullptr;
  m_hFile = QltContain<HANDLE>(nullptr, [&] {
    return m_pImpl->CreateKXFile(strFileName, dwDesiredAccess, dwShareMode, lpSecurityAttributes, dwCreationDisposition,
                                 dwFlagsAndAttributes, hTemplateFile);
  });
  return m_hFile;
}

BOOL QLCT_FileEx::Attach(HANDLE hFile, CComBSTR strFileName) {
  m_hFile = hFile;
  if (!m_pImpl) return 0;
  return QltContain<BOOL>(0, [&] { return m_pImpl->Attach(hFile, strFileName); });
}

DWORD QLCT_FileEx::GetFileSize(LPDWORD pHigh) {
  if (!m_hFile || !m_pImpl) return 0;
  return QltContain<DWORD>(INVALID_FILE_SIZE, [&] { return m_pImpl->GetFileSize(m_hFile, pHigh); });
}

BOOL QLCT_FileEx::GetFileSizeEx(PLARGE_INTEGER pSize) {
  if (!m_hFile || !m_pImpl) return 0;
  return QltContain<BOOL>(0, [&] { return m_pImpl->GetFileSizeEx(m_hFile, pSize); });
}

DWORD QLCT_FileEx::SetFilePointer(LONG lDistance, LONG* pDistanceHigh, DWORD dwMoveMethod) {
  if (!m_hFile || !m_pImpl) return 0;
  return QltContain<DWORD>(INVALID_SET_FILE_POINTER,
                        [&] { return m_pImpl->SetFilePointer(m_hFile, lDistance, pDistanceHigh, dwMoveMethod); });
}

BOOL QLCT_FileEx::SetFilePointerEx(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) {
  if (!m_hFile || !m_pImpl) return 0;
  return QltContain<BOOL>(0, [&] { return m_pImpl->SetFilePointerEx(m_hFile, liDistance, pNewPos, dwMoveMethod); });
}

BOOL QLCT_FileEx::ReadFile(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) {
  if (!m_hFile || !m_pImpl) return 0;
  return QltContain<BOOL>(0, [&] { return m_pImpl->ReadFile(m_hFile, pBuffer, nToRead, pRead, pOverlapped); });
}

BOOL QLCT_FileEx::WriteFile(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, LPOVERLAPPED pOverlapped,
                            DWORD dwUserData) {
  if (!m_hFile || !m_pImpl) return 0;
  return QltContain<BOOL>(
      0, [&] { return m_pImpl->WriteFile(m_hFile, pBuffer, nLength, pWritten, pOverlapped, dwUserData); });
}

BOOL QLCT_FileEx::WriteFile(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, LPOVERLAPPED pOverlapped) {
  return WriteFile(pBuffer, nLength, pWritten, pOverlapped, 0);
}

BOOL QLCT_FileEx::CloseHandle() {
  if (!m_hFile || !m_pImpl) return 0;
  BOOL bOk = QltContain<BOOL>(0, [&] { return m_pImpl->CloseHandle(m_hFile); });
  m_hFile = nullptr;
  return bOk;
}

BOOL QLCT_FileEx::GetUserDataList(CArray<DWORD, DWORD>& list, int nMode) {
  if (!m_hFile || !m_pImpl) return 0;
  return QltContain<BOOL>(0, [&] { return m_pImpl->GetUserDataList(list, nMode); });
}

QLCT_FileEx* QLCT_CreateFileExObj() {
  return QltContain<QLCT_FileEx*>(nullptr, [] { return new QLCT_FileEx(); });
}

BOOL QLCT_DeleteFileExObj(QLCT_FileEx* pFileEx) {
  return QltContain<BOOL>(0, [&] {
    delete pFileEx;
    return 1;
  });
}

BOOL QLT_SetWriteRetrySettings(int nCount, int nWaitMs) {
  SdkSettings.WriteRetryCount = nCount;
  SdkSettings.WriteRetryTime = nWaitMs;
  return 1;
}
