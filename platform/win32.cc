// The platform layer on Windows: forwarders to the system calls that first
// consult the fault control and the drive overlay, and the layer's own Qlt*
// additions. Everything else comes straight from <windows.h>.
// The build defines QLT_PLATFORM_SYSTEM_NAMES for this file: it sees the
// system's declarations of the forwarded calls.
#include <cwctype>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/internal.h"

namespace qlt::plat {

namespace {

// ---- Drive overlay ---------------------------------------------------------------
// Letters a test (or a settings file's [DRIVES] section) maps to a folder.
// The system's own drives are untouched; a mapped letter hides a real one.
struct Overlay {
  std::mutex lock;
  std::map<wchar_t, std::pair<std::wstring, UINT>> drives;  // guarded by lock
};

Overlay& Drives() {
  static Overlay* o = new Overlay;  // never destroyed: used until the process ends
  return *o;
}

bool IsLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }
wchar_t Upper(wchar_t c) { return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - L'a' + L'A') : c; }

// The path with an overlaid drive letter replaced by its folder.
std::wstring Translate(LPCWSTR path) {
  if (!path) return std::wstring();
  std::wstring p(path);
  if (p.size() >= 2 && IsLetter(p[0]) && p[1] == L':') {
    Overlay& o = Drives();
    std::lock_guard<std::mutex> g(o.lock);
    auto it = o.drives.find(Upper(p[0]));
    if (it != o.drives.end()) {
      std::wstring rest = p.substr(2);
      if (rest.empty()) rest = L"\\";
      return it->second.first + rest;
    }
  }
  return p;
}

// The form fault rules match: UTF-8 with forward slashes.
std::string FaultPath(const std::wstring& p) {
  std::string s = ToUtf8(p);
  for (char& c : s)
    if (c == '\\') c = '/';
  return s;
}

// ---- Files opened through the layer: the path rules match, and the access --------
struct LayerFile {
  std::string path;  // the form fault rules match
  bool bWritable;    // opened with write access
};

struct OpenFiles {
  std::mutex lock;
  std::unordered_map<HANDLE, LayerFile> paths;  // guarded by lock
};

OpenFiles& Files() {
  static OpenFiles* f = new OpenFiles;  // never destroyed
  return *f;
}

std::string PathOf(HANDLE h) {
  OpenFiles& f = Files();
  std::lock_guard<std::mutex> g(f.lock);
  auto it = f.paths.find(h);
  return it == f.paths.end() ? std::string() : it->second.path;
}

// True when a rule fires for a call on file h; *out says what to do.
bool FileFault(unsigned op, HANDLE h, faults::Outcome* out) {
  if (!faults::Armed()) return false;
  return faults::Match(op, PathOf(h), h, out);
}

BOOL FailWith(DWORD err) {
  ::SetLastError(err);
  return FALSE;
}

// The fault control's allocation point (and, for a thread start, its thread
// rule) of a call that takes system resources: true, with
// ERROR_NOT_ENOUGH_MEMORY as the last error, when a rule makes it run out.
bool RunsOutOfMemory(bool bThreadStart = false) {
  try {
    faults::CheckAlloc();
    if (bThreadStart) faults::CheckThreadStart();
    return false;
  } catch (...) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return true;
  }
}

}  // namespace

bool TranslatePath(LPCWSTR path, std::string* out) {
  if (!path) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  std::wstring t = Translate(path);
  if (!ToUtf8Checked(t.c_str(), out)) {
    ::SetLastError(ERROR_INVALID_NAME);
    return false;
  }
  return true;
}

std::wstring WindowsPath(const std::string& nativePath) {
  std::wstring w = ToWide(nativePath);
  for (wchar_t& c : w)
    if (c == L'/') c = L'\\';
  return w;
}

std::string PlatformDirectory() {
  HMODULE self = QltModuleFromAddress(reinterpret_cast<const void*>(&PlatformDirectory));
  wchar_t buf[32768];
  DWORD n = ::GetModuleFileNameW(self, buf, 32768);
  if (n == 0 || n >= 32768) return std::string();
  std::wstring p(buf, n);
  size_t cut = p.find_last_of(L"\\/");
  return ToUtf8(cut == std::wstring::npos ? std::wstring() : p.substr(0, cut));
}

}  // namespace qlt::plat

