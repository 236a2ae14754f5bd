// CEasyFileAccess: the read-only back-end over the utility library's
// easy-file reader (QLT_EasyFile). The facade gives it every plain path
// opened for reading.
//
// One reader object per open file, created by OpenFile(path, 1) and destroyed
// by CloseFile. Results are the reader's own, passed on unchanged (its Read
// gives -1 for a null buffer, a negative count or a failed open); with no
// reader every operation returns 0. Writing, asynchronous modes and other
// access modes are refused with 0; GetAccessMode returns 1 and leaves its
// argument alone. Writes no error-log entries.
//
// Threads: one caller thread at a time; no thread of its own.
#ifndef QLTFSDK_ACCESS_EASY_FILE_ACCESS_H
#define QLTFSDK_ACCESS_EASY_FILE_ACCESS_H

#include "access/kx_file_access_base.h"

class QLT_EasyFile;

class CEasyFileAccess : public KxFileAccessBase {
 public:
  CEasyFileAccess() = default;
  ~CEasyFileAccess() override;

  // Mode 1: closes any reader, makes a new one and returns its Open result
  // (0 also when the reader cannot be allocated). Other modes: 0, nothing made.
  int OpenFile(CComBSTR strPath, DWORD nMode) override;
  // The reader's size; 0 with no reader or when the reader reports none.
  ULONGLONG GetLength() override;
  int EnableAsyncWrite(int bEnable, int nBufferSize) override { return 0; }
  int EnableAsyncRead(int bEnable, int nBufferSize) override { return 0; }
  int GetAccessMode(DWORD& nMode) override { return 1; }
  int SetReadBufferSize(DWORD nSize) override;
  int Read(BYTE* pBuffer, int nCount) override;
  __int64 GetPosition() override;
  // The reader's SetPos result; 0 with no reader, and 0 with
  // ERROR_NEGATIVE_SEEK (nothing moved) for a negative position.
  int SetPosition(__int64 nPos) override;
  int Write(const BYTE* pBuffer, int nCount) override { return 0; }
  // The reader's Close result; 0 with no reader.
  int CloseFile() override;

 private:
  QLT_EasyFile* m_pEasyFile = nullptr;  // owned; caller thread only
};

#endif  // QLTFSDK_ACCESS_EASY_FILE_ACCESS_H
