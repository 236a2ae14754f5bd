// Text and path conversions between the command line (UTF-8, native paths)
// and the library (wide strings, Windows-shaped paths).
#ifndef QLTFS_TOOL_TEXT_H
#define QLTFS_TOOL_TEXT_H

#include <qltfsdk/qltfsdk.h>

#include <filesystem>
#include <string>

// Native names and arguments (UTF-8, or any bytes) <-> wide text, through
// the library's conversion: lossless for every byte string, independent of
// the C locale (see QltUtf8ToWide). Never throw.
std::wstring ToWide(const std::string& strUtf8);
std::string ToUtf8(const wchar_t* pszWide);

// A native path (UTF-8) as the standard library's path type. On Windows the
// standard library reads a narrow name in the ANSI code page, so the name
// goes in as wide text there; elsewhere the bytes are kept as they are.
std::filesystem::path NativePath(const std::string& strUtf8);
// The reverse: a path as UTF-8 (Windows) or its bytes (elsewhere).
std::string NativeText(const std::filesystem::path& path);

// The library's spelling of a native path: made absolute against the
// current directory, as wide text. The library takes '/' as a separator and
// uses a path without a drive letter as it is.
std::wstring LibraryPath(const std::string& strNative);

// A path the library handed back, for printing: a drive path ("C:\...")
// unchanged, any other with its backslashes turned back into slashes.
std::string DisplayPath(BSTR bstrPath);

#endif  // QLTFS_TOOL_TEXT_H
