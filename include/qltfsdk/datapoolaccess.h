// QLCT_DataPoolAccess: named operations over the process-wide registry of
// files being written.
//
// Hosts publish properties of files they are about to write (for example
// that a file is to be written through a cache on a given drive), keep index
// properties per file, and ask for the status of a live writer. Every access
// object and every writer of the process sees the same registry; it lives in
// the process only and is never saved.
//
// Names are compared without regard to case (a null name counts as empty);
// the first record with the name wins. Every BSTR in these records comes
// from SysAllocString (or is null). A get overwrites the caller's record,
// name included: it frees the name the caller put there and stores a new
// copy of the stored name (in its stored case), which the caller frees with
// SysFreeString. A set copies the caller's record; the caller keeps its own.
#ifndef QLTFSDK_DATAPOOLACCESS_H
#define QLTFSDK_DATAPOOLACCESS_H

#include "qltfsdk/export.h"
#include "qltfsdk/wintypes.h"

// Properties a host publishes for a file that is about to be written.
struct QLCT_WRITEFILE_PROPS_ST {
  BSTR bstrFileName;  // the key
  DWORD dwValue1;     // cache request: non-zero makes a writer of this file use its write cache
  DWORD dwValue2;     // stored and returned unchanged
  DWORD dwValue3;     // cache drive: the lowest byte is the drive letter of the cache folder; 0 = default drive
};

// Index properties of a file: four values, stored and returned unchanged.
struct QLCT_WRITE_FILE_INDEX_PROPS_ST {
  BSTR bstrFileName;  // the key
  DWORD dwValue1;
  DWORD dwValue2;
  DWORD dwValue3;
  DWORD dwValue4;
};

// A writer's status, found by the writer's file name.
struct QLCT_POOL_STATUS_ST {
  BSTR bstrFileName;        // the key: the file the writer is writing
  DWORD dwFound;            // set by the lookup: 1 found, 0 not found
  ULONGLONG nFileLength;    // the writer's logical file size in bytes
  ULONGLONG nPendingBytes;  // bytes accepted by the writer and not yet counted as on disk
  DWORD dwEstimateMs;       // milliseconds the pending bytes are expected to take
};

class KxDataPoolAccess;

// Access objects hold no state of their own: any number may exist, on any
// threads, and all see the same registry. Every operation may be called
// from any thread.
class QLTFS_API QLCT_DataPoolAccess {
 public:
  QLCT_DataPoolAccess();
  virtual ~QLCT_DataPoolAccess();
  // A copy would share the implementation: copying is not supported.
  QLCT_DataPoolAccess(const QLCT_DataPoolAccess&) = delete;
  QLCT_DataPoolAccess& operator=(const QLCT_DataPoolAccess&) = delete;

  // Does nothing. 1.
  int Initialize();
  // Runs the operation named strName (exact name, case included) on the
  // caller's record at pData:
  //   "get_PoolStatus"            QLCT_POOL_STATUS_ST: 1 when a live writer
  //                               writes that file (record filled, dwFound
  //                               1); 0 otherwise (dwFound 0, rest kept).
  //   "set_WriteFileProps"        QLCT_WRITEFILE_PROPS_ST: inserts, or
  //                               updates the record of that name. 1.
  //   "get_WriteFileProps"        QLCT_WRITEFILE_PROPS_ST: 1 found and
  //                               copied out; 0 not found (record kept).
  //   "set_WriteFileIndexProps"   QLCT_WRITE_FILE_INDEX_PROPS_ST: as set above.
  //   "get_WriteFileIndexProps"   QLCT_WRITE_FILE_INDEX_PROPS_ST: as get above.
  //   "clear_WriteFileIndexProps" QLCT_WRITE_FILE_INDEX_PROPS_ST: 1 removed,
  //                               0 not found.
  // File-properties records are never removed. Returns 0, changing nothing,
  // for any other name, a null name or null pData, and when memory runs out
  // (last error ERROR_NOT_ENOUGH_MEMORY). The record's type must match the
  // name: the library cannot check it.
  int Operation(CComBSTR strName, void* pData);
  // Does nothing. 1.
  int UnInitialize();

 private:
  KxDataPoolAccess* m_pImpl;  // owned; null only when its allocation failed
};

#endif  // QLTFSDK_DATAPOOLACCESS_H
