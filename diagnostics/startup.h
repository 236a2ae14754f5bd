// Library attach and detach.
#ifndef QLTFSDK_DIAGNOSTICS_STARTUP_H
#define QLTFSDK_DIAGNOSTICS_STARTUP_H

#include "platform/platform.h"

#ifndef DLL_PROCESS_DETACH
#define DLL_PROCESS_DETACH 0
#define DLL_PROCESS_ATTACH 1
#define DLL_THREAD_ATTACH 2
#define DLL_THREAD_DETACH 3
#endif

// The library's entry point, called by the load-time constructor with the
// library's module handle. Attach stores the handle, loads the drive map
// from the [DRIVES] section of qltfsdk.ini, chooses CacheDriveRoot when it
// is empty, loads the settings (an exception there is swallowed: the fields
// read so far keep their new values) and hands WriteBufSize to the utility
// library as its default write block size. Every other reason does nothing.
// Returns 1. Called on the loading thread before other threads call in.
BOOL QltSdkDllMain(HMODULE hModule, DWORD dwReason);

#endif  // QLTFSDK_DIAGNOSTICS_STARTUP_H