using qlt::plat::FaultPath;
using qlt::plat::FileFault;
using qlt::plat::Files;
using qlt::plat::NoThrow;
using qlt::plat::NoThrowVoid;
using qlt::plat::RunsOutOfMemory;
using qlt::plat::Translate;
namespace faults = qlt::plat::faults;

// ---- Files -------------------------------------------------------------------------
HANDLE qlt::win::CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa, DWORD disposition,
                             DWORD flags, HANDLE hTemplate) {
  return NoThrow<HANDLE>(INVALID_HANDLE_VALUE, [&]() -> HANDLE {
    if (!name) {
      ::SetLastError(ERROR_INVALID_PARAMETER);
      return INVALID_HANDLE_VALUE;
    }
    std::wstring path = Translate(name);
    std::string faultPath = FaultPath(path);
    faults::CheckAlloc();
    if (faults::InjectPathFault(qlt::fault::kOpen, faultPath)) return INVALID_HANDLE_VALUE;
    HANDLE h = ::CreateFileW(path.c_str(), access, share, sa, disposition, flags, hTemplate);
    if (h == INVALID_HANDLE_VALUE) return h;
    DWORD err = ::GetLastError();  // ERROR_ALREADY_EXISTS is news for the caller
    try {
      auto& f = Files();
      std::lock_guard<std::mutex> g(f.lock);
      f.paths[h] = qlt::plat::LayerFile{faultPath, (access & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA)) != 0};
    } catch (...) {
      ::CloseHandle(h);
      throw;
    }
    ::SetLastError(err);
    return h;
  });
}

BOOL qlt::win::CloseHandle(HANDLE h) {
  // The system takes INVALID_HANDLE_VALUE for the current process and
  // "closes" it with success; a caller that closes it has lost a handle.
  if (h == nullptr || h == INVALID_HANDLE_VALUE) return qlt::plat::FailWith(ERROR_INVALID_HANDLE);
  std::string path;
  bool file = false;
  {
    auto& f = Files();
    std::lock_guard<std::mutex> g(f.lock);
    auto it = f.paths.find(h);
    if (it != f.paths.end()) {
      file = true;
      path.swap(it->second.path);
      f.paths.erase(it);
    }
  }
  BOOL ok = ::CloseHandle(h);
  if (ok && file && faults::Armed()) {
    faults::Outcome o{};
    if (faults::Match(qlt::fault::kClose, path, h, &o) && o.action == qlt::fault::Action::kFail)
      return qlt::plat::FailWith(o.error);
  }
  return ok;
}

BOOL qlt::win::ReadFile(HANDLE h, LPVOID buf, DWORD n, LPDWORD pRead, LPOVERLAPPED ov) {
  if (pRead) *pRead = 0;
  faults::Outcome o{};
  if (FileFault(qlt::fault::kRead, h, &o)) {
    if (o.action == qlt::fault::Action::kFail) return qlt::plat::FailWith(o.error);
    if (n > o.shortBytes) n = o.shortBytes;
  }
  auto* p = static_cast<char*>(buf);
  DWORD total = 0;
  OVERLAPPED at{};
  if (ov) at = *ov;
  while (total < n) {
    DWORD got = 0;
    BOOL ok = ::ReadFile(h, p + total, n - total, &got, ov ? &at : nullptr);
    if (!ok) {
      if (::GetLastError() == ERROR_HANDLE_EOF) break;
      if (pRead) *pRead = total;
      return FALSE;
    }
    if (got == 0) break;
    total += got;
    if (ov) {
      ULONGLONG off = (static_cast<ULONGLONG>(at.OffsetHigh) << 32 | at.Offset) + got;
      at.Offset = static_cast<DWORD>(off);
      at.OffsetHigh = static_cast<DWORD>(off >> 32);
    }
  }
  if (pRead) *pRead = total;
  return TRUE;
}

