// The SDK's settings file: where each module finds qltfsdk.ini (one rule for
// the SDK library and every companion, so that they all read the same file)
// and the drive map it holds.
#include <cwctype>
#include <vector>

#include "platform/contain.h"
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

extern "C" int QltLoadDriveMap(LPCWSTR iniPath) {
  return QltContain(0, [&]() -> int {
    // Every entry is read before any is applied: the file itself usually
    // lives on a letter the map may name, and a letter mapped half-way would
    // send the remaining reads to another folder.
    struct Entry {
      wchar_t letter;
      std::wstring dir;
      UINT type;
    };
    std::vector<Entry> entries;
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
      wchar_t key[2] = {letter, 0};
      wchar_t value[4096];
      if (GetPrivateProfileStringW(L"DRIVES", key, L"", value, 4096, iniPath) == 0) continue;
      std::wstring v(value);
      UINT type = DRIVE_UNKNOWN;
      size_t semi = v.rfind(L';');
      if (semi != std::wstring::npos) {
        std::wstring t = v.substr(semi + 1);
        for (wchar_t& c : t) c = static_cast<wchar_t>(towlower(static_cast<wint_t>(c)));
        if (t == L"fixed")
          type = DRIVE_FIXED;
        else if (t == L"removable")
          type = DRIVE_REMOVABLE;
        else if (t == L"remote")
          type = DRIVE_REMOTE;
        else if (t == L"cdrom")
          type = DRIVE_CDROM;
        else if (t == L"ramdisk")
          type = DRIVE_RAMDISK;
        v.erase(semi);
      }
      while (!v.empty() && iswspace(static_cast<wint_t>(v.back()))) v.pop_back();
      if (v.empty()) continue;
      entries.push_back({letter, v, type});
    }
    for (const Entry& e : entries) QltSetDrive(e.letter, e.dir.c_str(), e.type);
    return static_cast<int>(entries.size());
  });
}
