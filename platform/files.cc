// File handles: open with Windows dispositions and share modes, read, write,
// seek, size, truncate, flush and close.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <vector>

#include "platform/internal.h"

namespace qlt::plat {
namespace {

struct FileObject : KObject {
  ~FileObject() override {
    if (fd >= 0) ::close(fd);
  }
  BOOL OnClose() override;
  int fd = -1;       // owned; closed by OnClose when no call is in flight, else by the last one
  std::string path;  // native path, for fault matching
  DWORD access = 0;  // GENERIC_* asked for
  DWORD share = 0;   // FILE_SHARE_* granted to others
  dev_t dev = 0;
  ino_t ino = 0;
  bool deleteOnClose = false;
  bool direct = false;      // opened with O_DIRECT: a short read means end of file
  HANDLE handle = nullptr;  // the handle naming it, for fault rules; set before the handle is returned
  bool shared = false;      // has an entry in the share table (guarded by ShareLock())
};

// Opens of one file by this process, for share-mode checks. Guarded by
// ShareLock(), which is also held across an open so that the check and the
// open form one step.
struct OpenEntry {
  DWORD access;
  DWORD share;
  const FileObject* owner;
};
CRITICAL_SECTION& ShareLock() {
  static CRITICAL_SECTION* m = new CRITICAL_SECTION;
  return *m;
}
std::map<std::pair<dev_t, ino_t>, std::vector<OpenEntry>>& ShareTable() {
  static auto* t = new std::map<std::pair<dev_t, ino_t>, std::vector<OpenEntry>>;
  return *t;
}

bool Wants(DWORD access, DWORD bit) { return (access & (bit | GENERIC_ALL)) != 0; }

bool ShareConflictLocked(dev_t dev, ino_t ino, DWORD access, DWORD share) REQUIRES(ShareLock()) {
  auto it = ShareTable().find({dev, ino});
  if (it == ShareTable().end()) return false;
  for (const OpenEntry& e : it->second) {
    if (Wants(access, GENERIC_READ) && !(e.share & FILE_SHARE_READ)) return true;
    if (Wants(access, GENERIC_WRITE) && !(e.share & FILE_SHARE_WRITE)) return true;
    if (Wants(e.access, GENERIC_READ) && !(share & FILE_SHARE_READ)) return true;
    if (Wants(e.access, GENERIC_WRITE) && !(share & FILE_SHARE_WRITE)) return true;
  }
  return false;
}

Ref<FileObject> FileOf(HANDLE h) { return Lookup<FileObject>(h); }

// Drops f's entry from the share table.
void UnshareLocked(FileObject* f) REQUIRES(ShareLock()) {
  if (!f->shared) return;
  f->shared = false;
  auto it = ShareTable().find({f->dev, f->ino});
  if (it == ShareTable().end()) return;
  auto& v = it->second;
  for (size_t i = 0; i < v.size(); ++i)
    if (v[i].owner == f) {
      v.erase(v.begin() + static_cast<long>(i));
      break;
    }
  if (v.empty()) ShareTable().erase(it);
}

// Applies a matching fault rule. Returns true when the call must fail now
// (last error set); *limit is lowered for a short transfer, and *failAfter
// receives the error a transfer ends with after its bytes moved.
bool InjectFault(unsigned op, const FileObject* f, DWORD* limit, DWORD* failAfter = nullptr) {
  if (!faults::Armed()) return false;
  faults::Outcome o{};
  static const std::string kNoPath;
  if (!faults::Match(op, f ? f->path : kNoPath, f ? f->handle : nullptr, &o)) return false;
  if (o.action == qlt::fault::Action::kFail) {
    SetLastError(o.error);
    return true;
  }
  const bool bPartial = o.action == qlt::fault::Action::kPartialFail && limit && failAfter;
  if ((o.action == qlt::fault::Action::kShort || bPartial) && limit && *limit > o.shortBytes) *limit = o.shortBytes;
  if (bPartial) *failAfter = o.error;
  return false;
}

// The handle is gone: release the share entry (so the file can be opened
// again at once) and close the descriptor, unless a read or write on another
// thread still uses it; then the last of those closes it, and this close
// reports success.
BOOL FileObject::OnClose() {
  bool fail = InjectFault(qlt::fault::kClose, this, nullptr);
  DWORD err = GetLastError();
  {
    CAutoLock g(&ShareLock());
    UnshareLocked(this);
    if (deleteOnClose) ::unlink(path.c_str());
  }
  int rc = 0, closeErr = 0;
  if (LastReference()) {
    rc = ::close(fd);
    closeErr = errno;
    fd = -1;
  }
  if (fail) return Fail(err);
  if (rc != 0 && closeErr != EINTR) return Fail(ErrnoToWin(closeErr));
  return TRUE;
}

}  // namespace

}  // namespace qlt::plat

