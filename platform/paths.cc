// Path translation and the drive map.
//
// Above the layer, paths look like Windows paths. "X:\rest" is looked up in
// the drive map (letter -> directory); anything else is used as written with
// backslashes turned into slashes. The map starts with C: standing for a
// private directory under the system's temporary area.
#include <dlfcn.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdlib>
#include <cwctype>
#include <map>

#include "platform/internal.h"

namespace qlt::plat {
namespace {

struct Drive {
  std::string dir;
  UINT type;  // DRIVE_UNKNOWN: tell from the file system
};

struct DriveMap {
  CRITICAL_SECTION lock;
  std::map<wchar_t, Drive> drives GUARDED_BY(lock);  // keys are upper case
  bool bInitialised GUARDED_BY(lock) = false;        // default C: entered
  bool bDefaultCreated GUARDED_BY(lock) = false;     // default C: directory made
};

DriveMap& Map() {
  static DriveMap* map = new DriveMap;  // never destroyed: usable during exit
  return *map;
}

std::string SystemTempDir() {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = (tmp && *tmp) ? tmp : "/tmp";
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

std::string DefaultDriveC() { return SystemTempDir() + "/qltfsdk-" + std::to_string(getuid()) + "/C"; }

void MakeDirs(const std::string& dir) {
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i == dir.size() || dir[i] == '/') ::mkdir(dir.substr(0, i).c_str(), 0700);
  }
}

void InitialiseLocked(DriveMap& m) REQUIRES(m.lock) {
  if (m.bInitialised) return;
  m.drives[L'C'] = Drive{DefaultDriveC(), DRIVE_UNKNOWN};
  m.bInitialised = true;
}

// Looks a letter up; creates the default C: directory on its first use.
bool FindDrive(wchar_t letter, Drive* out) {
  DriveMap& m = Map();
  CAutoLock g(&m.lock);
  InitialiseLocked(m);
  auto it = m.drives.find(static_cast<wchar_t>(towupper(static_cast<wint_t>(letter))));
  if (it == m.drives.end()) return false;
  if (!m.bDefaultCreated && it->first == L'C' && it->second.dir == DefaultDriveC()) {
    MakeDirs(it->second.dir);
    m.bDefaultCreated = true;
  }
  *out = it->second;
  return true;
}

bool IsDriveLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }

// The bytes of a name; false (ERROR_INVALID_NAME) when the text holds a code
// unit that no byte string stands for, so that no other file is reached.
bool NativeName(const std::wstring& text, std::string* out) {
  if (ToUtf8Checked(text.c_str(), out)) return true;
  SetLastError(ERROR_INVALID_NAME);
  return false;
}

}  // namespace

bool TranslatePath(LPCWSTR path, std::string* out) {
  if (!path) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  faults::CheckAlloc();
  std::wstring p(path);
  if (p.rfind(L"\\\\?\\", 0) == 0) p.erase(0, 4);
  std::string rest;
  if (p.size() >= 2 && IsDriveLetter(p[0]) && p[1] == L':') {
    Drive d;
    if (!FindDrive(p[0], &d)) {
      SetLastError(ERROR_PATH_NOT_FOUND);
      return false;
    }
    if (!NativeName(p.substr(2), &rest)) return false;
    for (char& c : rest)
      if (c == '\\') c = '/';
    if (!rest.empty() && rest[0] != '/') rest.insert(rest.begin(), '/');
    *out = d.dir + rest;
    return true;
  }
  if (!NativeName(p, &rest)) return false;
  for (char& c : rest)
    if (c == '\\') c = '/';
  *out = rest;
  return true;
}

std::string PlatformDirectory() {
  Dl_info info{};
  if (!dladdr(reinterpret_cast<const void*>(&PlatformDirectory), &info) || !info.dli_fname) return ".";
  std::string file = info.dli_fname;
  char* real = realpath(file.c_str(), nullptr);
  if (real) {
    file = real;
    std::free(real);
  }
  size_t slash = file.rfind('/');
  return slash == std::string::npos ? "." : file.substr(0, slash);
}

}  // namespace qlt::plat

using namespace qlt::plat;

namespace qlt::plat {
std::wstring WindowsPath(const std::string& nativePath) {
  std::wstring w = ToWide(nativePath);
  for (wchar_t& c : w)
    if (c == L'/') c = L'\\';
  return w;
}
}  // namespace qlt::plat

std::string QltNativePath(const wchar_t* path) {
  return NoThrow(std::string(), [&] {
    std::string out;
    return TranslatePath(path, &out) ? out : std::string();
  });
}

std::wstring QltWindowsPath(const std::string& nativePath) {
  return NoThrow(std::wstring(), [&] { return WindowsPath(nativePath); });
}

extern "C" void QltSetDrive(wchar_t letter, LPCWSTR directory, UINT type) {
  NoThrowVoid([&] {
    if (!IsDriveLetter(letter)) return;
    DriveMap& m = Map();
    CAutoLock g(&m.lock);
    InitialiseLocked(m);
    wchar_t key = static_cast<wchar_t>(towupper(static_cast<wint_t>(letter)));
    if (!directory || !*directory) {
      m.drives.erase(key);
      return;
    }
    std::string dir = ToUtf8(directory);
    for (char& c : dir)
      if (c == '\\') c = '/';
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    m.drives[key] = Drive{dir, type};
  });
}

extern "C" void QltResetDriveMap() {
  NoThrowVoid([&] {
    DriveMap& m = Map();
    CAutoLock g(&m.lock);
    m.drives.clear();
    m.bInitialised = false;
  });
}

DWORD qlt::win::GetLogicalDriveStringsW(DWORD nBufferLength, LPWSTR lpBuffer) {
  return NoThrow<DWORD>(0, [&]() -> DWORD {
    std::wstring all;
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
      Drive d;
      if (!FindDrive(letter, &d)) continue;
      all += letter;
      all += L":\\";
      all.push_back(L'\0');
    }
    DWORD len = static_cast<DWORD>(all.size());
    if (!lpBuffer || nBufferLength < len + 1) return len + 1;
    wmemcpy(lpBuffer, all.data(), len);
    lpBuffer[len] = L'\0';
    return len;
  });
}

UINT qlt::win::GetDriveTypeW(LPCWSTR root) {
  return NoThrow<UINT>(DRIVE_UNKNOWN, [&]() -> UINT {
    if (!root || !IsDriveLetter(root[0]) || root[1] != L':') return DRIVE_NO_ROOT_DIR;
    Drive d;
    if (!FindDrive(root[0], &d)) return DRIVE_NO_ROOT_DIR;
    struct stat st {};
    if (::stat(d.dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return DRIVE_NO_ROOT_DIR;
    if (d.type != DRIVE_UNKNOWN) return d.type;
    struct statfs fs {};
    if (::statfs(d.dir.c_str(), &fs) == 0) {
      switch (static_cast<unsigned long>(fs.f_type)) {
        case NFS_SUPER_MAGIC:
        case SMB_SUPER_MAGIC:
        case 0xFF534D42ul:  // CIFS
        case 0xFE534D42ul:  // SMB2
          return DRIVE_REMOTE;
        default: break;
      }
    }
    return DRIVE_FIXED;
  });
}

DWORD qlt::win::GetTempPathW(DWORD n, LPWSTR buf) {
  return NoThrow<DWORD>(0, [&]() -> DWORD {
    std::wstring t = WindowsPath(SystemTempDir()) + L"\\";
    DWORD len = static_cast<DWORD>(t.size());
    if (!buf || n < len + 1) return len + 1;
    wmemcpy(buf, t.c_str(), len + 1);
    return len;
  });
}
