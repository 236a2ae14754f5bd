// qltfs info: what the library loaded at start-up.
#include <qltfsdk/qltfsdk.h>

#include <iomanip>
#include <iostream>
#include <string>

#include "commands.h"
#include "errors.h"
#include "text.h"

namespace {

std::string Text(BSTR text) { return ToUtf8(text); }
std::string Native(BSTR path) { return DisplayPath(path); }

void PrintSetting(const char* name, int value, const std::string& unit) {
  std::cout << "  " << std::left << std::setw(20) << name << value;
  if (!unit.empty()) std::cout << ' ' << unit;
  std::cout << '\n';
}

const char* OnOff(int value) { return value != 0 ? "on" : "off"; }

void RunInfo() {
  QLT_SDKINFO_ST info{};
  if (!QLT_GetSdkInfo(&info)) Fail("info", "cannot read the library's settings: " + ErrorText(GetLastError()));
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
    std::cout << "  " << std::left << std::setw(24) << ToUtf8(name) << (QLT_FindCompanion(name) ? "found" : "not found")
              << '\n';
  }
}

}  // namespace

void AddInfoCommand(CLI::App& app) {
  auto* cmd = app.add_subcommand("info", "Show the settings, drives and companion libraries the library found");
  cmd->callback(RunInfo);
}
