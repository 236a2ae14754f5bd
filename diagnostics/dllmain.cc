// Load-time attach and unload-time detach of the SDK library. The
// constructor runs on the loading thread when the library is loaded, before
// the host can call any exported function.
#include "diagnostics/startup.h"
#include "platform/platform.h"

namespace {

__attribute__((constructor)) void QltSdkLoad() {
  QltSdkDllMain(QltModuleFromAddress(reinterpret_cast<const void*>(&QltSdkLoad)), DLL_PROCESS_ATTACH);
}

__attribute__((destructor)) void QltSdkUnload() {
  QltSdkDllMain(QltModuleFromAddress(reinterpret_cast<const void*>(&QltSdkUnload)), DLL_PROCESS_DETACH);
}

}  // namespace
