#include "diagnostics/sdk_settings.h"

#include <climits>

#include "diagnostics/module_paths.h"
#include "platform/platform.h"

SdkSettingsRecord SdkSettings;
wchar_t CacheDriveRoot[4] = {0, 0, 0, 0};

namespace {

int ReadKey(const wchar_t* section, const wchar_t* key, int nDefault, const std::wstring& iniPath) {
  return static_cast<int>(GetPrivateProfileIntW(section, key, nDefault, iniPath.c_str()));
}

// A size in KiB from the file as bytes: the built-in size for values below 1
// or whose byte count would not fit in a signed 32-bit field.
int KibToBytes(int nKib, int nBuiltIn) {
  if (nKib < 1 || nKib > INT_MAX / 1024) return nBuiltIn;
  return nKib * 1024;
}

}  // namespace

void SetCacheDriveRoot(const std::wstring& root) {
  size_t n = root.size() < 3 ? root.size() : 3;
  for (size_t i = 0; i < 4; ++i) CacheDriveRoot[i] = i < n ? root[i] : L'\0';
}

int LoadSdkSettingsFrom(const std::wstring& iniPath) {
  SdkSettings.ReadBufSize = KibToBytes(ReadKey(L"FILERW", L"ReadBufSize", -1, iniPath), kDefaultReadBufSize);
  SdkSettings.WriteBufSize = KibToBytes(ReadKey(L"FILERW", L"WriteBufSize", -1, iniPath), kDefaultWriteBufSize);
  SdkSettings.ReadMode = ReadKey(L"FILERW", L"ReadMode", 0, iniPath) != 0 ? 1 : 0;
  SdkSettings.WriteMode = ReadKey(L"FILERW", L"WriteMode", 0, iniPath) != 0 ? 1 : 0;
  SdkSettings.WriteRetryCount = ReadKey(L"FILERW", L"WriteRetryCount", 0, iniPath);
  SdkSettings.WriteRetryTime = ReadKey(L"FILERW", L"WriteRetryTime", 0, iniPath);
  SdkSettings.LogFileOn = ReadKey(L"LOG", L"LogFileOn", 0, iniPath);
  SdkSettings.IOWriteTimeOn = ReadKey(L"LOG", L"IOWriteTimeOn", 0, iniPath);
  SdkSettings.IOWriteBlockTimeTh = ReadKey(L"LOG", L"IOWriteBlockTimeTh", 100, iniPath);
  return 1;
}

std::wstring GetSettingsFilePath() {
  std::wstring dir = GetConfigDirectory();
  return dir.empty() ? std::wstring() : dir + L"\\qltfsdk.ini";
}

int LoadSdkSettings() { return LoadSdkSettingsFrom(GetSettingsFilePath()); }

int SelectCacheDrive(std::wstring& root) {
  wchar_t drives[MAX_PATH] = {};
  DWORD nLength = GetLogicalDriveStringsW(MAX_PATH, drives);
  if (nLength > MAX_PATH) nLength = 0;  // the list did not fit: treat as no drives
  DWORD nDrives = nLength / 4;
  std::wstring candidate;
  int nFixed = 0;
  for (DWORD i = 0; i < nDrives && nFixed < 2; ++i) {
    std::wstring drive(drives + i * 4, 3);
    if (GetDriveTypeW(drive.c_str()) == DRIVE_FIXED) {
      candidate = drive;
      ++nFixed;
    }
  }
  root = candidate;
  return 1;
}
