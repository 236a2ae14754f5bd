// kxVirtualFile: the back-end for files of the virtual storage ("qvf:\" and
// "QVF:\" paths). It keeps one storage object of the virtual-storage library
// for its whole life and maps each operation onto it one to one; no buffering
// and no asynchronous mode of its own.
//
// Results: OpenFile gives the storage's open result (1 or more = open);
// Read the storage's byte count (0 for a negative count); GetLength the
// storage's size (0 when it reports none); SetPosition the low 32 bits of the
// position the storage reached (-1 when the storage refuses the move, e.g. with
// no file open; 0 with ERROR_NEGATIVE_SEEK for a negative position, which is
// not passed on); Write 1 when the storage took every byte, 0 when it took
// fewer (a full disk, a failed write: the storage's last error stays);
// EnableAsyncRead/Write 1 (0 with ERROR_INVALID_PARAMETER for a capacity
// below KxAsyncFileAccess::kMinAsyncBufferSize, as on the other back-ends);
// CloseFile, SetReadBufferSize and GetAccessMode (which leaves its argument
// alone) return 1. When the library cannot be loaded or its object cannot be
// made, every operation returns 0 instead. A failed open, a short read, a seek
// that lands elsewhere and a size below 64 bytes write an error-log entry
// while LogFileOn is set.
//
// Threads: one caller thread at a time; no thread of its own.
#ifndef QLTFSDK_ACCESS_KX_VIRTUAL_FILE_H
#define QLTFSDK_ACCESS_KX_VIRTUAL_FILE_H

#include <string>

#include "access/kx_file_access_base.h"
#include "diagnostics/error_entries.h"
#include "diagnostics/log_file_writer2.h"

class CQVFVirtualFile;

class kxVirtualFile : public KxFileAccessBase {
 public:
  // Loads the library if needed and makes the storage object.
  kxVirtualFile();
  // Ends the storage object (closing its file).
  ~kxVirtualFile() override;

  int OpenFile(CComBSTR strPath, DWORD nMode) override;
  ULONGLONG GetLength() override;
  int EnableAsyncWrite(int bEnable, int nBufferSize) override { return EnableAsync(nBufferSize); }
  int EnableAsyncRead(int bEnable, int nBufferSize) override { return EnableAsync(nBufferSize); }
  int GetAccessMode(DWORD& nMode) override { return m_pVirtualFile ? 1 : 0; }
  int SetReadBufferSize(DWORD nSize) override { return m_pVirtualFile ? 1 : 0; }
  int Read(BYTE* pBuffer, int nCount) override;
  __int64 GetPosition() override;
  int SetPosition(__int64 nPos) override;
  int Write(const BYTE* pBuffer, int nCount) override;
  int CloseFile() override;

 private:
  void LogEntry(const CErrorLogEntry& entry);
  // Reads and writes stay synchronous; only the capacity is checked.
  int EnableAsync(int nBufferSize);

  CQVFVirtualFile* m_pVirtualFile = nullptr;  // owned; null when it could not be made
  CLogFileWriter2 m_errorLog;
  std::wstring m_strPath;  // caller thread only
};

#endif  // QLTFSDK_ACCESS_KX_VIRTUAL_FILE_H
