// The plug-in's exports: "WebFileIsExist" and "CreateWebFileWriter", and
// CWebFile, the object the SDK calls through CQltWebFile.
#include <cwctype>
#include <memory>
#include <string>

#include "companions/webfile/ftp_file.h"
#include "companions/webfile/object_file.h"
#include "companions/webfile/web_client.h"
#include "companions/webfile/web_config.h"
#include "companions/webfile/web_file_api.h"
#include "companions/webfile/web_url.h"
#include "platform/platform.h"

namespace qltweb {
namespace {

bool SameWord(BSTR text, const wchar_t* word) {
  if (!text) return false;
  std::wstring t(text, SysStringLen(text));
  std::wstring w(word);
  if (t.size() != w.size()) return false;
  for (size_t i = 0; i < t.size(); ++i)
    if (std::towlower(static_cast<wint_t>(t[i])) != std::towlower(static_cast<wint_t>(w[i]))) return false;
  return true;
}

// Runs fn, turning any exception into the failure result.
template <typename T, typename Fn>
T Guard(T failure, Fn fn) noexcept {
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  } catch (...) {
    SetLastError(ERROR_GEN_FAILURE);
  }
  return failure;
}

// The web-file object: keeps the option words until the path comes, then
// forwards to the implementation for the path's scheme.
class CWebFile final : public CQltWebFile {
 public:
  void Destroy(unsigned int nFlags) override {
    Guard(0, [&] {
      if (m_pImpl) m_pImpl->Abandon();
      m_pImpl.reset();
      return 0;
    });
    if (nFlags & 1) delete this;
  }

  int SetOrOpen(BSTR text) override {
    return Guard(0, [&] {
      if (SameWord(text, L"PublicWebFile")) return (m_options.m_bPublic = true), 1;
      if (SameWord(text, L"PutMode")) return (m_options.m_bPutMode = true), 1;
      if (SameWord(text, L"ReadOnly")) return (m_options.m_bReadOnly = true), 1;
      if (m_pImpl) return SetLastError(ERROR_BUSY), 0;  // one file per object
      WebUrl url;
      if (!text || !ParseWebUrl(QltWideToUtf8(std::wstring(text, SysStringLen(text))), url))
        return SetLastError(ERROR_INVALID_NAME), 0;
      WebConfig cfg = LoadWebConfig();
      if (url.m_eScheme == UrlScheme::kFtp) {
        if (m_options.m_bReadOnly) return SetLastError(ERROR_NOT_SUPPORTED), 0;
        auto file = std::make_unique<CFtpFile>(cfg, url);
        if (!file->Open()) return 0;
        m_pImpl = std::move(file);
        return 1;
      }
      auto file = std::make_unique<CObjectFile>(cfg, url, m_options);
      if (!file->Open()) return 0;
      m_pImpl = std::move(file);
      return 1;
    });
  }

  __int64 GetSize() override {
    return Guard<__int64>(-1, [&]() -> __int64 { return m_pImpl ? m_pImpl->GetSize() : NoFile(-1); });
  }
  __int64 Seek(__int64 nDistance, int nMethod) override {
    return Guard<__int64>(-1, [&]() -> __int64 { return m_pImpl ? m_pImpl->Seek(nDistance, nMethod) : NoFile(-1); });
  }
  int Read(void* pBuffer, DWORD nCount) override {
    return Guard(0, [&] { return m_pImpl ? m_pImpl->Read(pBuffer, nCount) : static_cast<int>(NoFile(0)); });
  }
  int Write(const void* pBuffer, DWORD nCount) override {
    return Guard(0, [&] { return m_pImpl ? m_pImpl->Write(pBuffer, nCount) : static_cast<int>(NoFile(0)); });
  }
  int Close() override {
    return Guard(0, [&] {
      if (!m_pImpl) return static_cast<int>(NoFile(0));
      int result = m_pImpl->Close();
      DWORD error = GetLastError();
      m_pImpl.reset();
      SetLastError(error);
      return result;
    });
  }

 private:
  ~CWebFile() = default;
  static __int64 NoFile(__int64 result) {
    SetLastError(ERROR_INVALID_HANDLE);
    return result;
  }

  WebFileOptions m_options;
  std::unique_ptr<CWebFileImpl> m_pImpl;  // the open file; null before the path and after Close
};

int Exists(const std::string& text) {
  WebUrl url;
  if (!ParseWebUrl(text, url)) return SetLastError(ERROR_INVALID_NAME), 0;
  WebConfig cfg = LoadWebConfig();
  CWebClient client(cfg);
  WebRequest head;
  head.m_strMethod = "HEAD";
  WebResponse response;
  switch (url.m_eScheme) {
    case UrlScheme::kOss:
      head.m_strUrl = CObjectFile::ObjectUrl(cfg, url.m_strHost, url.m_strPath);
      head.m_bSign = cfg.HasCredentials();
      break;
    case UrlScheme::kFtp:
      head.m_strUrl = CFtpFile::ServerUrl(url, url.m_strPath);
      head.m_strUser = url.m_strUser;
      head.m_strPassword = url.m_strPassword;
      break;
    default:
      head.m_strUrl = (url.m_eScheme == UrlScheme::kHttps ? "https://" : "http://") + url.m_strHost +
                      (url.m_nPort ? ":" + std::to_string(url.m_nPort) : std::string()) + url.m_strPath;
      head.m_bFollow = true;
      break;
  }
  if (!client.Perform(head, response)) return SetLastError(client.Error()), 0;
  if (url.m_eScheme == UrlScheme::kFtp && response.m_nLength < 0) return SetLastError(ERROR_FILE_NOT_FOUND), 0;
  return 1;
}

}  // namespace
}  // namespace qltweb

extern "C" QLT_DECL_EXPORT int WINAPI WebFileIsExist(BSTR bstrPath) {
  int result = qltweb::Guard(0, [&] {
    if (!bstrPath) return SetLastError(ERROR_INVALID_NAME), 0;
    return qltweb::Exists(QltWideToUtf8(std::wstring(bstrPath, SysStringLen(bstrPath))));
  });
  DWORD error = GetLastError();
  SysFreeString(bstrPath);
  SetLastError(error);
  return result;
}

extern "C" QLT_DECL_EXPORT CQltWebFile* CreateWebFileWriter() {
  return qltweb::Guard<CQltWebFile*>(nullptr, [] { return new qltweb::CWebFile; });
}
