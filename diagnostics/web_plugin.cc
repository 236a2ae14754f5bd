#include "diagnostics/web_plugin.h"

#include <cwctype>

#include "platform/platform.h"

namespace {

// The plug-in's process-wide state. Both fields are guarded by m_cs, which
// QltWebPluginSection names.
struct WebPlugin {
  CRITICAL_SECTION m_cs;
  HMODULE m_hModule GUARDED_BY(QltWebPluginSection()) = nullptr;               // loaded once, never freed
  std::wstring m_strName GUARDED_BY(QltWebPluginSection()) = QLT_WEBFILE_DLL;  // what LoadLibraryW is given
};

WebPlugin& Plugin() {
  // Never destroyed: the handle must outlive every static destructor that
  // might still use a web-file object.
  static WebPlugin* pPlugin = [] {
    auto* p = new WebPlugin;
    InitializeCriticalSection(&p->m_cs);
    return p;
  }();
  return *pPlugin;
}

}  // namespace

std::wstring QltUrlScheme(LPCWSTR path) {
  if (!path) return std::wstring();
  const wchar_t* end = wcsstr(path, L"://");
  if (!end) return std::wstring();
  std::wstring scheme(path, end);
  for (wchar_t& c : scheme) c = static_cast<wchar_t>(std::towupper(c));
  return scheme;
}

CRITICAL_SECTION& QltWebPluginSection() { return Plugin().m_cs; }

CWebPluginLock::CWebPluginLock() { EnterCriticalSection(&QltWebPluginSection()); }

CWebPluginLock::~CWebPluginLock() { LeaveCriticalSection(&QltWebPluginSection()); }

HMODULE QltWebPluginModuleLocked() {
  WebPlugin& p = Plugin();
  if (!p.m_hModule) p.m_hModule = LoadLibraryW(p.m_strName.c_str());
  return p.m_hModule;
}

PFN_CreateWebFileWriter QltWebPluginCreateWriterLocked() {
  HMODULE hModule = QltWebPluginModuleLocked();
  return hModule ? reinterpret_cast<PFN_CreateWebFileWriter>(GetProcAddress(hModule, "CreateWebFileWriter")) : nullptr;
}

PFN_WebFileIsExist QltWebPluginIsExistLocked() {
  HMODULE hModule = QltWebPluginModuleLocked();
  return hModule ? reinterpret_cast<PFN_WebFileIsExist>(GetProcAddress(hModule, "WebFileIsExist")) : nullptr;
}

CQltWebFile* QltCreateWebFileWriter() {
  CWebPluginLock lock;
  PFN_CreateWebFileWriter pfnCreate = QltWebPluginCreateWriterLocked();
  return pfnCreate ? pfnCreate() : nullptr;
}

int QltWebFileIsExist(LPCWSTR path) {
  if (!path) return 0;
  CWebPluginLock lock;
  size_t n = wcslen(path);
  if (n >= 4) {
    std::wstring tail(path + n - 4);
    for (wchar_t& c : tail) c = static_cast<wchar_t>(std::towlower(c));
    if (tail == L".inx") return 0;
  }
  PFN_WebFileIsExist pfnExists = QltWebPluginIsExistLocked();
  if (!pfnExists) return 0;
  BSTR copy = SysAllocString(path);  // the plug-in owns and frees it
  if (!copy) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  return pfnExists(copy);
}

void QltResetWebPluginForTest(const std::wstring& nameOrPath) {
  WebPlugin& p = Plugin();
  CWebPluginLock lock;
  p.m_hModule = nullptr;
  p.m_strName = nameOrPath.empty() ? std::wstring(QLT_WEBFILE_DLL) : nameOrPath;
}
