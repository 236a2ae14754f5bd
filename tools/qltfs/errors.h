// How qltfs commands say what went wrong: one line on stderr that names the
// failure in words, the path it concerns and the library's error number.
#ifndef QLTFS_TOOL_ERRORS_H
#define QLTFS_TOOL_ERRORS_H

#include <qltfsdk/qltfsdk.h>

#include <string>

// The failure in words and its number: "the path does not exist (error 3)".
std::string ErrorText(DWORD nError);

// A web plug-in's failure in words and its number, for a message about an
// oss://, http(s):// (bFtp false) or ftp:// (bFtp true) location: "access
// denied by the store (403) (error 5)", "no such bucket (error 3)",
// "connection refused (error 1225)". Errors the plug-in does not report
// fall back to ErrorText.
std::string WebErrorText(DWORD nError, bool bFtp);

// "cannot <strAction> '<strPath>': <ErrorText(nError)>", e.g. "cannot create
// '/x/y': the path does not exist (error 3)".
std::string CannotText(const std::string& strAction, const std::string& strPath, DWORD nError);

// Prints "qltfs <strCommand>: <strMessage>" on stderr and ends the command
// with nExitCode (throws CLI::RuntimeError, which main turns into the exit
// code).
[[noreturn]] void Fail(const std::string& strCommand, const std::string& strMessage, int nExitCode = 1);

#endif  // QLTFS_TOOL_ERRORS_H
