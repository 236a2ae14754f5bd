// Fuzz target: the URL forms of the web-file plug-in.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "companions/webfile/web_url.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  qltweb::WebUrl url;
  if (qltweb::ParseWebUrl(text, url)) {
    if (url.m_eScheme == qltweb::UrlScheme::kNone || url.m_strHost.empty()) std::abort();
    if (url.m_nPort < 0 || url.m_nPort > 65535) std::abort();
    if (url.m_eScheme == qltweb::UrlScheme::kOss && url.m_strPath.empty()) std::abort();
  }
  std::string encoded = qltweb::UriEncode(text, true);
  for (char c : encoded)
    if (c == ' ' || c == '?' || c == '&' || static_cast<unsigned char>(c) >= 0x80) std::abort();
  return 0;
}
