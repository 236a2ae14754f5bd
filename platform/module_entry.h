// QLT_MODULE_ENTRY(fn): runs fn(HMODULE module, DWORD reason) with
// DLL_PROCESS_ATTACH when the library that contains it is loaded, before the
// host can call any exported function, and with DLL_PROCESS_DETACH when it is
// unloaded. fn returns BOOL; FALSE at attach fails the load on Windows.
//
// On Windows this is the module's DllMain, called by the system's loader
// with the loader lock held: fn may call kernel32 and the libraries this
// module imports, and must not load libraries, start or wait for threads.
// Elsewhere a load-time constructor and an unload-time destructor call it
// with the module found from the function's own address.
// Use it once per shared library, at namespace scope.
#ifndef QLTFSDK_PLATFORM_MODULE_ENTRY_H
#define QLTFSDK_PLATFORM_MODULE_ENTRY_H

#include "platform/platform.h"

#ifdef _WIN32

#define QLT_MODULE_ENTRY(fn)                                                                              \
  extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD dwReason, LPVOID) {                           \
    if (dwReason == DLL_PROCESS_ATTACH) ::DisableThreadLibraryCalls(hInstance);                           \
    if (dwReason == DLL_PROCESS_ATTACH || dwReason == DLL_PROCESS_DETACH) return fn(hInstance, dwReason); \
    return TRUE;                                                                                          \
  }

#else

#define QLT_MODULE_ENTRY(fn)                                                                       \
  namespace {                                                                                      \
  __attribute__((constructor)) void QltModuleLoad() {                                              \
    fn(QltModuleFromAddress(reinterpret_cast<const void*>(&QltModuleLoad)), DLL_PROCESS_ATTACH);   \
  }                                                                                                \
  __attribute__((destructor)) void QltModuleUnload() {                                             \
    fn(QltModuleFromAddress(reinterpret_cast<const void*>(&QltModuleUnload)), DLL_PROCESS_DETACH); \
  }                                                                                                \
  }

#endif

#endif  // QLTFSDK_PLATFORM_MODULE_ENTRY_H
