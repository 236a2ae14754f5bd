// QLCT_FileAccess: source selection and forwarding; FileIsExist.
#include <new>
#include <string>

#include "access/easy_file_access.h"
#include "access/ftp_back_end.h"
#include "access/kx_file_access_local.h"
#include "access/kx_file_access_web.h"
#include "access/kx_virtual_file.h"
#include "diagnostics/virtual_storage.h"
#include "diagnostics/web_plugin.h"
#include "platform/contain.h"
#include "platform/platform.h"
#include "qltfsdk/fileaccess.h"

namespace {

constexpr DWORD kFtpSource = 16;

// Object-store and HTTP(S) paths are read through the web-file plug-in
// (FTP paths keep the FTP back-end chosen by Initialize).
bool IsWebReadPath(LPCWSTR path) {
  std::wstring scheme = QltUrlScheme(path ? path : L"");
  return scheme == L"OSS" || scheme == L"HTTP" || scheme == L"HTTPS";
}

// The back-end for a facade that has none yet; null for a mode that opens
// nothing on a plain path. Throws std::bad_alloc when memory runs out.
KxFileAccessBase* SelectBackEnd(LPCWSTR path, DWORD nMode) {
  if (QltIsVirtualStoragePath(path)) return new kxVirtualFile();
  if (nMode == ACCESS_MODE_READ && IsWebReadPath(path)) return new KxFileAccessWeb();
  if (nMode == ACCESS_MODE_READ) return new CEasyFileAccess();
  if (nMode == ACCESS_MODE_WRITE) return new KxFileAccessLocal();
  return nullptr;
}

}  // namespace

QLCT_FileAccess::QLCT_FileAccess() : m_pImpl(nullptr) {}

QLCT_FileAccess::~QLCT_FileAccess() { delete m_pImpl; }

QLCT_FileAccess::QLCT_FileAccess(const QLCT_FileAccess&) : m_pImpl(nullptr) {}

QLCT_FileAccess& QLCT_FileAccess::operator=(const QLCT_FileAccess& other) {
  if (this != &other) {
    delete m_pImpl;
    m_pImpl = nullptr;
  }
  return *this;
}

int QLCT_FileAccess::Initialize(DWORD nSource) {
  return QltContain(0, [&] {
    delete m_pImpl;
    m_pImpl = nullptr;
    if (nSource == kFtpSource) m_pImpl = QltNewFtpBackEnd();
    return 1;
  });
}

int QLCT_FileAccess::LogInHost(CComBSTR strHost, CComBSTR strUser, CComBSTR strPassword, int nPort) {
  if (!m_pImpl) return 0;
  return QltContain(
      0, [&] { return m_pImpl->LogInHost(std::move(strHost), std::move(strUser), std::move(strPassword), nPort); });
}

int QLCT_FileAccess::OpenFile(CComBSTR strPath, DWORD nMode) {
  return QltContain(0, [&] {
    if (!m_pImpl) {
      m_pImpl = SelectBackEnd(strPath.m_str, nMode);
      if (!m_pImpl) return 0;
    }
    return m_pImpl->OpenFile(std::move(strPath), nMode);
  });
}

int QLCT_FileAccess::GetAccessMode(DWORD& nMode) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->GetAccessMode(nMode); });
}

ULONGLONG QLCT_FileAccess::GetLength() {
  if (!m_pImpl) return 0;
  return QltContain<ULONGLONG>(0, [&] { return m_pImpl->GetLength(); });
}

__int64 QLCT_FileAccess::GetPosition() {
  if (!m_pImpl) return 0;
  return QltContain<__int64>(0, [&] { return m_pImpl->GetPosition(); });
}

int QLCT_FileAccess::SetPosition(__int64 nPos) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->SetPosition(nPos); });
}

int QLCT_FileAccess::EnableAsyncWrite(int bEnable, int nBufferSize) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->EnableAsyncWrite(bEnable, nBufferSize); });
}

int QLCT_FileAccess::EnableAsyncRead(int bEnable, int nBufferSize) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->EnableAsyncRead(bEnable, nBufferSize); });
}

int QLCT_FileAccess::SetReadBufferSize(DWORD nSize) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->SetReadBufferSize(nSize); });
}

int QLCT_FileAccess::Read(BYTE* pBuffer, int nCount) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->Read(pBuffer, nCount); });
}

int QLCT_FileAccess::Write(const BYTE* pBuffer, int nCount) {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->Write(pBuffer, nCount); });
}

int QLCT_FileAccess::CloseFile() {
  if (!m_pImpl) return 0;
  return QltContain(0, [&] { return m_pImpl->CloseFile(); });
}

extern "C" int FileIsExist(CComBSTR strPath) {
  return QltContain(0, [&] {
    std::wstring path(strPath.m_str ? strPath.m_str : L"", strPath.Length());
    if (QltIsVirtualStoragePath(path.c_str())) return QltVirtualFileExists(path.c_str());
    std::wstring scheme = QltUrlScheme(path.c_str());
    if (scheme == L"HTTP" || scheme == L"FTP" || scheme == L"OSS" || scheme == L"HTTPS")
      return QltWebFileIsExist(path.c_str());
    return _waccess(path.c_str(), 4) == 0 ? 1 : 0;
  });
}
