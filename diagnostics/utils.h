// CUtils: the time stamp of error-log entries.
#ifndef QLTFSDK_DIAGNOSTICS_UTILS_H
#define QLTFSDK_DIAGNOSTICS_UTILS_H

#include <string>

#include "platform/platform.h"

// Callers make one on the stack around each error-log entry. No state; any
// thread.
class CUtils {
 public:
  CUtils() = default;
  virtual ~CUtils() = default;

  // The local time as "%d-%d-%d %2d:%2d:%2d:%3d": year, month, day (not
  // padded), hour, minute, second (blank-padded to 2) and millisecond
  // (blank-padded to 3). Never fails.
  std::wstring GetTimeText();
  // The same text for a given time.
  static std::wstring FormatTime(const SYSTEMTIME& time);
};

#endif  // QLTFSDK_DIAGNOSTICS_UTILS_H
