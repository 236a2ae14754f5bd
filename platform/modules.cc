// Loading libraries by their Windows names.
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cwctype>

#include "platform/internal.h"

using namespace qlt::plat;

namespace {

// "Name.dll" -> "libName.so"; names that already look native are kept.
std::string NativeLibraryName(const std::string& name) {
  std::string base = name;
  if (base.size() > 4) {
    std::string ext = base.substr(base.size() - 4);
    for (char& c : ext) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (ext == ".dll") base.erase(base.size() - 4);
  }
  if (base.find(".so") != std::string::npos) return base;
  return "lib" + base + ".so";
}

std::string RealFile(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return path;
  std::string r = real;
  std::free(real);
  return r;
}

}  // namespace

HMODULE qlt::win::LoadLibraryW(LPCWSTR name) {
  return NoThrow<HMODULE>(nullptr, [&]() -> HMODULE {
    if (!name || !*name) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return nullptr;
    }
    std::string asked = ToUtf8(name);
    if (faults::InjectPathFault(qlt::fault::kLoadLibrary, asked)) {
      if (GetLastError() == 0) SetLastError(ERROR_MOD_NOT_FOUND);
      return nullptr;
    }
    void* h = nullptr;
    if (asked.find('\\') != std::string::npos || asked.find('/') != std::string::npos) {
      std::string path;
      if (TranslatePath(name, &path)) h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    } else {
      std::string file = NativeLibraryName(asked);
      std::string beside = PlatformDirectory() + "/" + file;
      if (::access(beside.c_str(), F_OK) == 0) h = dlopen(beside.c_str(), RTLD_NOW | RTLD_LOCAL);
      if (!h) h = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    }
    if (!h) {
      const char* why = dlerror();
      if (why) OutputDebugStringA(why);
      SetLastError(ERROR_MOD_NOT_FOUND);
    }
    return h;
  });
}

BOOL qlt::win::FreeLibrary(HMODULE h) {
  if (!h) return Fail(ERROR_INVALID_HANDLE);
  return dlclose(h) == 0 ? TRUE : Fail(ERROR_INVALID_HANDLE);
}

void* qlt::win::GetProcAddress(HMODULE h, LPCSTR name) {
  if (!h || !name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  dlerror();
  void* p = dlsym(h, name);
  if (!p) SetLastError(ERROR_PROC_NOT_FOUND);
  return p;
}

HMODULE qlt::win::GetModuleHandleW(LPCWSTR name) {
  return NoThrow<HMODULE>(nullptr, [&]() -> HMODULE {
    void* h;
    if (!name) {
      h = dlopen(nullptr, RTLD_NOW);
    } else {
      std::string file = NativeLibraryName(ToUtf8(name));
      h = dlopen((PlatformDirectory() + "/" + file).c_str(), RTLD_NOW | RTLD_NOLOAD);
      if (!h) h = dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
    }
    if (!h) {
      SetLastError(ERROR_MOD_NOT_FOUND);
      return nullptr;
    }
    dlclose(h);  // balance the reference dlopen took; the module stays loaded
    return h;
  });
}

DWORD qlt::win::GetModuleFileNameW(HMODULE h, LPWSTR buf, DWORD size) {
  return NoThrow<DWORD>(0, [&]() -> DWORD {
    if (!buf || size == 0) {
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return 0;
    }
    std::string file;
    if (h) {
      struct link_map* lm = nullptr;
      if (dlinfo(h, RTLD_DI_LINKMAP, &lm) == 0 && lm && lm->l_name && *lm->l_name) file = lm->l_name;
    }
    if (file.empty()) {
      char exe[PATH_MAX];
      ssize_t n = ::readlink("/proc/self/exe", exe, sizeof(exe) - 1);
      if (n <= 0) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return 0;
      }
      exe[n] = 0;
      file = exe;
    }
    std::wstring w = WindowsPath(RealFile(file));
    DWORD n = static_cast<DWORD>(w.size());
    if (n >= size) {
      wmemcpy(buf, w.c_str(), size - 1);
      buf[size - 1] = 0;
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return size;
    }
    wmemcpy(buf, w.c_str(), n + 1);
    return n;
  });
}

extern "C" HMODULE QltModuleFromAddress(const void* addr) {
  return NoThrow<HMODULE>(nullptr, [&]() -> HMODULE {
    Dl_info info{};
    if (!dladdr(addr, &info) || !info.dli_fname) return nullptr;
    void* h = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    if (h) dlclose(h);
    return h;
  });
}
