// What a path on the qltfs command line names, and whether two name the same
// file: the checks every command makes before it opens anything.
#ifndef QLTFS_TOOL_PLACES_H
#define QLTFS_TOOL_PLACES_H

#include <string>

// True for a path of the virtual storage: it holds "qvf:\" or "QVF:\".
bool IsVirtualPath(const std::string& strPath);

// True for an object of an S3-compatible store: "oss://bucket/key", the
// scheme in any letter case.
bool IsObjectUrl(const std::string& strPath);

// True for what the web plug-in reads: an oss://, http:// or https:// URL
// (any letter case).
bool IsWebUrl(const std::string& strPath);

// True for a path on the local file system: no ftp://, oss://, http(s)://
// URL and no virtual-storage path.
bool IsLocalPath(const std::string& strPath);

// True when both local paths exist and are one file (same device and inode),
// however they are spelt: relative, through a symbolic or a hard link.
bool IsSameFile(const std::string& strFirst, const std::string& strSecond);

// True when the local path is the null device: /dev/null through any link
// to it, or on Windows "NUL" in any letter case and folder.
bool IsNullDevice(const std::string& strPath);

// Empty when the local path is missing or a regular file (links followed);
// otherwise what it is instead, for a message: "a directory", "a FIFO",
// "a device", "a socket", "not a regular file".
std::string NotAFileKind(const std::string& strPath);

#endif  // QLTFS_TOOL_PLACES_H