BOOL qlt::win::WriteFile(HANDLE h, LPCVOID buf, DWORD n, LPDWORD pWritten, LPOVERLAPPED ov) {
  if (pWritten) *pWritten = 0;
  faults::Outcome o{};
  DWORD failAfter = MAXDWORD;
  DWORD failError = 0;
  if (FileFault(qlt::fault::kWrite, h, &o)) {
    if (o.action == qlt::fault::Action::kFail) return qlt::plat::FailWith(o.error);
    if (o.action == qlt::fault::Action::kShort && n > o.shortBytes) n = o.shortBytes;
    if (o.action == qlt::fault::Action::kPartialFail) {
      failAfter = o.shortBytes < n ? o.shortBytes : n;
      failError = o.error;
      n = failAfter;
    }
  }
  const auto* p = static_cast<const char*>(buf);
  DWORD total = 0;
  OVERLAPPED at{};
  if (ov) at = *ov;
  while (total < n) {
    DWORD put = 0;
    if (!::WriteFile(h, p + total, n - total, &put, ov ? &at : nullptr)) {
      if (pWritten) *pWritten = total;
      return FALSE;
    }
    if (put == 0) {
      if (pWritten) *pWritten = total;
      return qlt::plat::FailWith(ERROR_DISK_FULL);
    }
    total += put;
    if (ov) {
      ULONGLONG off = (static_cast<ULONGLONG>(at.OffsetHigh) << 32 | at.Offset) + put;
      at.Offset = static_cast<DWORD>(off);
      at.OffsetHigh = static_cast<DWORD>(off >> 32);
    }
  }
  if (pWritten) *pWritten = total;
  if (failAfter != MAXDWORD) return qlt::plat::FailWith(failError);
  return TRUE;
}

BOOL qlt::win::SetFilePointerEx(HANDLE h, LARGE_INTEGER distance, PLARGE_INTEGER pNewPos, DWORD method) {
  faults::Outcome o{};
  if (FileFault(qlt::fault::kSeek, h, &o) && o.action == qlt::fault::Action::kFail) return qlt::plat::FailWith(o.error);
  return ::SetFilePointerEx(h, distance, pNewPos, method);
}

DWORD qlt::win::SetFilePointer(HANDLE h, LONG distanceLow, PLONG pDistanceHigh, DWORD method) {
  faults::Outcome o{};
  if (FileFault(qlt::fault::kSeek, h, &o) && o.action == qlt::fault::Action::kFail) {
    ::SetLastError(o.error);
    return INVALID_SET_FILE_POINTER;
  }
  return ::SetFilePointer(h, distanceLow, pDistanceHigh, method);
}

BOOL qlt::win::GetFileSizeEx(HANDLE h, PLARGE_INTEGER pSize) {
  faults::Outcome o{};
  if (FileFault(qlt::fault::kSize, h, &o) && o.action == qlt::fault::Action::kFail) return qlt::plat::FailWith(o.error);
  return ::GetFileSizeEx(h, pSize);
}

DWORD qlt::win::GetFileSize(HANDLE h, LPDWORD pHigh) {
  faults::Outcome o{};
  if (FileFault(qlt::fault::kSize, h, &o) && o.action == qlt::fault::Action::kFail) {
    ::SetLastError(o.error);
    return INVALID_FILE_SIZE;
  }
  return ::GetFileSize(h, pHigh);
}

BOOL qlt::win::SetEndOfFile(HANDLE h) {
  faults::Outcome o{};
  if (FileFault(qlt::fault::kSetEnd, h, &o) && o.action == qlt::fault::Action::kFail)
    return qlt::plat::FailWith(o.error);
  return ::SetEndOfFile(h);
}

BOOL qlt::win::FlushFileBuffers(HANDLE h) {
  faults::Outcome o{};
  if (FileFault(qlt::fault::kFlush, h, &o) && o.action == qlt::fault::Action::kFail)
    return qlt::plat::FailWith(o.error);
  return ::FlushFileBuffers(h);
}

BOOL qlt::win::DeleteFileW(LPCWSTR name) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::wstring path = Translate(name);
    if (faults::InjectPathFault(qlt::fault::kDelete, FaultPath(path))) return FALSE;
    return ::DeleteFileW(path.c_str());
  });
}

BOOL qlt::win::MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::wstring a = Translate(from), b = Translate(to);
    return ::MoveFileExW(a.c_str(), b.c_str(), flags);
  });
}

