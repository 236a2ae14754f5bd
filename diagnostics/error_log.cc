#include "diagnostics/error_log.h"

#include <cwchar>

#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/utils.h"
#include "platform/platform.h"

std::wstring ErrorLogFilePath() {
  std::wstring dir = GetModuleDirectory();
  if (dir.empty()) return std::wstring();
  return dir + L"\\sdk-log\\ErrorLog\\ErrorLogFileForTarnwell.txt";
}

void WriteErrorLogEntry(CLogFileWriter2& log, const std::wstring& filePath, const char* title, const wchar_t* detail) {
  if (SdkSettings.LogFileOn == 0) return;
  DWORD dwLastError = GetLastError();  // first, before any call can change it
  try {
    CUtils utils;
    std::wstring timeText = utils.GetTimeText();
    std::wstring path = ErrorLogFilePath();
    if (!path.empty()) {
      log.Open(path);
      log.Write(filePath.c_str(), true);
      log.Write(timeText.c_str(), true);
      log.Write(title, true);
      if (detail) log.Write(detail, true);
      wchar_t lastError[48];
      swprintf(lastError, sizeof(lastError) / sizeof(lastError[0]), L"GetLastError :  %d\n",
               static_cast<int>(dwLastError));
      log.Write(lastError, true);
      log.Close();
    }
  } catch (...) {
    // Out of memory while building the texts: the entry is lost, the caller
    // is not affected.
  }
  SetLastError(dwLastError);
}
