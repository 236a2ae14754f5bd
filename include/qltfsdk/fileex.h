// QLCT_FileEx: the safe file writer.
//
// A host creates a writer with QLCT_CreateFileExObj, calls Initialize once
// with an access-information record, then creates (CreateKXFile) or attaches
// (Attach) one file, writes it with calls shaped like the platform's file
// calls, seeks, asks sizes, reads back and closes it. CloseHandle says
// whether every byte the writer accepted reached the file. The same object
// may then open another file; QLCT_DeleteFileExObj ends it.
//
// The writer gathers the host's bytes into whole write blocks of the size
// registered for the file (QLT_WriterOption::SetWriteBlockSize), so the file
// system sees only whole blocks while the file is written sequentially; it
// allocates a file at its registered preset size
// (QLT_WriterOption2::SetPresetFileSize) in managed mode and trims it at
// close to the furthest byte written; it forces a flush to disk whenever more
// than 16 MiB have been written since the last one; and when the settings ask
// for retries (WriteRetryCount) it flushes every block and rewrites a failed
// block after reopening the file and seeking back to where that block was to
// be written.
//
// Paths with an "ftp://" or "oss://" scheme (any letter case) are written
// through the web-file plug-in; paths holding "qvf:\" or "QVF:\" through the
// virtual storage.
//
// Results: every operation returns 0 for failure (CreateKXFile returns 0,
// not INVALID_HANDLE_VALUE), and every operation returns 0 without doing
// anything while the writer has no implementation (before Initialize) or no
// file. Nothing thrown inside an operation reaches the host; out of memory
// fails the call with last error ERROR_NOT_ENOUGH_MEMORY.
//
// Threads: one writer serves one host thread at a time. Different writers
// may be used from different threads at once.
#ifndef QLTFSDK_FILEEX_H
#define QLTFSDK_FILEEX_H

#include "qltfsdk/export.h"
#include "qltfsdk/wintypes.h"

// The access-information record handed to Initialize (the writer copies it).
// The fields stand in this order; their widths are fixed (the disk-pool
// folder is a BSTR pointer).
struct QLCT_FIlEACCESSINFO_ST {
  int32_t nCacheMode;      // 0: no write cache; 1: memory cache; other: memory and disk cache
  int32_t nOpMode;         // 2: managed mode (preset size, own counters, trim at close)
  int32_t nReserved;       // unused
  DWORD dwMemoryPoolSize;  // bytes; write cache memory pool (default 32 MiB)
  BSTR bstrDiskPoolPath;   // write cache disk folder; filled by the writer itself
  DWORD dwDiskPoolSize;    // bytes; handed to the cache with the folder (default 4 MiB)
  DWORD dwWriteCacheSize;  // bytes; the cache's write cache (default 16 MiB)
};

class KxFileEx;

class QLTFS_API QLCT_FileEx {
 public:
  // A writer without implementation and without file: call Initialize.
  QLCT_FileEx();
  // Closes an open file (as CloseHandle), then destroys the implementation.
  virtual ~QLCT_FileEx();
  // A copy would share the implementation: copying is not supported.
  QLCT_FileEx(const QLCT_FileEx&) = delete;
  QLCT_FileEx& operator=(const QLCT_FileEx&) = delete;

