#include "places.h"

#include <cctype>
#include <cwctype>
#include <filesystem>

#include "ftp_url.h"
#include "qltfsdk/qltfsdk.h"
#include "text.h"

namespace fs = std::filesystem;

bool IsVirtualPath(const std::string& strPath) {
  return strPath.find("qvf:\\") != std::string::npos || strPath.find("QVF:\\") != std::string::npos;
}

namespace {

bool HasScheme(const std::string& strPath, const char* pszScheme) {
  const std::string scheme = std::string(pszScheme) + "://";
  if (strPath.size() < scheme.size()) return false;
  for (size_t i = 0; i < scheme.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(strPath[i])) != scheme[i]) return false;
  return true;
}

}  // namespace

bool IsObjectUrl(const std::string& strPath) { return HasScheme(strPath, "oss"); }

bool IsWebUrl(const std::string& strPath) {
  return IsObjectUrl(strPath) || HasScheme(strPath, "http") || HasScheme(strPath, "https");
}

bool IsLocalPath(const std::string& strPath) {
  return !IsFtpUrl(strPath) && !IsWebUrl(strPath) && !IsVirtualPath(strPath);
}

bool IsSameFile(const std::string& strFirst, const std::string& strSecond) {
  return QltSameFile(ToWide(strFirst).c_str(), ToWide(strSecond).c_str()) != FALSE;
}

bool IsNullDevice(const std::string& strPath) {
#if defined(_WIN32)
  // "NUL" in any letter case, in any folder: the system turns each into the
  // device's own name.
  std::error_code ec;
  std::wstring full = fs::absolute(NativePath(strPath), ec).wstring();
  for (wchar_t& c : full) c = static_cast<wchar_t>(std::towupper(c));
  return !ec && full == L"\\\\.\\NUL";
#else
  return IsSameFile(strPath, "/dev/null");
#endif
}

std::string NotAFileKind(const std::string& strPath) {
#if defined(_WIN32)
  // The system's status calls take the null device for a file.
  if (IsNullDevice(strPath)) return "a device";
#endif
  std::error_code ec;
  const fs::file_status status = fs::status(NativePath(strPath), ec);
  switch (status.type()) {
    case fs::file_type::not_found:
    case fs::file_type::none:
    case fs::file_type::regular: return "";
    case fs::file_type::directory: return "a directory";
    case fs::file_type::fifo: return "a FIFO";
    case fs::file_type::block:
    case fs::file_type::character: return "a device";
    case fs::file_type::socket: return "a socket";
    default: return ec ? "" : "not a regular file";
  }
}
