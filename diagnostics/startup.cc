#include "diagnostics/startup.h"

#include <string>

#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "platform/platform.h"
#include "qltfsdk/writeroption.h"

namespace {

void Attach(HMODULE hModule) {
  SetSdkModuleHandle(hModule);
  // The settings are read before the drive map is applied: the map may name
  // the letter the settings file itself lives on.
  try {
    LoadSdkSettings();
  } catch (...) {
    // Settings read so far stay; the rest keep their built-in values.
  }
  try {
    std::wstring iniPath = GetSettingsFilePath();
    if (!iniPath.empty()) QltLoadDriveMap(iniPath.c_str());
    if (CacheDriveRoot[0] == L'\0') {
      std::wstring root;
      SelectCacheDrive(root);
      SetCacheDriveRoot(root);
    }
  } catch (...) {
    // Out of memory this early: the cache keeps no default drive.
  }
  try {
    QLT_WriterOption::SetDefaultWriteBlockSize(SdkSettings.WriteBufSize);
  } catch (...) {
    // The utility library keeps its own default block size.
  }
}

}  // namespace

BOOL QltSdkDllMain(HMODULE hModule, DWORD dwReason) {
  if (dwReason == DLL_PROCESS_ATTACH) Attach(hModule);
  return TRUE;
}
