// File identity: whether two paths name one file, whatever their spelling.
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "platform/internal.h"

namespace {

// Device and inode of the file a Windows-shaped path names, following
// symbolic links; false with the last error set when it cannot be found.
bool Identity(LPCWSTR path, dev_t* pDevice, ino_t* pInode) {
  std::string native;
  if (!qlt::plat::TranslatePath(path, &native)) return false;
  struct stat st {};
  if (::stat(native.c_str(), &st) != 0) {
    qlt::plat::FailErrno();
    return false;
  }
  *pDevice = st.st_dev;
  *pInode = st.st_ino;
  return true;
}

}  // namespace

extern "C" BOOL QltSameFile(LPCWSTR a, LPCWSTR b) {
  try {
    dev_t devA = 0, devB = 0;
    ino_t inoA = 0, inoB = 0;
    if (!Identity(a, &devA, &inoA) || !Identity(b, &devB, &inoB)) return FALSE;
    SetLastError(ERROR_SUCCESS);
    return devA == devB && inoA == inoB ? TRUE : FALSE;
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
}
