// The process-wide registry of files being written: a list of live writers
// and two tables of records that hosts publish by file name.
//
// The stores exist from library load to unload; each has its own lock, so an
// operation on one never waits for another. Names match without regard to
// case (null counts as empty), first match wins; records keep insertion
// order. Copies into and out of a table copy every value and make a new BSTR
// of the name; the destination's old name is freed first (unless it is the
// very same string). A copy that runs out of memory returns 0 and changes
// nothing. Record arguments are the caller's, keyed by their name, and their
// names must come from SysAllocString (or be null).
//
// Lock order: the writer-list lock, then a writer's own lock (taken inside
// CWriterStatusSource::CopyStatus). A writer must not call RegisterWriter or
// UnregisterWriter while it holds its own lock.
//
// Threading: every function may be called from any thread.
#ifndef QLTFSDK_POOL_REGISTRY_H
#define QLTFSDK_POOL_REGISTRY_H

#include "qltfsdk/datapoolaccess.h"

namespace qlt::pool {

// What the registry reads of a live writer. The writer implements it; the
// registry never sees the writer's own type.
class CWriterStatusSource {
 public:
  // The writer's identity, fixed for its lifetime; two sources with equal
  // GUIDs (byte for byte) are the same writer.
  virtual GUID WriterGuid() const = 0;
  // Copies the writer's status record into *pOut (an empty record: null
  // name, zero values) under the writer's own lock, with a new BSTR of its
  // file name that the caller frees. False when memory runs out (nothing
  // then needs freeing). Called with the writer-list lock held.
  virtual bool CopyStatus(QLCT_POOL_STATUS_ST* pOut) = 0;

 protected:
  ~CWriterStatusSource() = default;
};

// Adds the writer to the list unless a listed writer has the same GUID.
// The list does not own it: the writer must call UnregisterWriter before it
// ends. Returns 1 (0 when memory runs out).
int RegisterWriter(CWriterStatusSource* pWriter);
// Removes the listed writer with the same GUID. 1 when one was removed,
// else 0. Once it returns, no lookup is still reading the writer.
int UnregisterWriter(CWriterStatusSource* pWriter);
// Looks the caller's file name up among the listed writers' status records.
// On the first match, copies that record over *pStatus; sets dwFound to 1
// or 0 and returns the same.
int FindWriterStatus(QLCT_POOL_STATUS_ST* pStatus);

// Inserts a copy of *pRecord, or copies it over the record of the same name
// (whose name then takes the caller's case). 1, or 0 when copying failed.
int SetWriteFileProps(const QLCT_WRITEFILE_PROPS_ST* pRecord);
// Copies the record of the caller's name over *pRecord. 1 found, 0 not
// found (the caller's record is left as it was).
int GetWriteFileProps(QLCT_WRITEFILE_PROPS_ST* pRecord);
int SetWriteFileIndexProps(const QLCT_WRITE_FILE_INDEX_PROPS_ST* pRecord);
int GetWriteFileIndexProps(QLCT_WRITE_FILE_INDEX_PROPS_ST* pRecord);
// Removes the first record of the caller's name. 1 removed, 0 not found.
int ClearWriteFileIndexProps(const QLCT_WRITE_FILE_INDEX_PROPS_ST* pRecord);

// What a writer needs from the file-properties table when it sets up its
// write cache.
struct CacheRequest {
  bool bFound = false;  // a record of that name exists
  DWORD dwRequest = 0;  // its cache request (first value); non-zero asks for the cache
  wchar_t cDrive = 0;   // drive letter of the cache folder; 0 = the default drive
};
// Looks name up in the file-properties table (nothing is allocated, so it
// cannot fail). The drive letter is the record's third value's lowest byte
// read as a signed character, when that is above 0.
CacheRequest LookUpCacheRequest(BSTR name);

}  // namespace qlt::pool

#endif  // QLTFSDK_POOL_REGISTRY_H
