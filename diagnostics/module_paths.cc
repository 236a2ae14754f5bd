#include "diagnostics/module_paths.h"

#include <atomic>

#include "platform/platform.h"

namespace {

// Written once by start-up, read by any thread later. Release/acquire so a
// reader that sees the handle also sees everything start-up did before
// storing it (the loader's own ordering makes this redundant in practice).
std::atomic<HMODULE> g_hSdkModule{nullptr};

struct ModuleDirOverride {
  ModuleDirOverride() { InitializeCriticalSection(&lock); }
  CRITICAL_SECTION lock;
  std::wstring strDir GUARDED_BY(lock);  // empty: no override
};

ModuleDirOverride& Override() {
  static ModuleDirOverride* pOverride = new ModuleDirOverride;  // never destroyed: usable during exit
  return *pOverride;
}

}  // namespace

void SetSdkModuleHandle(HMODULE hModule) { g_hSdkModule.store(hModule, std::memory_order_release); }

HMODULE GetSdkModuleHandle() { return g_hSdkModule.load(std::memory_order_acquire); }

std::wstring DirectoryOfPath(const std::wstring& path) {
  size_t slash = path.rfind(L'\\');
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

void SetModuleDirectoryOverride(const std::wstring& dir) {
  ModuleDirOverride& o = Override();
  CAutoLock guard(&o.lock);
  o.strDir = dir;
}

std::wstring GetModuleDirectory() {
  {
    ModuleDirOverride& o = Override();
    CAutoLock guard(&o.lock);
    if (!o.strDir.empty()) return o.strDir;
  }
  HMODULE hModule = GetSdkModuleHandle();
  // A null handle would name the executable, not the library: report unknown.
  if (!hModule) return std::wstring();
  return QltModuleDirectory(hModule);
}

std::wstring GetExecutableDirectory() { return QltModuleDirectory(nullptr); }

std::wstring ChooseConfigDirectory(const std::wstring& exeDir, const std::wstring& moduleDir) {
  return QltSettingsDirectory(exeDir, moduleDir);
}

std::wstring GetConfigDirectory() { return ChooseConfigDirectory(GetExecutableDirectory(), GetModuleDirectory()); }
