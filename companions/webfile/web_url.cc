#include "companions/webfile/web_url.h"

#include <cctype>

namespace qltweb {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool PercentDecode(const std::string& text, std::string& out) {
  out.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return false;
    int hi = HexValue(text[i + 1]);
    int lo = HexValue(text[i + 2]);
    if (hi < 0 || lo < 0) return false;
    out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return true;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

std::string UriEncode(const std::string& text, bool bKeepSlash) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || (bKeepSlash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

bool ParseWebUrl(const std::string& text, WebUrl& url) {
  url = WebUrl();
  for (unsigned char c : text)
    if (c < 0x20 || c == 0x7f) return false;
  size_t sep = text.find("://");
  if (sep == std::string::npos) return false;
  std::string scheme = Lower(text.substr(0, sep));
  if (scheme == "oss")
    url.m_eScheme = UrlScheme::kOss;
  else if (scheme == "ftp")
    url.m_eScheme = UrlScheme::kFtp;
  else if (scheme == "http")
    url.m_eScheme = UrlScheme::kHttp;
  else if (scheme == "https")
    url.m_eScheme = UrlScheme::kHttps;
  else
    return false;

  std::string rest = text.substr(sep + 3);
  size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  std::string path = slash == std::string::npos ? std::string("/") : rest.substr(slash);
  size_t cut = path.find_first_of("?#");
  if (cut != std::string::npos && url.m_eScheme != UrlScheme::kHttp && url.m_eScheme != UrlScheme::kHttps)
    return false;  // object keys and FTP paths carry no query

  if (url.m_eScheme == UrlScheme::kOss) {
    if (authority.empty() || authority.find_first_of("@:") != std::string::npos) return false;
    url.m_strHost = authority;
    if (!PercentDecode(path.substr(1), url.m_strPath) || url.m_strPath.empty()) return false;
    return true;
  }

  size_t at = authority.rfind('@');
  if (at != std::string::npos) {
    if (url.m_eScheme != UrlScheme::kFtp) return false;
    std::string userInfo = authority.substr(0, at);
    authority = authority.substr(at + 1);
    size_t colon = userInfo.find(':');
    if (!PercentDecode(userInfo.substr(0, colon), url.m_strUser)) return false;
    if (colon != std::string::npos && !PercentDecode(userInfo.substr(colon + 1), url.m_strPassword)) return false;
  }
  size_t colon = authority.rfind(':');
  if (colon != std::string::npos && authority.find(']') == std::string::npos) {
    std::string port = authority.substr(colon + 1);
    authority.resize(colon);
    if (port.empty() || port.size() > 5) return false;
    int n = 0;
    for (char c : port) {
      if (c < '0' || c > '9') return false;
      n = n * 10 + (c - '0');
    }
    if (n < 1 || n > 65535) return false;
    url.m_nPort = n;
  }
  if (authority.empty()) return false;
  url.m_strHost = authority;
  std::string check;
  if (!PercentDecode(path.substr(0, cut), check)) return false;
  url.m_strPath = path;
  return true;
}

}  // namespace qltweb