BOOL qlt::win::CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES sa) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::wstring path = Translate(name);
    if (faults::InjectPathFault(qlt::fault::kCreateDir, FaultPath(path))) return FALSE;
    return ::CreateDirectoryW(path.c_str(), sa);
  });
}

BOOL qlt::win::RemoveDirectoryW(LPCWSTR name) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL { return ::RemoveDirectoryW(Translate(name).c_str()); });
}

DWORD qlt::win::GetFileAttributesW(LPCWSTR name) {
  return NoThrow<DWORD>(INVALID_FILE_ATTRIBUTES, [&]() -> DWORD {
    std::wstring path = Translate(name);
    // A trailing separator names the folder itself.
    while (path.size() > 3 && (path.back() == L'\\' || path.back() == L'/')) path.pop_back();
    return ::GetFileAttributesW(path.c_str());
  });
}

int qlt::win::WAccess(LPCWSTR name, int mode) {
  return NoThrow<int>(-1, [&]() -> int { return ::_waccess(Translate(name).c_str(), mode); });
}

HANDLE qlt::win::FindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW pData) {
  return NoThrow<HANDLE>(INVALID_HANDLE_VALUE, [&]() -> HANDLE {
    faults::CheckAlloc();
    HANDLE h = ::FindFirstFileW(Translate(pattern).c_str(), pData);
    // "." and ".." are not reported.
    while (h != INVALID_HANDLE_VALUE && (wcscmp(pData->cFileName, L".") == 0 || wcscmp(pData->cFileName, L"..") == 0)) {
      if (!::FindNextFileW(h, pData)) {
        ::FindClose(h);
        ::SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
      }
    }
    return h;
  });
}

DWORD qlt::win::GetLogicalDriveStringsW(DWORD nBufferLength, LPWSTR lpBuffer) {
  return NoThrow<DWORD>(0, [&]() -> DWORD {
    DWORD mask = ::GetLogicalDrives();
    {
      auto& o = qlt::plat::Drives();
      std::lock_guard<std::mutex> g(o.lock);
      for (const auto& d : o.drives) mask |= 1u << (d.first - L'A');
    }
    std::wstring all;
    for (int i = 0; i < 26; ++i)
      if (mask & (1u << i)) {
        all.push_back(static_cast<wchar_t>(L'A' + i));
        all.append(L":\\");
        all.push_back(L'\0');
      }
    DWORD need = static_cast<DWORD>(all.size());
    if (!lpBuffer || nBufferLength < need + 1) return need + 1;
    wmemcpy(lpBuffer, all.data(), all.size());
    lpBuffer[all.size()] = L'\0';
    return need;
  });
}

UINT qlt::win::GetDriveTypeW(LPCWSTR root) {
  return NoThrow<UINT>(DRIVE_UNKNOWN, [&]() -> UINT {
    if (root && qlt::plat::IsLetter(root[0]) && root[1] == L':') {
      auto& o = qlt::plat::Drives();
      std::wstring dir;
      UINT type = DRIVE_UNKNOWN;
      {
        std::lock_guard<std::mutex> g(o.lock);
        auto it = o.drives.find(qlt::plat::Upper(root[0]));
        if (it != o.drives.end()) {
          dir = it->second.first;
          type = it->second.second;
        }
      }
      if (!dir.empty()) {
        if (type != DRIVE_UNKNOWN) return type;
        if (dir.size() >= 2 && dir[1] == L':') return ::GetDriveTypeW(dir.substr(0, 2).append(L"\\").c_str());
        return ::GetDriveTypeW(nullptr);
      }
    }
    return ::GetDriveTypeW(root);
  });
}

// ---- Threads and events ---------------------------------------------------------------
HANDLE qlt::win::CreateThread(LPSECURITY_ATTRIBUTES sa, SIZE_T stackSize, LPTHREAD_START_ROUTINE start, LPVOID param,
                              DWORD flags, LPDWORD pThreadId) {
  if (RunsOutOfMemory(true)) return nullptr;
  DWORD err = ::GetLastError();
  HANDLE h = ::CreateThread(sa, stackSize, start, param, flags, pThreadId);
  if (!h) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  ::SetLastError(err);
  return h;
}

