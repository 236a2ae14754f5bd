// What the SDK library loaded at start-up, for tools and diagnostics.
#ifndef QLTFSDK_SDKINFO_H
#define QLTFSDK_SDKINFO_H

#include "qltfsdk/export.h"
#include "qltfsdk/wintypes.h"

// The settings in force and where they came from. Paths are Windows-shaped
// (backslashes) except bstrCacheDriveDir, which is the native directory the
// cache drive stands for. The BSTRs are new copies the caller owns; free
// them with QLT_FreeSdkInfo.
struct QLT_SDKINFO_ST {
  int32_t nReadBufSize;         // bytes
  int32_t nWriteBufSize;        // bytes
  int32_t nReadMode;            // 1: reads bypass the system cache
  int32_t nWriteMode;           // 1: the writer's no-buffering path
  int32_t nWriteRetryCount;     // reopen attempts after a failed block write
  int32_t nWriteRetryTime;      // milliseconds
  int32_t nLogFileOn;           // non-zero: error-log entries are written
  int32_t nIOWriteTimeOn;       // non-zero: block writes are timed
  int32_t nIOWriteBlockTimeTh;  // milliseconds
  BSTR bstrIniPath;             // qltfsdk.ini that applies; empty when none was found
  BSTR bstrCacheDriveRoot;      // "X:\", empty when no fixed drive was found
  BSTR bstrCacheDriveDir;       // native directory of that drive; empty when unmapped
  BSTR bstrModuleDir;           // the SDK library's own directory; empty when unknown
};

extern "C" {
// Fills *pInfo (any previous BSTRs in it are not freed). Returns 1, or 0 for
// a null pointer (ERROR_INVALID_PARAMETER) or when memory runs out
// (ERROR_NOT_ENOUGH_MEMORY; nothing is then left allocated). Any thread.
QLTFS_API int QLT_GetSdkInfo(QLT_SDKINFO_ST* pInfo);
// 1 when the companion library of that name ("qltUtilBase.dll", ...) can be
// loaded the way the SDK loads it, else 0. Loads and releases it. Any thread.
QLTFS_API int QLT_FindCompanion(LPCWSTR pszName);
// Frees the BSTRs of *pInfo and sets them to null. Null is ignored.
QLTFS_API void QLT_FreeSdkInfo(QLT_SDKINFO_ST* pInfo);
}

#endif  // QLTFSDK_SDKINFO_H
