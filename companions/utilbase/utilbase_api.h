// What the SDK uses of the utility library (qltUtilBase): the easy-file
// reader class, linked at build time, and the error-code register, found by
// name at run time. The writer-option calls are public (qltfsdk/writeroption.h).
#ifndef QLTFSDK_COMPANIONS_UTILBASE_UTILBASE_API_H
#define QLTFSDK_COMPANIONS_UTILBASE_UTILBASE_API_H

#include "qltfsdk/writeroption.h"

// Buffered reader over one local file with random access by position.
// One object serves one thread at a time. The owner creates it with new,
// calls Initialize(false), Open, then reads, and Close before delete. No
// exception leaves an operation; when memory runs out the operation returns
// its failure result (a buffer that cannot be allocated fails the read with
// -1, ERROR_NOT_ENOUGH_MEMORY), and an object built without memory for its
// state fails every operation (Initialize returns 0).
class QLTUTILBASE_API QLT_EasyFile {
 public:
  QLT_EasyFile();
  virtual ~QLT_EasyFile();
  QLT_EasyFile(const QLT_EasyFile&) = delete;
  QLT_EasyFile& operator=(const QLT_EasyFile&) = delete;

  // Resets the object; the flag is reserved. Returns 1.
  int Initialize(bool bReserved);
  // Opens an existing file for reading. Non-zero when open; 0 for a missing
  // or unreadable file (an open file is closed first).
  int Open(CComBSTR strPath);
  // Copies up to nCount bytes from the current position into pBuffer and
  // advances. Returns the bytes read (0 at end of file), -1 when not open or
  // on bad arguments (null buffer, negative count) or a read error before
  // any byte was copied (after some bytes, those are returned and the next
  // call reports the error). The third argument is ignored.
  int Read(unsigned char* pBuffer, int nCount, int nReserved);
  // Current position, or -1 when not open.
  __int64 GetPos();
  // Moves to nPos counted from the start (nOrigin 0), the current position
  // (1) or the end (2). Returns 1, or 0 when not open or the result would be
  // negative.
  int SetPos(__int64 nPos, int nOrigin);
  // Size of the open file in bytes, or -1 when not open. The flag is reserved.
  __int64 GetFileSize(bool bReserved);
  // Size of the read buffer for later reads (default 256 KiB). Returns 1,
  // or 0 for a size below 1 or above 256 MiB (unchanged).
  int SetReadBlockSize(int nBytes);
  // Closes the file. Returns 1 (also when nothing was open).
  int Close();

 private:
  struct Impl;
  Impl* m_pImpl;  // owned
};

// The record handed to SetErrorCodeInfo. Owned by the caller and valid only
// during the call; the register copies the message.
struct ErrorCodeRecord {
  uint32_t nThreadId;  // the reporting thread
  int32_t nErrorCode;
  BSTR bstrMessage;     // may be null or empty
  uint8_t reserved[8];  // zero
};

// The register's four functions, found by these names after loading
// "qltUtilBase.dll". The register keeps the last record of each thread.
typedef int (*PFN_CreateErrorCodeVector)();
typedef int (*PFN_SetErrorCodeInfo)(ErrorCodeRecord* pRecord);
// Copies the calling thread's last record into *pRecord (with a new BSTR the
// caller frees); returns 1, or 0 when the thread has none.
typedef int (*PFN_GerLastErrorCodeInfo)(ErrorCodeRecord* pRecord);
typedef int (*PFN_DeleteErrorCodeVector)();

#define QLT_UTILBASE_DLL L"qltUtilBase.dll"

#endif  // QLTFSDK_COMPANIONS_UTILBASE_UTILBASE_API_H
