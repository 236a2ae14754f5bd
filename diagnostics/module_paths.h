// Where the SDK's own file lives and where qltfsdk.ini is read from.
#ifndef QLTFSDK_DIAGNOSTICS_MODULE_PATHS_H
#define QLTFSDK_DIAGNOSTICS_MODULE_PATHS_H

#include <string>

#include "platform/platform.h"

// Stores the SDK library's module handle (start-up does this once, on the
// loading thread). Any thread may read it afterwards.
void SetSdkModuleHandle(HMODULE hModule);
HMODULE GetSdkModuleHandle();

// Full directory of the SDK library's own file, without a trailing
// backslash (Windows-shaped). Empty when no module handle is stored or the
// platform cannot name the module's file. Any thread.
std::wstring GetModuleDirectory();

// Directory of the host executable, without a trailing backslash; empty
// when the platform cannot tell. Any thread.
std::wstring GetExecutableDirectory();

// The directory qltfsdk.ini is read from: exeDir when a readable
// qltfsdk.ini stands in it, otherwise moduleDir. Any thread.
std::wstring ChooseConfigDirectory(const std::wstring& exeDir, const std::wstring& moduleDir);

// ChooseConfigDirectory(GetExecutableDirectory(), GetModuleDirectory()).
std::wstring GetConfigDirectory();

// The part of path before its last backslash; empty when it has none.
std::wstring DirectoryOfPath(const std::wstring& path);

// Test seam: while dir is not empty, GetModuleDirectory returns it instead
// of the library's real directory, so tests can point the error log at a
// temporary folder. An empty dir restores the real answer. Any thread.
void SetModuleDirectoryOverride(const std::wstring& dir);

#endif  // QLTFSDK_DIAGNOSTICS_MODULE_PATHS_H
