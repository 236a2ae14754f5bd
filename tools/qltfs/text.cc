#include "text.h"

#include <filesystem>

// Both go through the library's own conversion, so a name converts the same
// way here as inside the library and never through the C locale.
std::wstring ToWide(const std::string& strUtf8) { return QltUtf8ToWide(strUtf8); }

std::string ToUtf8(const wchar_t* pszWide) { return QltWideToUtf8(pszWide ? pszWide : L""); }

#if defined(_WIN32)
std::filesystem::path NativePath(const std::string& strUtf8) { return std::filesystem::path(ToWide(strUtf8)); }

std::string NativeText(const std::filesystem::path& path) { return ToUtf8(path.c_str()); }
#else
std::filesystem::path NativePath(const std::string& strUtf8) { return std::filesystem::path(strUtf8); }

std::string NativeText(const std::filesystem::path& path) { return path.string(); }
#endif

std::wstring LibraryPath(const std::string& strNative) {
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(NativePath(strNative), ec);
  return ToWide(ec ? strNative : NativeText(absolute));
}

std::string DisplayPath(BSTR bstrPath) {
  std::string text = ToUtf8(bstrPath);
  const bool bDrive = text.size() >= 2 && text[1] == ':';
  if (!bDrive)
    for (char& c : text)
      if (c == '\\') c = '/';
  return text;
}