  // Makes the implementation and copies *pInfo into it (null keeps the
  // defaults: no cache, operating mode 1, 32 MiB memory pool, 4 MiB disk
  // pool, 16 MiB write cache). Returns 1, or 0 when out of memory (the
  // writer then stays without implementation). Calling it again replaces
  // the implementation, closing an open file first.
  virtual BOOL Initialize(QLCT_FIlEACCESSINFO_ST* pInfo);
  // Opens the file with the platform's file-creation arguments (the host's
  // flags pass through unchanged; for a web file the security-attributes
  // argument carries the option text "PublicWebFile" and/or "PutMode":
  // nLength is its length in bytes, lpSecurityDescriptor points to the
  // narrow characters). Returns the file's handle, or 0 for failure. The
  // writer owns the handle: CloseHandle closes it. A file still open on this
  // writer is first closed as CloseHandle would close it. A failed open
  // leaves no trace: a file it created is removed, a preset allocation is
  // undone, and the last error names the cause (ERROR_INVALID_PARAMETER for
  // cache sizes that cannot work).
  virtual HANDLE CreateKXFile(CComBSTR strFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                              LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                              DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
  // Gives the writer a local file the host opened itself (for writing);
  // strFileName is its name (for the registered options and the retry's
  // reopen). The writer then owns the handle: CloseHandle closes it, and so
  // does a failed Attach. Writing goes on from the handle's position. A file
  // still open on this writer is first closed as CloseHandle would close it.
  // Returns non-zero on success.
  virtual BOOL Attach(HANDLE hFile, CComBSTR strFileName);
  // Size of the file: in managed mode the writer's own count of the bytes
  // written (staged bytes included); otherwise the file system's. Low 32
  // bits, the high part through pHigh when given; INVALID_FILE_SIZE and
  // a last error on failure.
  virtual DWORD GetFileSize(LPDWORD pHigh);
  virtual BOOL GetFileSizeEx(PLARGE_INTEGER pSize);
  // Moves the file pointer (staged bytes are written out first). In managed
  // mode FILE_END counts from the furthest byte written. The
  // distance is pDistanceHigh:lDistance when pDistanceHigh is given, else
  // lDistance as a signed value. Returns the low 32 bits of the new
  // position (high part through pDistanceHigh), INVALID_SET_FILE_POINTER
  // on failure.
  virtual DWORD SetFilePointer(LONG lDistance, LONG* pDistanceHigh, DWORD dwMoveMethod);
  virtual BOOL SetFilePointerEx(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod);
  // Reads from the file at its pointer: bytes still staged are not seen.
  virtual BOOL ReadFile(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped);
  // Accepts nLength bytes. pWritten (when given) receives nLength whenever
  // the bytes were accepted, also when writing a block failed; the result
  // is 0 then. With a write cache the result is 0 (last error set) once the
  // cache has failed to write earlier bytes. dwUserData (0 for none) joins
  // the user-data list.
  virtual BOOL WriteFile(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, LPOVERLAPPED pOverlapped, DWORD dwUserData);
  // The same with user data 0.
  virtual BOOL WriteFile(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, LPOVERLAPPED pOverlapped);
  // Writes out the staged bytes, trims a preset file to the furthest byte
  // written, forgets the file's registered options and closes the file.
  // Returns 1 when the file was closed and every write since it was opened
  // succeeded (those made by a write cache included), else 0 with the first
  // failure's last error. The writer has no file afterwards in either case.
  virtual BOOL CloseHandle();

  // Copies the user data of the writes so far into list: mode 0 only the
  // newest value, mode 1 all of them, oldest first. Returns 1; 0 when there
  // is none yet (list untouched) or for another mode (list emptied). For a
  // web or virtual-storage file returns 1 and leaves the list alone.
  BOOL GetUserDataList(CArray<DWORD, DWORD>& list, int nMode);

 private:
  HANDLE m_hFile;     // the open file's handle; 0 when none
  KxFileEx* m_pImpl;  // owned; null until Initialize
};

// Allocates a writer (without implementation). Null when out of memory.
QLTFS_API QLCT_FileEx* QLCT_CreateFileExObj();
// Replaces the process's WriteRetryCount and WriteRetryTime settings (read
// from qltfsdk.ini at load) for writes from now on: with nCount above 0
// every block is flushed and a failed block is rewritten after reopening the
// file, up to nCount times, waiting nWaitMs after each failed reopen. For
// tools that take these from their command line. Returns 1. Any thread;
// writes already running may see the old or the new values.
QLTFS_API BOOL QLT_SetWriteRetrySettings(int nCount, int nWaitMs);

// Destroys a writer made by QLCT_CreateFileExObj, closing its file first.
// Returns 1 (also for null), 0 when something failed during destruction.
QLTFS_API BOOL QLCT_DeleteFileExObj(QLCT_FileEx* pFileEx);

#endif  // QLTFSDK_FILEEX_H