HANDLE qlt::win::CreateEventW(LPSECURITY_ATTRIBUTES sa, BOOL bManualReset, BOOL bInitialState, LPCWSTR name) {
  if (RunsOutOfMemory()) return nullptr;
  return ::CreateEventW(sa, bManualReset, bInitialState, name);
}

// The layer's waits may need memory on other systems; here the fault control
// alone makes them run out, so that callers' handling of a failed wait is
// tested on both.
DWORD qlt::win::WaitForSingleObject(HANDLE h, DWORD milliseconds) {
  if (RunsOutOfMemory()) return WAIT_FAILED;
  return ::WaitForSingleObject(h, milliseconds);
}

DWORD qlt::win::WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL bWaitAll, DWORD milliseconds) {
  if (bWaitAll) {
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return WAIT_FAILED;
  }
  if (RunsOutOfMemory()) return WAIT_FAILED;
  return ::WaitForMultipleObjects(count, handles, FALSE, milliseconds);
}

// ---- Memory ---------------------------------------------------------------------------------
LPVOID qlt::win::VirtualAlloc(LPVOID pAddress, SIZE_T nSize, DWORD dwAllocationType, DWORD dwProtect) {
  if (pAddress || nSize == 0 || dwAllocationType != (MEM_COMMIT | MEM_RESERVE) || dwProtect != PAGE_READWRITE) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (RunsOutOfMemory()) return nullptr;
  LPVOID p = ::VirtualAlloc(nullptr, nSize, dwAllocationType, dwProtect);
  if (!p) ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return p;
}

// ---- Modules -----------------------------------------------------------------------------
HMODULE qlt::win::LoadLibraryW(LPCWSTR name) {
  return NoThrow<HMODULE>(nullptr, [&]() -> HMODULE {
    if (!name || !*name) {
      ::SetLastError(ERROR_INVALID_PARAMETER);
      return nullptr;
    }
    std::wstring asked(name);
    if (faults::InjectPathFault(qlt::fault::kLoadLibrary, FaultPath(asked))) {
      if (::GetLastError() == 0) ::SetLastError(ERROR_MOD_NOT_FOUND);
      return nullptr;
    }
    HMODULE h = nullptr;
    if (asked.find_first_of(L"\\/") != std::wstring::npos) {
      h = ::LoadLibraryExW(Translate(name).c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    } else {
      // Beside the SDK's own libraries first, then the system's search.
      std::wstring beside = qlt::plat::WindowsPath(qlt::plat::PlatformDirectory()) + L"\\" + asked;
      if (::GetFileAttributesW(beside.c_str()) != INVALID_FILE_ATTRIBUTES)
        h = ::LoadLibraryExW(beside.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
      if (!h) h = ::LoadLibraryW(name);
    }
    if (!h) ::SetLastError(ERROR_MOD_NOT_FOUND);
    return h;
  });
}

void* qlt::win::GetProcAddress(HMODULE h, LPCSTR name) { return reinterpret_cast<void*>(::GetProcAddress(h, name)); }

// ---- The layer's own calls ------------------------------------------------------------------
extern "C" void QltSetDrive(wchar_t letter, LPCWSTR directory, UINT type) {
  NoThrowVoid([&] {
    if (!qlt::plat::IsLetter(letter)) return;
    auto& o = qlt::plat::Drives();
    std::lock_guard<std::mutex> g(o.lock);
    wchar_t key = qlt::plat::Upper(letter);
    if (!directory || !*directory) {
      o.drives.erase(key);
      return;
    }
    std::wstring dir(directory);
    for (wchar_t& c : dir)
      if (c == L'/') c = L'\\';
    while (dir.size() > 3 && dir.back() == L'\\') dir.pop_back();
    o.drives[key] = {dir, type};
  });
}

extern "C" void QltResetDriveMap() {
  NoThrowVoid([&] {
    auto& o = qlt::plat::Drives();
    std::lock_guard<std::mutex> g(o.lock);
    o.drives.clear();
  });
}

extern "C" HMODULE QltModuleFromAddress(const void* addr) {
  HMODULE h = nullptr;
  if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<LPCWSTR>(addr), &h))
    return nullptr;
  return h;
}

