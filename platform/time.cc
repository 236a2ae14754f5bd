// Clocks and sleeping.
#include <ctime>

#include "platform/internal.h"

namespace {
int64_t MonotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}
}  // namespace

BOOL qlt::win::QueryPerformanceCounter(LARGE_INTEGER* pCount) {
  if (!pCount) return FALSE;
  pCount->QuadPart = MonotonicNs();
  return TRUE;
}

BOOL qlt::win::QueryPerformanceFrequency(LARGE_INTEGER* pFrequency) {
  if (!pFrequency) return FALSE;
  pFrequency->QuadPart = 1000000000LL;
  return TRUE;
}

ULONGLONG qlt::win::GetTickCount64() { return static_cast<ULONGLONG>(MonotonicNs() / 1000000LL); }
DWORD qlt::win::GetTickCount() { return static_cast<DWORD>(GetTickCount64()); }

void qlt::win::GetLocalTime(SYSTEMTIME* t) {
  if (!t) return;
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tmv {};
  localtime_r(&ts.tv_sec, &tmv);
  t->wYear = static_cast<WORD>(tmv.tm_year + 1900);
  t->wMonth = static_cast<WORD>(tmv.tm_mon + 1);
  t->wDayOfWeek = static_cast<WORD>(tmv.tm_wday);
  t->wDay = static_cast<WORD>(tmv.tm_mday);
  t->wHour = static_cast<WORD>(tmv.tm_hour);
  t->wMinute = static_cast<WORD>(tmv.tm_min);
  t->wSecond = static_cast<WORD>(tmv.tm_sec);
  t->wMilliseconds = static_cast<WORD>(ts.tv_nsec / 1000000);
}
