// Where each module of the SDK finds qltfsdk.ini: one rule for the SDK
// library and every companion, so that they all read the same file.
#include "platform/platform.h"

std::wstring QltModuleDirectory(HMODULE hModule) {
  wchar_t name[MAX_PATH + 1] = {};
  DWORD n = GetModuleFileNameW(hModule, name, MAX_PATH);
  if (n == 0 || n >= MAX_PATH) return std::wstring();  // unknown or cut short
  std::wstring path(name, n);
  size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

std::wstring QltSettingsDirectory(const std::wstring& exeDir, const std::wstring& moduleDir) {
  if (!exeDir.empty()) {
    std::wstring ini = exeDir + L"\\qltfsdk.ini";
    DWORD attrs = GetFileAttributesW(ini.c_str());
    bool regular = attrs != INVALID_FILE_ATTRIBUTES && !(attrs & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE));
    if (regular && _waccess(ini.c_str(), 4) == 0) return exeDir;  // a FIFO or folder of that name is no settings file
  }
  return moduleDir;
}

std::wstring QltSettingsFile(HMODULE hModule) {
  std::wstring dir = QltSettingsDirectory(QltModuleDirectory(nullptr), QltModuleDirectory(hModule));
  return dir.empty() ? std::wstring() : dir + L"\\qltfsdk.ini";
}
