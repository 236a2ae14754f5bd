// The process-wide web-file plug-in (QLT_WebFileReader), shared by the
// writer (creating web files) and the accessor (FileIsExist).
//
// The plug-in is loaded by name at most once per process, under one
// process-wide lock, by the first user that meets a URL path; its handle is
// kept and never freed. A load that fails leaves no handle, so the next user
// tries again. Without the plug-in, creation gives null and the existence
// check 0.
//
// Threading: any thread. The lock is re-entrant; functions named ...Locked
// require the caller to hold it (through CWebPluginLock).
#ifndef QLTFSDK_DIAGNOSTICS_WEB_PLUGIN_H
#define QLTFSDK_DIAGNOSTICS_WEB_PLUGIN_H

#include <string>

#include "companions/webfile/web_file_api.h"
#include "platform/platform.h"

// The text before the first "://" of path, in upper case; empty when the
// path holds no "://" (or is null). "ftp://h/x" gives "FTP".
std::wstring QltUrlScheme(LPCWSTR path);

// The process-wide plug-in lock. Take it through CWebPluginLock; it is
// named here so that the functions below can require it.
CRITICAL_SECTION& QltWebPluginSection();

// Holds the process-wide plug-in lock from construction to destruction.
class SCOPED_CAPABILITY CWebPluginLock {
 public:
  CWebPluginLock() ACQUIRE(QltWebPluginSection());
  ~CWebPluginLock() RELEASE();
  CWebPluginLock(const CWebPluginLock&) = delete;
  CWebPluginLock& operator=(const CWebPluginLock&) = delete;
};

// Requires the plug-in lock. The plug-in's module handle, loading it first
// when no earlier call has; null (last error set) when it cannot be loaded.
HMODULE QltWebPluginModuleLocked() REQUIRES(QltWebPluginSection());
// Require the plug-in lock. The plug-in's "CreateWebFileWriter" /
// "WebFileIsExist", loading the plug-in first if needed; null when the
// module or the function is missing.
PFN_CreateWebFileWriter QltWebPluginCreateWriterLocked() REQUIRES(QltWebPluginSection());
PFN_WebFileIsExist QltWebPluginIsExistLocked() REQUIRES(QltWebPluginSection());

// Takes the lock, loads the plug-in if needed and calls its
// "CreateWebFileWriter". The new object, which the caller ends with
// Destroy(1); null when the plug-in, the function or the object is missing.
CQltWebFile* QltCreateWebFileWriter();

// The existence check for URL paths. Takes the lock for the whole call;
// returns 0 without loading anything when the path's last four characters
// are ".inx" in any case; otherwise loads the plug-in if needed and returns
// "WebFileIsExist" called with a new BSTR copy of path (the plug-in frees
// it), or 0 when the plug-in or the function is missing.
int QltWebFileIsExist(LPCWSTR path);

// Test seam: forgets the loaded handle (without freeing the module) and
// loads from nameOrPath from now on ("" restores QLT_WEBFILE_DLL). Tests
// use it to load a test plug-in from their own folder.
void QltResetWebPluginForTest(const std::wstring& nameOrPath);

#endif  // QLTFSDK_DIAGNOSTICS_WEB_PLUGIN_H
