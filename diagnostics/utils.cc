#include "diagnostics/utils.h"

#include <cwchar>

#include "platform/platform.h"

std::wstring CUtils::FormatTime(const SYSTEMTIME& t) {
  wchar_t text[64];
  int n = swprintf(text, sizeof(text) / sizeof(text[0]), L"%d-%d-%d %2d:%2d:%2d:%3d", t.wYear, t.wMonth, t.wDay,
                   t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  return n > 0 ? std::wstring(text, static_cast<size_t>(n)) : std::wstring();
}

std::wstring CUtils::GetTimeText() {
  SYSTEMTIME now{};
  GetLocalTime(&now);
  return FormatTime(now);
}
