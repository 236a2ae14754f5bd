#include "text.h"

// Both go through the library's own conversion, so a name converts the same
// way here as inside the library and never through the C locale.
std::wstring ToWide(const std::string& strUtf8) { return QltUtf8ToWide(strUtf8); }

std::string ToUtf8(const wchar_t* pszWide) { return QltWideToUtf8(pszWide ? pszWide : L""); }

std::filesystem::path NativePath(const std::string& strUtf8) { return std::filesystem::u8path(strUtf8); }

std::wstring LibraryPath(const std::string& strNative) {
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(NativePath(strNative), ec);
  return ToWide(ec ? strNative : absolute.u8string());
}

std::string DisplayPath(BSTR bstrPath) {
  std::string text = ToUtf8(bstrPath);
  const bool bDrive = text.size() >= 2 && text[1] == ':';
  if (!bDrive)
    for (char& c : text)
      if (c == '\\') c = '/';
  return text;
}