using namespace qlt::plat;

HANDLE qlt::win::CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode, LPSECURITY_ATTRIBUTES /*sa*/,
                             DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes, HANDLE /*hTemplateFile*/) {
  return NoThrow(INVALID_HANDLE_VALUE, [&]() -> HANDLE {
    std::string path;
    if (!TranslatePath(lpFileName, &path)) return INVALID_HANDLE_VALUE;
    if (path.empty()) {
      SetLastError(ERROR_PATH_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    if (faults::InjectPathFault(qlt::fault::kOpen, path)) return INVALID_HANDLE_VALUE;

    int flags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    bool rd = Wants(dwDesiredAccess, GENERIC_READ), wr = Wants(dwDesiredAccess, GENERIC_WRITE);
    flags |= (rd && wr) ? O_RDWR : (wr ? O_WRONLY : O_RDONLY);
    switch (dwCreationDisposition) {
      case CREATE_NEW: flags |= O_CREAT | O_EXCL; break;
      case CREATE_ALWAYS: flags |= O_CREAT; break;  // truncated below, after the share check
      case OPEN_EXISTING: break;
      case OPEN_ALWAYS: flags |= O_CREAT; break;
      case TRUNCATE_EXISTING:
        if (!wr) {
          SetLastError(ERROR_INVALID_PARAMETER);
          return INVALID_HANDLE_VALUE;
        }
        break;
      default: SetLastError(ERROR_INVALID_PARAMETER); return INVALID_HANDLE_VALUE;
    }
    if (dwFlagsAndAttributes & FILE_FLAG_WRITE_THROUGH) flags |= O_DSYNC;

    // Everything that can run out of memory before the file is touched.
    auto f = std::make_unique<FileObject>();
    f->path = path;
    faults::CheckAlloc();

    CAutoLock g(&ShareLock());
    struct stat before {};
    bool existed = ::stat(path.c_str(), &before) == 0;
    if (existed && S_ISDIR(before.st_mode)) {
      SetLastError(ERROR_ACCESS_DENIED);
      return INVALID_HANDLE_VALUE;
    }
    if (existed && ShareConflictLocked(before.st_dev, before.st_ino, dwDesiredAccess, dwShareMode)) {
      SetLastError(ERROR_SHARING_VIOLATION);
      return INVALID_HANDLE_VALUE;
    }
    int fd = -1;
    bool direct = false;
    if (dwFlagsAndAttributes & FILE_FLAG_NO_BUFFERING) {
      fd = ::open(path.c_str(), flags | O_DIRECT, 0644);
      direct = fd >= 0;
      if (fd < 0 && errno == EINVAL)
        fd = -1;  // the file system refuses direct I/O: open buffered
      else if (fd < 0)
        return SetLastError(ErrnoToWin(errno)), INVALID_HANDLE_VALUE;
    }
    if (fd < 0) fd = ::open(path.c_str(), flags, 0644);
    if (fd < 0) {
      DWORD err = ErrnoToWin(errno);
      if (errno == ENOENT && dwCreationDisposition != OPEN_EXISTING && dwCreationDisposition != TRUNCATE_EXISTING)
        err = ERROR_PATH_NOT_FOUND;  // creating: the missing part is the folder
      if (errno == EEXIST) err = ERROR_FILE_EXISTS;
      SetLastError(err);
      return INVALID_HANDLE_VALUE;
    }
    f->fd = fd;  // from here the object closes it on every path
    // Opened without waiting (a FIFO would otherwise block the open until its
    // other end appears); reads and writes wait as usual from here on.
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    if ((dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == TRUNCATE_EXISTING) && existed) {
      if (::ftruncate(fd, 0) != 0) {
        SetLastError(ErrnoToWin(errno));
        return INVALID_HANDLE_VALUE;
      }
    }
    if (dwFlagsAndAttributes & FILE_FLAG_SEQUENTIAL_SCAN) ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    if (dwFlagsAndAttributes & FILE_FLAG_RANDOM_ACCESS) ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);

    struct stat st {};
    ::fstat(fd, &st);
    f->access = dwDesiredAccess;
    f->share = dwShareMode;
    f->dev = st.st_dev;
    f->ino = st.st_ino;
    f->deleteOnClose = (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0;
    f->direct = direct;
    auto& entries = ShareTable()[{f->dev, f->ino}];
    try {
      entries.push_back(OpenEntry{dwDesiredAccess, dwShareMode, f.get()});
      f->shared = true;
      HANDLE h = InsertHandle(f.get());
      f->handle = h;
      f.release()->Release();  // the table holds it now
      bool reportExisted = existed && (dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == OPEN_ALWAYS);
      SetLastError(reportExisted ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
      return h;
    } catch (...) {
      if (f->shared)
        UnshareLocked(f.get());  // also drops the file's entry when it was the only one
      else if (entries.empty())
        ShareTable().erase({f->dev, f->ino});
      throw;
    }
  });
}

BOOL qlt::win::ReadFile(HANDLE h, LPVOID buf, DWORD n, LPDWORD pRead, LPOVERLAPPED ov) {
  if (pRead) *pRead = 0;
  Ref<FileObject> f = FileOf(h);
  if (!f) return FALSE;
  if (!Wants(f->access, GENERIC_READ)) return Fail(ERROR_ACCESS_DENIED);
  if (!buf && n > 0) return Fail(ERROR_NOACCESS);
  DWORD limit = n;
  if (InjectFault(qlt::fault::kRead, f.get(), &limit)) return FALSE;
  auto* p = static_cast<char*>(buf);
  off_t at = ov ? static_cast<off_t>((static_cast<uint64_t>(ov->OffsetHigh) << 32) | ov->Offset) : 0;
  DWORD done = 0;
  while (done < limit) {
    ssize_t r = ov ? ::pread(f->fd, p + done, limit - done, at + done) : ::read(f->fd, p + done, limit - done);
    if (r < 0) {
      if (errno == EINTR) continue;
      if (pRead) *pRead = done;
      return FailErrno();
    }
    if (r == 0) break;
    done += static_cast<DWORD>(r);
    // A direct read that comes back short has reached the end of the file;
    // asking again would use an unaligned offset, which may be refused.
    if (f->direct && done < limit) break;
  }
  if (ov) ::lseek(f->fd, at + done, SEEK_SET);
  if (pRead) *pRead = done;
  return TRUE;
}

BOOL qlt::win::WriteFile(HANDLE h, LPCVOID buf, DWORD n, LPDWORD pWritten, LPOVERLAPPED ov) {
  if (pWritten) *pWritten = 0;
  Ref<FileObject> f = FileOf(h);
  if (!f) return FALSE;
  if (!Wants(f->access, GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (!buf && n > 0) return Fail(ERROR_NOACCESS);
  DWORD limit = n;
  DWORD failAfter = 0;
  if (InjectFault(qlt::fault::kWrite, f.get(), &limit, &failAfter)) return FALSE;
  const auto* p = static_cast<const char*>(buf);
  off_t at = ov ? static_cast<off_t>((static_cast<uint64_t>(ov->OffsetHigh) << 32) | ov->Offset) : 0;
  DWORD done = 0;
  while (done < limit) {
    ssize_t w = ov ? ::pwrite(f->fd, p + done, limit - done, at + done) : ::write(f->fd, p + done, limit - done);
    if (w < 0) {
      if (errno == EINTR) continue;
      if (pWritten) *pWritten = done;
      return FailErrno();
    }
    if (w == 0) {
      if (pWritten) *pWritten = done;
      return Fail(ERROR_DISK_FULL);
    }
    done += static_cast<DWORD>(w);
  }
  if (ov) ::lseek(f->fd, at + done, SEEK_SET);
  if (pWritten) *pWritten = done;
  if (failAfter != 0) return Fail(failAfter);
  return TRUE;
}

BOOL qlt::win::SetFilePointerEx(HANDLE h, LARGE_INTEGER distance, PLARGE_INTEGER pNewPos, DWORD method) {
  Ref<FileObject> f = FileOf(h);
  if (!f) return FALSE;
  if (InjectFault(qlt::fault::kSeek, f.get(), nullptr)) return FALSE;
  int whence = method == FILE_BEGIN ? SEEK_SET : method == FILE_CURRENT ? SEEK_CUR : method == FILE_END ? SEEK_END : -1;
  if (whence < 0) return Fail(ERROR_INVALID_PARAMETER);
  off_t target = static_cast<off_t>(distance.QuadPart);
  if (whence != SEEK_SET) {
    off_t base = whence == SEEK_CUR ? ::lseek(f->fd, 0, SEEK_CUR) : ::lseek(f->fd, 0, SEEK_END);
    if (base < 0) return FailErrno();
    if (__builtin_add_overflow(base, target, &target)) return Fail(ERROR_INVALID_PARAMETER);
  }
  if (target < 0) return Fail(ERROR_NEGATIVE_SEEK);
  off_t r = ::lseek(f->fd, target, SEEK_SET);
  if (r < 0) return FailErrno();
  if (pNewPos) pNewPos->QuadPart = r;
  return TRUE;
}

DWORD qlt::win::SetFilePointer(HANDLE h, LONG distanceLow, LONG* pDistanceHigh, DWORD method) {
  LARGE_INTEGER d, pos{};
  if (pDistanceHigh)
    d.QuadPart = static_cast<LONGLONG>((static_cast<uint64_t>(static_cast<uint32_t>(*pDistanceHigh)) << 32) |
                                       static_cast<uint32_t>(distanceLow));
  else
    d.QuadPart = distanceLow;
  if (!SetFilePointerEx(h, d, &pos, method)) return INVALID_SET_FILE_POINTER;
  if (pDistanceHigh) *pDistanceHigh = pos.u.HighPart;
  SetLastError(ERROR_SUCCESS);
  return pos.u.LowPart;
}

BOOL qlt::win::GetFileSizeEx(HANDLE h, PLARGE_INTEGER pSize) {
  Ref<FileObject> f = FileOf(h);
  if (!f) return FALSE;
  if (!pSize) return Fail(ERROR_INVALID_PARAMETER);
  if (InjectFault(qlt::fault::kSize, f.get(), nullptr)) return FALSE;
  struct stat st {};
  if (::fstat(f->fd, &st) != 0) return FailErrno();
  pSize->QuadPart = st.st_size;
  return TRUE;
}

DWORD qlt::win::GetFileSize(HANDLE h, LPDWORD pHigh) {
  LARGE_INTEGER s{};
  if (!GetFileSizeEx(h, &s)) return INVALID_FILE_SIZE;
  if (pHigh) *pHigh = static_cast<DWORD>(s.u.HighPart);
  SetLastError(ERROR_SUCCESS);
  return s.u.LowPart;
}

BOOL qlt::win::SetEndOfFile(HANDLE h) {
  Ref<FileObject> f = FileOf(h);
  if (!f) return FALSE;
  if (!Wants(f->access, GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (InjectFault(qlt::fault::kSetEnd, f.get(), nullptr)) return FALSE;
  off_t pos = ::lseek(f->fd, 0, SEEK_CUR);
  if (pos < 0) return FailErrno();
  if (::ftruncate(f->fd, pos) != 0) return FailErrno();
  return TRUE;
}

BOOL qlt::win::FlushFileBuffers(HANDLE h) {
  Ref<FileObject> f = FileOf(h);
  if (!f) return FALSE;
  if (InjectFault(qlt::fault::kFlush, f.get(), nullptr)) return FALSE;
  if (!Wants(f->access, GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (::fdatasync(f->fd) != 0) return FailErrno();
  return TRUE;
}

BOOL QltStartWriteBack(HANDLE h, ULONGLONG offset, ULONGLONG length) {
  Ref<FileObject> f = FileOf(h);
  if (!f) return FALSE;
  if (!Wants(f->access, GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (offset > static_cast<ULONGLONG>(INT64_MAX) || length > static_cast<ULONGLONG>(INT64_MAX) - offset)
    return Fail(ERROR_INVALID_PARAMETER);
  // Only queues the range's dirty pages for writing; waits neither before
  // nor after.
  if (::sync_file_range(f->fd, static_cast<off64_t>(offset), static_cast<off64_t>(length), SYNC_FILE_RANGE_WRITE) != 0)
    return FailErrno();
  return TRUE;
}

BOOL qlt::win::DeleteFileW(LPCWSTR path) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::string p;
    if (!TranslatePath(path, &p)) return FALSE;
    if (faults::InjectPathFault(qlt::fault::kDelete, p)) return FALSE;
    CAutoLock g(&ShareLock());
    struct stat st {};
    if (::lstat(p.c_str(), &st) != 0) return FailErrno();
    if (S_ISDIR(st.st_mode)) return Fail(ERROR_ACCESS_DENIED);
    auto it = ShareTable().find({st.st_dev, st.st_ino});
    if (it != ShareTable().end())
      for (const OpenEntry& e : it->second)
        if (!(e.share & FILE_SHARE_DELETE)) return Fail(ERROR_SHARING_VIOLATION);
    if (::unlink(p.c_str()) != 0) return FailErrno();
    return TRUE;
  });
}

BOOL qlt::win::MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags) {
  return NoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::string a, b;
    if (!TranslatePath(from, &a) || !TranslatePath(to, &b)) return FALSE;
    CAutoLock g(&ShareLock());
    // As on Windows, a file open without FILE_SHARE_DELETE can be neither
    // moved nor replaced.
    for (const std::string* p : {&a, &b}) {
      struct stat st {};
      if (::lstat(p->c_str(), &st) != 0) continue;
      auto it = ShareTable().find({st.st_dev, st.st_ino});
      if (it != ShareTable().end())
        for (const OpenEntry& e : it->second)
          if (!(e.share & FILE_SHARE_DELETE)) return Fail(ERROR_SHARING_VIOLATION);
    }
    int rc;
    if (flags & MOVEFILE_REPLACE_EXISTING) {
      struct stat st {};
      if (::stat(b.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return Fail(ERROR_ACCESS_DENIED);
      rc = ::rename(a.c_str(), b.c_str());
    } else {
      // One step, so a file appearing at the destination meanwhile is not replaced.
      rc = ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_NOREPLACE);
      if (rc != 0 && (errno == EINVAL || errno == ENOSYS)) {  // the file system lacks it
        struct stat st {};
        if (::lstat(b.c_str(), &st) == 0) return Fail(ERROR_ALREADY_EXISTS);
        rc = ::rename(a.c_str(), b.c_str());
      }
    }
    if (rc == 0) return TRUE;
    if (errno == EEXIST) return Fail(ERROR_ALREADY_EXISTS);
    if (errno == EXDEV) return Fail(ERROR_NOT_SAME_DEVICE);
    return FailErrno();
  });
}
