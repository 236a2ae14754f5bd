// CWriterTarget: what a writer writes to, chosen once at open: the local
// file (the writer's own staging engine), a web object or a virtual-storage
// object. Each operation has the meaning of the writer's call of the same
// name (results as the platform's file calls, 0 for failure).
//
// Threads: the writer's host thread only.
#ifndef QLTFSDK_WRITER_WRITER_TARGET_H
#define QLTFSDK_WRITER_WRITER_TARGET_H

#include "platform/platform.h"

class CWriterTarget {
 public:
  // WriteFile for a buffer that is not null (or a length of 0).
  virtual BOOL Write(LPCVOID pBuffer, DWORD nLength, LPDWORD pWritten, DWORD dwUserData) = 0;
  virtual BOOL Seek(LARGE_INTEGER liDistance, PLARGE_INTEGER pNewPos, DWORD dwMoveMethod) = 0;
  virtual BOOL GetSize(PLARGE_INTEGER pSize) = 0;
  // GetFileSize: by default the size from GetSize split in two halves, or
  // INVALID_FILE_SIZE when GetSize fails.
  virtual DWORD GetSize32(LPDWORD pHigh) {
    LARGE_INTEGER size{};
    if (!GetSize(&size)) return INVALID_FILE_SIZE;
    if (pHigh) *pHigh = static_cast<DWORD>(size.u.HighPart);
    return size.u.LowPart;
  }
  virtual BOOL Read(LPVOID pBuffer, DWORD nToRead, LPDWORD pRead, LPOVERLAPPED pOverlapped) = 0;
  virtual BOOL Close() = 0;
  // Attach and GetUserDataList: by default 1 with nothing done (only a
  // local file can be attached or keeps user data).
  virtual BOOL AttachFile(HANDLE /*hFile*/, const CComBSTR& /*strFileName*/) { return 1; }
  virtual BOOL GetUserData(CArray<DWORD, DWORD>& /*list*/, int /*nMode*/) { return 1; }

 protected:
  ~CWriterTarget() = default;
};

#endif  // QLTFSDK_WRITER_WRITER_TARGET_H