std::string QltNativePath(const wchar_t* path) {
  return NoThrow(std::string(), [&] {
    std::string out;
    if (!path || !qlt::plat::TranslatePath(path, &out)) return std::string();
    return out;
  });
}

std::wstring QltWindowsPath(const std::string& nativePath) {
  return NoThrow(std::wstring(), [&] { return qlt::plat::WindowsPath(nativePath); });
}

namespace {

bool FileId(LPCWSTR path, BY_HANDLE_FILE_INFORMATION* info) {
  std::wstring p = Translate(path);
  HANDLE h = ::CreateFileW(p.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                           FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  BOOL ok = ::GetFileInformationByHandle(h, info);
  DWORD err = ::GetLastError();
  ::CloseHandle(h);
  ::SetLastError(err);
  return ok != FALSE;
}

}  // namespace

extern "C" BOOL QltSameFile(LPCWSTR a, LPCWSTR b) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    if (!a || !b) {
      ::SetLastError(ERROR_INVALID_PARAMETER);
      return FALSE;
    }
    BY_HANDLE_FILE_INFORMATION ia{}, ib{};
    if (!FileId(a, &ia) || !FileId(b, &ib)) return FALSE;
    ::SetLastError(ERROR_SUCCESS);
    return ia.dwVolumeSerialNumber == ib.dwVolumeSerialNumber && ia.nFileIndexHigh == ib.nFileIndexHigh &&
           ia.nFileIndexLow == ib.nFileIndexLow;
  });
}

// Windows has no call that starts the write-back of a range without waiting
// for it; the system's lazy writer already writes dirty pages out steadily.
// The handle is still checked so that a bad one, or one that cannot write,
// fails as on other systems.
BOOL QltStartWriteBack(HANDLE h, ULONGLONG offset, ULONGLONG length) {
  if (h == nullptr || h == INVALID_HANDLE_VALUE) {
    ::SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  ::SetLastError(ERROR_SUCCESS);
  if (::GetFileType(h) == FILE_TYPE_UNKNOWN && ::GetLastError() != ERROR_SUCCESS) return FALSE;  // a closed handle
  bool bKnown = false, bWritable = false;
  {
    auto& f = Files();
    std::lock_guard<std::mutex> g(f.lock);
    auto it = f.paths.find(h);
    if (it != f.paths.end()) {
      bKnown = true;
      bWritable = it->second.bWritable;
    }
  }
  if (bKnown && !bWritable) {
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  if (offset > static_cast<ULONGLONG>(INT64_MAX) || length > static_cast<ULONGLONG>(INT64_MAX) - offset) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return TRUE;
}

extern "C" BOOL QltIsTerminal(FILE* stream) { return stream != nullptr && ::_isatty(::_fileno(stream)) != 0; }

extern "C" char** QltUtf8Arguments(int* pArgc, char** argv) {
  return NoThrow<char**>(argv, [&]() -> char** {
    if (!pArgc) return argv;
    // shell32 is loaded here, by the one program that asks, rather than
    // imported: every host that loads the SDK would otherwise load it and
    // what it pulls in at start-up. From the system folder only.
    using SplitFn = LPWSTR*(WINAPI*)(LPCWSTR, int*);
    HMODULE hShell = ::LoadLibraryExW(L"shell32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (!hShell) return argv;
    auto fnSplit = reinterpret_cast<SplitFn>(reinterpret_cast<void*>(::GetProcAddress(hShell, "CommandLineToArgvW")));
    int n = 0;
    LPWSTR* wide = fnSplit ? fnSplit(::GetCommandLineW(), &n) : nullptr;
    ::FreeLibrary(hShell);
    if (!wide) return argv;
    // Kept for the process's lifetime: main's argv lives that long too.
    static std::vector<std::string> s_args;
    static std::vector<char*> s_pointers;
    std::vector<std::string> args;
    try {
      for (int i = 0; i < n; ++i) args.push_back(QltWideToUtf8(wide[i]));
    } catch (...) {
      ::LocalFree(wide);
      throw;
    }
    ::LocalFree(wide);
    s_args.swap(args);
    s_pointers.clear();
    for (std::string& a : s_args) s_pointers.push_back(&a[0]);
    s_pointers.push_back(nullptr);
    *pArgc = n;
    return s_pointers.data();
  });
}
