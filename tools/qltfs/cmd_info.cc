// qltfs info: what the library loaded at start-up.
#include <iomanip>
#include <iostream>
#include <string>

#include "commands.h"
#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"

namespace {

std::string Text(BSTR text) { return text ? QltWideToUtf8(text) : std::string(); }

// A Windows-shaped path as the native path it stands for.
std::string Native(BSTR path) {
  if (!path || !*path) return std::string();
  std::string native = QltNativePath(path);
  return native.empty() ? Text(path) : native;
}

void PrintSetting(const char* name, int value, const std::string& unit) {
  std::cout << "  " << std::left << std::setw(20) << name << value;
  if (!unit.empty()) std::cout << ' ' << unit;
  std::cout << '\n';
}

const char* OnOff(int value) { return value != 0 ? "on" : "off"; }

void RunInfo() {
  QLT_SDKINFO_ST info{};
  if (!QLT_GetSdkInfo(&info)) {
    std::cerr << "qltfs info: cannot read the library's settings\n";
    throw CLI::RuntimeError(1);
  }
  std::string ini = Native(info.bstrIniPath);
  std::cout << "Settings (" << (ini.empty() ? "no qltfsdk.ini found; built-in defaults" : "from " + ini) << ")\n";
  PrintSetting("ReadBufSize", info.nReadBufSize, "bytes");
  PrintSetting("WriteBufSize", info.nWriteBufSize, "bytes");
  PrintSetting("ReadMode", info.nReadMode, info.nReadMode ? "(reads bypass the system cache)" : "(buffered reads)");
  PrintSetting("WriteMode", info.nWriteMode, info.nWriteMode ? "(no-buffering writes)" : "(buffered writes)");
  PrintSetting("WriteRetryCount", info.nWriteRetryCount, "reopen attempts");
  PrintSetting("WriteRetryTime", info.nWriteRetryTime, "ms");
  PrintSetting("LogFileOn", info.nLogFileOn, std::string("(error log ") + OnOff(info.nLogFileOn) + ")");
  PrintSetting("IOWriteTimeOn", info.nIOWriteTimeOn,
               std::string("(write timing log ") + OnOff(info.nIOWriteTimeOn) + ")");
  PrintSetting("IOWriteBlockTimeTh", info.nIOWriteBlockTimeTh, "ms");

  std::string root = Text(info.bstrCacheDriveRoot);
  std::cout << "Cache drive: ";
  if (root.empty())
    std::cout << "none (no fixed drive)\n";
  else
    std::cout << root << "  ->  "
              << (Text(info.bstrCacheDriveDir).empty() ? "(unmapped)" : Text(info.bstrCacheDriveDir)) << '\n';
  std::string moduleDir = Native(info.bstrModuleDir);
  std::cout << "Library directory: " << (moduleDir.empty() ? "(unknown)" : moduleDir) << '\n';
  QLT_FreeSdkInfo(&info);

  std::cout << "Companion libraries:\n";
  for (const wchar_t* name :
       {L"qltUtilBase.dll", L"QltLogBookU.dll", L"QVFVirtualFileU.dll", L"QLT_WebFileReader.dll"}) {
    HMODULE hModule = LoadLibraryW(name);
    std::cout << "  " << std::left << std::setw(24) << QltWideToUtf8(name) << (hModule ? "found" : "not found") << '\n';
    if (hModule) FreeLibrary(hModule);
  }
}

}  // namespace

void AddInfoCommand(CLI::App& app) {
  auto* cmd = app.add_subcommand("info", "Show the settings, drives and companion libraries the library found");
  cmd->callback(RunInfo);
}
