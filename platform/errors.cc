// Last error per thread and the single errno -> Windows error table.
#include <cerrno>

#include "platform/internal.h"

namespace {
thread_local DWORD t_nLastError = 0;
}

DWORD qlt::win::GetLastError() { return t_nLastError; }
void qlt::win::SetLastError(DWORD dwErrCode) { t_nLastError = dwErrCode; }

namespace qlt::plat {

DWORD ErrnoToWin(int err) {
  switch (err) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS: return ERROR_ACCESS_DENIED;
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case ENOSPC:
    case EDQUOT: return ERROR_DISK_FULL;
    case EFBIG: return ERROR_DISK_FULL;
    case EEXIST: return ERROR_FILE_EXISTS;
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case EBUSY: return ERROR_BUSY;
    case EIO: return ERROR_GEN_FAILURE;
    case EPIPE: return ERROR_BROKEN_PIPE;
    case ESPIPE: return ERROR_INVALID_FUNCTION;
    case ETIMEDOUT: return ERROR_TIMEOUT;
    case ECONNREFUSED: return ERROR_CONNECTION_REFUSED;
    case ENOSYS:
    case EOPNOTSUPP: return ERROR_NOT_SUPPORTED;
    case EFAULT: return ERROR_NOACCESS;
    case ELOOP: return ERROR_INVALID_NAME;
    case ENXIO:
    case ENODEV: return ERROR_INVALID_DRIVE;
    case ETXTBSY: return ERROR_SHARING_VIOLATION;
    default: return ERROR_GEN_FAILURE;
  }
}

BOOL FailErrno() {
  SetLastError(ErrnoToWin(errno));
  return FALSE;
}

BOOL Fail(DWORD err) {
  SetLastError(err);
  return FALSE;
}

}  // namespace qlt::plat
