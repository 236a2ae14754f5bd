// Where the virtual storage keeps its files, and how "qvf:\" names map there.
#ifndef QLTFSDK_COMPANIONS_VIRTUALFILE_STORAGE_ROOT_H
#define QLTFSDK_COMPANIONS_VIRTUALFILE_STORAGE_ROOT_H

#include <string>

#include "qltfsdk/wintypes.h"

namespace qvf {

// Root used when qltfsdk.ini names none.
constexpr const wchar_t* kDefaultRoot = L"C:\\QVFStorage";

// The current root: the override set by SetRoot, else [VIRTUALFILE] Root
// of qltfsdk.ini (read on first use), else kDefaultRoot. Any thread.
std::wstring CurrentRoot();
// Sets the override (empty clears it). Any thread.
void SetRoot(const std::wstring& root);

// Maps a path holding "qvf:\" or "QVF:\" to the file under root. False (last
// error ERROR_INVALID_NAME) when neither prefix occurs, when nothing follows
// it, or when a part of the name is "." or "..". May throw std::bad_alloc.
bool MapPath(const wchar_t* path, const std::wstring& root, std::wstring* out);

// Creates every missing folder above file (the root included). Failures are
// left for the open that follows to report.
void MakeParentFolders(const std::wstring& file);

}  // namespace qvf

#endif  // QLTFSDK_COMPANIONS_VIRTUALFILE_STORAGE_ROOT_H
