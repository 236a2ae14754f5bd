// Parsing of the URLs the web-file plug-in accepts: "oss://bucket/key",
// "ftp://[user[:password]@]host[:port]/path", "http(s)://host[:port]/path".
//
// Pure functions on text; any thread.
#ifndef QLTFSDK_COMPANIONS_WEBFILE_WEB_URL_H
#define QLTFSDK_COMPANIONS_WEBFILE_WEB_URL_H

#include <string>

namespace qltweb {

enum class UrlScheme { kNone, kOss, kFtp, kHttp, kHttps };

// One parsed URL. Text fields are percent-decoded except m_strPath, which
// keeps the form given (the part after the authority, starting with "/").
struct WebUrl {
  UrlScheme m_eScheme = UrlScheme::kNone;
  std::string m_strHost;      // ftp/http(s): host name or address; oss: the bucket
  int m_nPort = 0;            // 0: the scheme's default
  std::string m_strUser;      // ftp only; empty: anonymous
  std::string m_strPassword;  // ftp only; never logged
  std::string m_strPath;      // "/..." (http, ftp); for oss the key without its leading "/"
};

// Parses text (UTF-8). Returns false (url then holds nothing useful)
// for an unknown scheme, an empty host or bucket, an oss URL without a key,
// a port that is not 1..65535, control characters, or a bad percent escape.
bool ParseWebUrl(const std::string& text, WebUrl& url);

// Percent-encodes text for a URL path or query: unreserved characters stay,
// "/" stays when bKeepSlash, everything else becomes %XX (upper-case hex).
std::string UriEncode(const std::string& text, bool bKeepSlash);

}  // namespace qltweb

#endif  // QLTFSDK_COMPANIONS_WEBFILE_WEB_URL_H
