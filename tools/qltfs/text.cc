#include "text.h"

#include <filesystem>

std::wstring ToWide(const std::string& strUtf8) {
  std::wstring out;
  out.reserve(strUtf8.size());
  for (size_t i = 0; i < strUtf8.size();) {
    const auto c = static_cast<unsigned char>(strUtf8[i]);
    const int nMore = c < 0x80 ? 0 : (c >> 5) == 0x6 ? 1 : (c >> 4) == 0xE ? 2 : (c >> 3) == 0x1E ? 3 : -1;
    char32_t code = nMore == 0 ? c : nMore == 1 ? (c & 0x1F) : nMore == 2 ? (c & 0x0F) : (c & 0x07);
    bool bOk = nMore >= 0 && i + static_cast<size_t>(nMore) < strUtf8.size();
    for (int k = 1; bOk && k <= nMore; ++k) {
      const auto next = static_cast<unsigned char>(strUtf8[i + static_cast<size_t>(k)]);
      bOk = (next & 0xC0) == 0x80;
      code = (code << 6) | (next & 0x3F);
    }
    if (!bOk || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      out.push_back(static_cast<wchar_t>(0xFFFD));
      ++i;
      continue;
    }
    out.push_back(static_cast<wchar_t>(code));
    i += static_cast<size_t>(nMore) + 1;
  }
  return out;
}

std::string ToUtf8(const wchar_t* pszWide) {
  std::string out;
  for (const wchar_t* p = pszWide; p && *p; ++p) {
    auto code = static_cast<char32_t>(*p);
    if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) code = 0xFFFD;
    if (code < 0x80) {
      out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (code >> 6)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (code >> 12)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (code >> 18)));
      out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
  }
  return out;
}

std::wstring LibraryPath(const std::string& strNative) {
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(strNative, ec);
  return ToWide(ec ? strNative : absolute.string());
}

std::string DisplayPath(BSTR bstrPath) {
  std::string text = ToUtf8(bstrPath);
  const bool bDrive = text.size() >= 2 && text[1] == ':';
  if (!bDrive)
    for (char& c : text)
      if (c == '\\') c = '/';
  return text;
}
