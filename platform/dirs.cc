// Directories, attributes and directory search.
#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/internal.h"

namespace qlt::plat {
namespace {

struct FindObject : KObject {
  std::vector<WIN32_FIND_DATAW> entries;  // matches, in the order the directory gave them
  size_t next GUARDED_BY(lock) = 1;       // entry 0 goes to the call that opens the search
  CRITICAL_SECTION lock;                  // two threads may step one search handle
};

DWORD AttributesOf(const struct stat& st) {
  DWORD a = S_ISDIR(st.st_mode)   ? FILE_ATTRIBUTE_DIRECTORY
            : S_ISREG(st.st_mode) ? FILE_ATTRIBUTE_ARCHIVE
                                  : FILE_ATTRIBUTE_DEVICE;
  if (!(st.st_mode & S_IWUSR)) a |= FILE_ATTRIBUTE_READONLY;
  return a;
}

void FillFindData(const std::string& name, const struct stat& st, WIN32_FIND_DATAW* d) {
  std::memset(d, 0, sizeof(*d));
  d->dwFileAttributes = AttributesOf(st);
  uint64_t size = static_cast<uint64_t>(st.st_size);
  d->nFileSizeHigh = static_cast<DWORD>(size >> 32);
  d->nFileSizeLow = static_cast<DWORD>(size);
  // FILETIME: 100 ns units since 1601-01-01.
  uint64_t ft = (static_cast<uint64_t>(st.st_mtim.tv_sec) + 11644473600ull) * 10000000ull +
                static_cast<uint64_t>(st.st_mtim.tv_nsec) / 100;
  d->ftLastWriteTime = FILETIME{static_cast<DWORD>(ft), static_cast<DWORD>(ft >> 32)};
  std::wstring w = ToWide(name);
  size_t n = w.size() < MAX_PATH - 1 ? w.size() : MAX_PATH - 1;
  wmemcpy(d->cFileName, w.c_str(), n);
  d->cFileName[n] = 0;
}

}  // namespace
}  // namespace qlt::plat

using namespace qlt::plat;

BOOL qlt::win::CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES /*sa*/) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::string p;
    if (!TranslatePath(path, &p)) return FALSE;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    if (faults::InjectPathFault(qlt::fault::kCreateDir, p)) return FALSE;
    if (::mkdir(p.c_str(), 0755) == 0) return TRUE;
    if (errno == EEXIST) return Fail(ERROR_ALREADY_EXISTS);
    if (errno == ENOENT) return Fail(ERROR_PATH_NOT_FOUND);
    return FailErrno();
  });
}

BOOL qlt::win::RemoveDirectoryW(LPCWSTR path) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::string p;
    if (!TranslatePath(path, &p)) return FALSE;
    if (::rmdir(p.c_str()) == 0) return TRUE;
    if (errno == ENOTDIR) return Fail(ERROR_DIRECTORY);
    return FailErrno();
  });
}

DWORD qlt::win::GetFileAttributesW(LPCWSTR path) {
  return NoThrow<DWORD>(INVALID_FILE_ATTRIBUTES, [&]() -> DWORD {
    std::string p;
    if (!TranslatePath(path, &p)) return INVALID_FILE_ATTRIBUTES;
    struct stat st {};
    if (::stat(p.c_str(), &st) != 0) {
      FailErrno();
      return INVALID_FILE_ATTRIBUTES;
    }
    return AttributesOf(st);
  });
}

int qlt::win::_waccess(LPCWSTR path, int mode) {
  return NoThrow<int>(-1, [&]() -> int {
    std::string p;
    if (!TranslatePath(path, &p)) return -1;
    int m = F_OK;
    if (mode & 2) m |= W_OK;
    if (mode & 4) m |= R_OK;
    return ::access(p.c_str(), m) == 0 ? 0 : -1;
  });
}

HANDLE qlt::win::FindFirstFileW(LPCWSTR pattern, WIN32_FIND_DATAW* pData) {
  return NoThrow(INVALID_HANDLE_VALUE, [&]() -> HANDLE {
    std::string p;
    if (!TranslatePath(pattern, &p)) return INVALID_HANDLE_VALUE;
    if (!pData) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return INVALID_HANDLE_VALUE;
    }
    size_t slash = p.rfind('/');
    std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : p.substr(0, slash));
    std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
    DIR* d = ::opendir(dir.c_str());
    if (!d) {
      SetLastError(errno == ENOENT || errno == ENOTDIR ? ERROR_PATH_NOT_FOUND : ErrnoToWin(errno));
      return INVALID_HANDLE_VALUE;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> closer(d, ::closedir);
    Ref<FindObject> f(new FindObject);
    while (struct dirent* e = ::readdir(d)) {
      if (!std::strcmp(e->d_name, ".") || !std::strcmp(e->d_name, "..")) continue;
      if (::fnmatch(name.c_str(), e->d_name, FNM_CASEFOLD | FNM_PERIOD) != 0) continue;
      struct stat st {};
      if (::fstatat(::dirfd(d), e->d_name, &st, 0) != 0) continue;
      WIN32_FIND_DATAW data;
      FillFindData(e->d_name, st, &data);
      faults::CheckAlloc();
      f->entries.push_back(data);
    }
    if (f->entries.empty()) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    HANDLE h = InsertHandle(f.get());
    *pData = f->entries[0];
    return h;
  });
}

BOOL qlt::win::FindNextFileW(HANDLE hFind, WIN32_FIND_DATAW* pData) {
  Ref<FindObject> f = Lookup<FindObject>(hFind);
  if (!f) return FALSE;
  if (!pData) return Fail(ERROR_INVALID_PARAMETER);
  CAutoLock g(&f->lock);
  if (f->next >= f->entries.size()) return Fail(ERROR_NO_MORE_FILES);
  *pData = f->entries[f->next++];
  return TRUE;
}

BOOL qlt::win::FindClose(HANDLE hFind) {
  if (!Lookup<FindObject>(hFind)) return FALSE;
  return CloseHandle(hFind);
}
