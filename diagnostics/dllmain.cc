// The SDK library's entry point: start-up when the library is loaded (the
// module handle, the drive map and the cache drive, the settings), detach
// when it is unloaded. On Windows it is the DLL's DllMain; elsewhere a
// load-time constructor and an unload-time destructor.
#include "diagnostics/startup.h"
#include "platform/module_entry.h"
#include "platform/platform.h"

QLT_MODULE_ENTRY(QltSdkDllMain)
