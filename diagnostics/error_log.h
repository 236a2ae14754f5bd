// The error log: one entry per failing file operation, appended to
// "<library directory>\sdk-log\ErrorLog\ErrorLogFileForTarnwell.txt" (or its
// highest-numbered sibling "...[N].txt") while LogFileOn is set.
#ifndef QLTFSDK_DIAGNOSTICS_ERROR_LOG_H
#define QLTFSDK_DIAGNOSTICS_ERROR_LOG_H

#include <string>

#include "diagnostics/log_file_writer2.h"

// Where entries go for the current library directory; empty when that
// directory is unknown.
std::wstring ErrorLogFilePath();

// Writes one entry through the caller's own log writer, when LogFileOn is
// non-zero (otherwise touches nothing). The entry reads as three lines: the
// caller's file path directly followed by the time text; the title
// (beginning with "\n") directly followed by the detail; "GetLastError :  N"
// with the thread's last error as it was on entry. detail may be null (the
// last-error text then follows the title on its line). The log is opened and
// closed around the entry; a missing "sdk-log\ErrorLog" folder or an unknown
// library directory means nothing is written. Never fails the caller: no
// result, no exception, and the thread's last error is left as it was. Any
// thread; entries of two threads on one writer may interleave.
void WriteErrorLogEntry(CLogFileWriter2& log, const std::wstring& filePath, const char* title, const wchar_t* detail);

#endif  // QLTFSDK_DIAGNOSTICS_ERROR_LOG_H
