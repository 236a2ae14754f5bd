// Byte counts on the qltfs command line: "4096", "512K", "3M", "1G" (also
// "512KiB", "3MB"), each suffix a power of 1,024.
#ifndef QLTFS_TOOL_SIZES_H
#define QLTFS_TOOL_SIZES_H

#include <qltfsdk/qltfsdk.h>

#include <string>

// Parses strText into *pBytes; false (and *pBytes untouched) for anything
// that is not a whole number of bytes with an optional K, M or G suffix, or
// that does not fit in 64 bits.
bool ParseSize(const std::string& strText, ULONGLONG* pBytes);

// The value of option strName of command strCommand, between nMin and nMax;
// a bad value ends the command with exit code 2 and a one-line message.
ULONGLONG SizeOption(const std::string& strCommand, const std::string& strName, const std::string& strText,
                     ULONGLONG nMin, ULONGLONG nMax);

#endif  // QLTFS_TOOL_SIZES_H
