// KxFileAccessBase: the interface every file access back-end implements.
//
// The facade QLCT_FileAccess owns one back-end and forwards each of its
// operations to the matching slot below; the order of the virtual operations
// is part of the contract and must not change. Back-ends: KxFileAccessLocal
// (files the platform opens by path), KxFileAccessFtp (FTP servers),
// kxVirtualFile (the virtual storage) and CEasyFileAccess (the easy-file
// reader, read only).
//
// Common contract (a back-end documents where it departs):
// - Every operation returns a signed 32-bit status, non-zero meaning success,
//   unless stated; with no open file an operation returns 0 (the 64-bit
//   queries return 0).
// - Access modes: 1 opens an existing file for reading, 2 creates (or
//   empties) a file and writes it.
// - OpenFile closes a file still open on the object first (except the
//   virtual-storage back-end, which hands the open straight to its storage).
// - Read with a null buffer skips count bytes instead of copying them (local
//   and FTP back-ends); a negative count with a buffer, or a null buffer for
//   Write, fails with 0 and copies nothing.
// - In asynchronous mode (EnableAsyncRead / EnableAsyncWrite on the local and
//   FTP back-ends) GetPosition reports the bytes delivered since the mode was
//   enabled; CloseFile returns only after the back-end's worker has ended,
//   with every queued byte written (write mode) or dropped (read mode).
// - An exception (out of memory, mostly) may leave an operation; the object
//   stays destructible. The exported facade turns it into a failure result
//   and a last error; the object's state after it is that of a failed call.
//
// Ownership: the caller of the constructor owns the object and destroys it
// through the virtual destructor, which closes any open file first.
//
// Threads: one caller thread uses an object at a time. A back-end may run one
// worker thread of its own; it never outlives the file it serves.
#ifndef QLTFSDK_ACCESS_KX_FILE_ACCESS_BASE_H
#define QLTFSDK_ACCESS_KX_FILE_ACCESS_BASE_H

#include "qltfsdk/wintypes.h"

class KxFileAccessBase {
 public:
  KxFileAccessBase() = default;
  KxFileAccessBase(const KxFileAccessBase&) = delete;
  KxFileAccessBase& operator=(const KxFileAccessBase&) = delete;

  // Slot 0. Closes what the back-end holds open.
  virtual ~KxFileAccessBase() = default;

  // Slot 1. Connects to a server (FTP back-end only: 1 connected, 0 not).
  // The base does nothing and returns 0.
  virtual int LogInHost(CComBSTR strHost, CComBSTR strUser, CComBSTR strPassword, int nPort) { return 0; }

  // Slot 2. Opens strPath in access mode nMode (1 read, 2 write). Returns
  // non-zero when the file is open.
  virtual int OpenFile(CComBSTR strPath, DWORD nMode) = 0;

  // Slot 3. File length in bytes. The base returns m_nFileLength, which the
  // local back-end records at every open and the FTP back-end at a read open.
  virtual ULONGLONG GetLength() { return m_nFileLength; }

  // Slot 4. Turns write-behind on (bEnable non-zero) with a ring of
  // nBufferSize bytes, or off. A back-end that takes a capacity refuses one
  // below 65,536 bytes (0, ERROR_INVALID_PARAMETER) and changes nothing.
  // Returns promptly: it never waits for a transfer to finish.
  virtual int EnableAsyncWrite(int bEnable, int nBufferSize) = 0;

  // Slot 5. Turns read-ahead on with a ring of nBufferSize bytes, or off;
  // capacity and promptness as slot 4.
  virtual int EnableAsyncRead(int bEnable, int nBufferSize) = 0;

  // Slot 6. Reports the access mode of the open file in nMode.
  virtual int GetAccessMode(DWORD& nMode) = 0;

  // Slot 7. Sets the read block size in bytes.
  virtual int SetReadBufferSize(DWORD nSize) = 0;

  // Slot 8. Copies up to nCount bytes into pBuffer (a null buffer skips
  // them). Returns the bytes delivered, 0 at end of file or on failure.
  virtual int Read(BYTE* pBuffer, int nCount) = 0;

  // Slot 9. Current position in bytes from the file's start.
  virtual __int64 GetPosition() = 0;

  // Slot 10. Moves to nPos bytes from the file's start. A negative nPos is
  // refused: 0, ERROR_NEGATIVE_SEEK, nothing moved.
  virtual int SetPosition(__int64 nPos) = 0;

  // Slot 11. Writes nCount bytes from pBuffer. Returns the back-end's result
  // (bytes written on the local and FTP back-ends).
  virtual int Write(const BYTE* pBuffer, int nCount) = 0;

  // Slot 12. Closes the open file; the object stays usable for the next open.
  virtual int CloseFile() = 0;

 protected:
  // Length recorded at open by the back-ends that use the base's GetLength.
  // Touched only by the caller thread.
  ULONGLONG m_nFileLength = 0;
};

#endif  // QLTFSDK_ACCESS_KX_FILE_ACCESS_BASE_H
