// One accessor over every supported source: local and network-share paths,
// files of the virtual storage ("qvf:\" paths), FTP servers and the
// utility library's easy-file reader; and FileIsExist.
#ifndef QLTFSDK_FILEACCESS_H
#define QLTFSDK_FILEACCESS_H

#include "qltfsdk/export.h"
#include "qltfsdk/wintypes.h"

class KxFileAccessBase;

// Access modes for OpenFile and GetAccessMode.
#define ACCESS_MODE_READ 1   // open an existing file for reading
#define ACCESS_MODE_WRITE 2  // create (or empty) a file and write it

// QLCT_FileAccess opens one file at a time from one source and reads or
// writes it with one set of operations. It owns one back-end, chosen by the
// first OpenFile (or by Initialize(16) for FTP) and kept for every later
// file on the same object:
//   - a path holding "qvf:\" or "QVF:\" anywhere (exactly these two forms;
//     "Qvf:\" is a plain path): the virtual storage, whatever the mode;
//   - mode 1 (read) on an "oss://", "http://" or "https://" path (scheme in
//     any case): the web-file plug-in (QLT_WebFileReader), read only, in
//     large ranged requests; 0 without the plug-in;
//   - otherwise mode 1 (read): the easy-file reader; mode 2 (write): the
//     local back-end (block-cached reads, ReadBufSize blocks; unbuffered
//     with ReadMode 1; optional read-ahead / write-behind worker);
//   - any other mode: nothing is made and OpenFile returns 0.
//
// Results: every operation returns the back-end's result unchanged (non-zero
// = success for the status results). With no back-end every operation
// returns 0. No exception leaves an operation: out of memory gives 0 with
// last error ERROR_NOT_ENOUGH_MEMORY (ERROR_GEN_FAILURE for anything else).
// Where the back-ends differ:
//   - EnableAsyncRead/Write: local and FTP 1 (0 for the direction that
//     does not suit a file already open); virtual storage 1 and nothing
//     happens; easy-file 0. A capacity below 65,536 bytes is refused (0,
//     last error ERROR_INVALID_PARAMETER) and changes nothing. The calls
//     return promptly whatever a server does.
//   - GetAccessMode: local and FTP the mode and 1, or 0xFFFFFFFF and 0 with
//     no file; virtual storage and easy-file 1, argument left untouched.
//   - SetReadBufferSize: local sets the process-wide block size (0 for 0);
//     FTP 0; virtual storage 1; easy-file the reader's result.
//   - SetPosition: local 1 or 0; FTP and virtual storage the low 32 bits of
//     the new position (virtual storage: -1 when the move is refused, e.g.
//     with no file open); easy-file the reader's result. A negative
//     position is refused on every back-end: 0, last error
//     ERROR_NEGATIVE_SEEK, nothing moved.
//   - Read: bytes delivered; a null buffer skips the count on the local and
//     FTP back-ends (a negative count skips backwards on the local one and
//     reports the distance); a negative count with a buffer gives 0 (the
//     easy-file reader gives -1 for bad arguments and a failed open).
//   - Write: local and FTP the bytes written (0 on failure); virtual
//     storage 1, or 0 when the storage wrote fewer bytes than asked (a full
//     disk: last error ERROR_DISK_FULL); easy-file 0 always.
//   - CloseFile: local 1, or 0 when no file was open or a write came up
//     short; FTP 1 or 0; virtual storage 1; easy-file the reader's result.
// In asynchronous mode (local, FTP) GetPosition reports the bytes Read
// delivered since the mode was enabled or the file opened, or the position
// of the last SetPosition; CloseFile returns only after the worker has
// ended, every queued write written. A facade has no lock: one host thread
// uses it at a time.
//
// Copying: a copy (or an assignment) never shares the back-end; the copy
// starts empty, as a new facade does, and an assigned-to facade destroys
// its own back-end first.
class QLTFS_API QLCT_FileAccess {
 public:
  QLCT_FileAccess();
  // Destroys the back-end, closing its file (and joining its worker).
  virtual ~QLCT_FileAccess();
  // The copy starts empty: see the class comment.
  QLCT_FileAccess(const QLCT_FileAccess& other);
  QLCT_FileAccess& operator=(const QLCT_FileAccess& other);

  // Destroys any back-end; with nSource 16 makes the FTP back-end, which
  // then serves every OpenFile. Returns 1.
  int Initialize(DWORD nSource);
  // FTP only: connects to strHost:nPort. 1 connected, else 0.
  int LogInHost(CComBSTR strHost, CComBSTR strUser, CComBSTR strPassword, int nPort);
  // Chooses the back-end on the first call (see the class comment) and opens
  // strPath in mode nMode (ACCESS_MODE_READ or ACCESS_MODE_WRITE).
  int OpenFile(CComBSTR strPath, DWORD nMode);
  int GetAccessMode(DWORD& nMode);
  ULONGLONG GetLength();
  __int64 GetPosition();
  int SetPosition(__int64 nPos);
  // Write-behind (bEnable non-zero) through a ring of nBufferSize bytes, or
  // off. Effective at once with a file open, else at the next open.
  int EnableAsyncWrite(int bEnable, int nBufferSize);
  // Read-ahead through a ring of nBufferSize bytes, or off.
  int EnableAsyncRead(int bEnable, int nBufferSize);
  int SetReadBufferSize(DWORD nSize);
  int Read(BYTE* pBuffer, int nCount);
  int Write(const BYTE* pBuffer, int nCount);
  // Closes the file; the back-end stays for the next OpenFile.
  int CloseFile();

 private:
  KxFileAccessBase* m_pImpl;  // owned; null until a back-end is made
};

extern "C" {

// Non-zero when the file exists: a "qvf:\" path is asked of the virtual
// storage ("IsFileExistExW"; 0 without the library); a path whose scheme
// (before "://") is HTTP, HTTPS, FTP or OSS in any case is asked of the web
// plug-in ("WebFileIsExist"; 0 without the plug-in, and 0 for names ending
// in ".inx" without asking); any other path is tested locally for read
// access. Any thread.
QLTFS_API int FileIsExist(CComBSTR strPath);

}  // extern "C"

#endif  // QLTFSDK_FILEACCESS_H
