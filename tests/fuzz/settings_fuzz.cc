// Fuzz target for the settings reader: any bytes as qltfsdk.ini must load
// (settings, drive map, cache drive choice) without crashing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "diagnostics/sdk_settings.h"
#include "platform/platform.h"

namespace {

// One folder for the whole run, holding the current input as qltfsdk.ini;
// removed when the run ends.
struct RunFolder {
  RunFolder() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "qltfs-fuzz-XXXXXX").string();
    if (!mkdtemp(&tmpl[0])) std::abort();
    m_strDir = tmpl;
  }
  ~RunFolder() {
    std::error_code ec;
    std::filesystem::remove_all(m_strDir, ec);
  }
  std::string m_strDir;
};

const std::string& IniPath() {
  static RunFolder folder;
  static const std::string path = folder.m_strDir + "/qltfsdk.ini";
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::ofstream out(IniPath(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  std::wstring ini = QltWindowsPath(IniPath());
  LoadSdkSettingsFrom(ini);
  // Sizes are either the built-in ones or whole KiB that fit in 32 bits.
  if (SdkSettings.ReadBufSize < 1024 || SdkSettings.WriteBufSize < 1024) std::abort();
  if (SdkSettings.ReadMode > 1 || SdkSettings.WriteMode > 1) std::abort();
  QltLoadDriveMap(ini.c_str());
  std::wstring root;
  SelectCacheDrive(root);
  if (root.size() != 0 && root.size() != 3) std::abort();
  QltResetDriveMap();
  return 0;
}
