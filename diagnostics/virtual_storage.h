// How the SDK reaches the virtual-storage library (QVFVirtualFileU).
//
// The library is found by name at run time, never linked, so the SDK keeps
// working without it: opens of "qvf:\" paths then fail and existence checks
// answer 0. The SDK allocates each CQVFVirtualFile itself, has the library's
// constructor run on that memory, and afterwards calls the object only
// through its virtual operations (see companions/virtualfile/qvf_virtual_file.h).
// The library stays loaded once loaded; it is never released.
//
// All functions may be called from any thread.
#ifndef QLTFSDK_DIAGNOSTICS_VIRTUAL_STORAGE_H
#define QLTFSDK_DIAGNOSTICS_VIRTUAL_STORAGE_H

#include "companions/virtualfile/qvf_virtual_file.h"

// True when path holds "qvf:\" or "QVF:\" anywhere (exactly these two
// forms: "Qvf:\" is a plain path). False for null.
bool QltIsVirtualStoragePath(LPCWSTR path);

// A new, closed virtual-storage object that the caller owns and ends with
// QltDeleteVirtualFile. Null, with the last error set, when the library or
// its "QltConstructVirtualFile" cannot be found (ERROR_MOD_NOT_FOUND,
// ERROR_PROC_NOT_FOUND) or memory runs out (ERROR_NOT_ENOUGH_MEMORY).
CQVFVirtualFile* QltNewVirtualFile();

// Ends an object made by QltNewVirtualFile (closing its file) through its
// virtual Destroy(1), which also frees the memory. Null is ignored.
void QltDeleteVirtualFile(CQVFVirtualFile* pFile);

// The library's "IsFileExistExW" for path: non-zero when the storage file
// exists. 0 when the library or the function cannot be found.
int QltVirtualFileExists(LPCWSTR path);

#endif  // QLTFSDK_DIAGNOSTICS_VIRTUAL_STORAGE_H
