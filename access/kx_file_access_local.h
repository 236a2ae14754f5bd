// KxFileAccessLocal: the back-end for files the platform opens by path (local
// disks and network shares).
//
// Mode 1 opens an existing file for reading (without system buffering when
// the ReadMode setting is 1), mode 2 creates or empties a file for writing.
// Reads go through a block cache filled in whole blocks of the process-wide
// read block size (ReadBufSize); optionally a worker reads ahead or writes
// behind through a ring (KxAsyncFileAccess). Failed platform calls are
// written to the error log while LogFileOn is set.
//
// Results: see KxFileAccessBase; in short 1/0 for OpenFile, SetPosition,
// CloseFile (0 also when a direct write came up short since the open), bytes
// for Read and Write, 0 for every transfer with no open file, a negative
// count with a buffer, or a null buffer to Write.
//
// Threads: one caller thread at a time; in asynchronous mode the worker owns
// the cache and the positions while it runs (the caller touches only the
// ring), and every operation that needs them stops the worker first.
#ifndef QLTFSDK_ACCESS_KX_FILE_ACCESS_LOCAL_H
#define QLTFSDK_ACCESS_KX_FILE_ACCESS_LOCAL_H

#include <string>

#include "access/kx_async_file_access.h"
#include "diagnostics/error_entries.h"
#include "diagnostics/log_file_writer2.h"

class KxFileAccessLocal : public KxAsyncFileAccess {
 public:
  // Transfer size of the read-ahead worker: 3 MiB, a whole number of
  // blocks; unbuffered, 3 MiB reads ran about a third faster than 1.5 MiB.
  static constexpr int kReadAheadChunk = 0x300000;

  KxFileAccessLocal();
  // Closes the file (joining any worker) and frees the cache.
  ~KxFileAccessLocal() override;

  int OpenFile(CComBSTR strPath, DWORD nMode) override;
  // Read-ahead and write-behind (KxAsyncFileAccess::AsyncEnable): 0 with
  // ERROR_INVALID_PARAMETER for a capacity below kMinAsyncBufferSize, and
  // nothing changes then.
  int EnableAsyncWrite(int bEnable, int nBufferSize) override;
  int EnableAsyncRead(int bEnable, int nBufferSize) override;
  int GetAccessMode(DWORD& nMode) override;
  // Sets ReadBufSize for the whole process; 0 for size 0 or above 1 GiB.
  int SetReadBufferSize(DWORD nSize) override;
  int Read(BYTE* pBuffer, int nCount) override;
  __int64 GetPosition() override;
  // 1 when moved; 0 when the move failed, and 0 with ERROR_NEGATIVE_SEEK,
  // nothing changed, for a negative position.
  int SetPosition(__int64 nPos) override;
  int Write(const BYTE* pBuffer, int nCount) override;
  int CloseFile() override;

 protected:
  int WorkerRead(BYTE* pBuffer, int nCount) override {
    // DirectRead answers 0 both at the end and on a failure; only a failure
    // sets the last error.
    SetLastError(ERROR_SUCCESS);
    int nRead = DirectRead(pBuffer, nCount);
    return nRead == 0 && GetLastError() != ERROR_SUCCESS ? -1 : nRead;
  }
  int WorkerWrite(const BYTE* pBuffer, int nCount) override { return DirectWrite(pBuffer, nCount); }
  void ResumeAt(__int64 nFilePos) override;
  __int64 CurrentReadPosition() override { return m_nLogicalPos; }

 private:
  bool HasFile() const { return m_hFile != nullptr && m_hFile != INVALID_HANDLE_VALUE; }
  int DirectRead(BYTE* pBuffer, int nCount);
  int DirectWrite(const BYTE* pBuffer, int nCount);
  // Moves the read position (and the pointer) to nPos; bAsyncEntry names
  // nPos itself, not the aligned position, in a failure's log entry.
  int SyncSetPosition(__int64 nPos, bool bAsyncEntry);
  bool MovePointer(__int64 nPos, __int64* pNewPos);
  bool GrowCache(__int64 nNeed);
  void LogEntry(const CErrorLogEntry& entry);

  // All fields: caller thread, or the worker while one runs (see the class
  // comment); never both at once.
  HANDLE m_hFile = nullptr;  // 0 none, INVALID_HANDLE_VALUE after a failed open
  std::wstring m_strPath;
  bool m_bUnbuffered = false;  // opened without system buffering
  __int64 m_nLogicalPos = 0;
  __int64 m_nDiskPos = 0;
  BYTE* m_pReadCache = nullptr;  // 4,096-aligned; grows only
  __int64 m_nReadCacheCapacity = 0;
  __int64 m_nReadCacheStart = 0;
  DWORD m_nReadCacheLen = 0;
  __int64 m_nShortWrites = 0;
  CLogFileWriter2 m_errorLog;  // thread-safe itself
};

#endif  // QLTFSDK_ACCESS_KX_FILE_ACCESS_LOCAL_H
