#include "qltfsdk/sdkinfo.h"

#include <string>

#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "platform/contain.h"
#include "platform/platform.h"

namespace {

// The settings file that applies now: the one start-up reads by the same
// rule (the file is read only at load, so this is where it was found unless
// it has since been added or removed).
std::wstring FoundSettingsFile() {
  std::wstring path = GetSettingsFilePath();
  if (path.empty() || _waccess(path.c_str(), 4) != 0) return std::wstring();
  return path;
}

}  // namespace

extern "C" int QLT_GetSdkInfo(QLT_SDKINFO_ST* pInfo) {
  if (!pInfo) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  return QltContain(0, [&] {
    QLT_SDKINFO_ST info{};
    info.nReadBufSize = SdkSettings.ReadBufSize;
    info.nWriteBufSize = SdkSettings.WriteBufSize;
    info.nReadMode = SdkSettings.ReadMode;
    info.nWriteMode = SdkSettings.WriteMode;
    info.nWriteRetryCount = SdkSettings.WriteRetryCount;
    info.nWriteRetryTime = SdkSettings.WriteRetryTime;
    info.nLogFileOn = SdkSettings.LogFileOn;
    info.nIOWriteTimeOn = SdkSettings.IOWriteTimeOn;
    info.nIOWriteBlockTimeTh = SdkSettings.IOWriteBlockTimeTh;

    std::wstring root(CacheDriveRoot);
    std::string dir = root.empty() ? std::string() : QltNativePath(root.c_str());
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    CComBSTR ini(FoundSettingsFile().c_str()), driveRoot(root.c_str()), driveDir(QltUtf8ToWide(dir).c_str()),
        moduleDir(GetModuleDirectory().c_str());
    if (!ini || !driveRoot || !driveDir || !moduleDir) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    info.bstrIniPath = ini.Detach();
    info.bstrCacheDriveRoot = driveRoot.Detach();
    info.bstrCacheDriveDir = driveDir.Detach();
    info.bstrModuleDir = moduleDir.Detach();
    *pInfo = info;
    return 1;
  });
}

extern "C" int QLT_FindCompanion(LPCWSTR pszName) {
  if (!pszName || !*pszName) return 0;
  HMODULE hModule = LoadLibraryW(pszName);
  if (!hModule) return 0;
  FreeLibrary(hModule);
  return 1;
}

extern "C" void QLT_FreeSdkInfo(QLT_SDKINFO_ST* pInfo) {
  if (!pInfo) return;
  for (BSTR* p : {&pInfo->bstrIniPath, &pInfo->bstrCacheDriveRoot, &pInfo->bstrCacheDriveDir, &pInfo->bstrModuleDir}) {
    SysFreeString(*p);
    *p = nullptr;
  }
}
