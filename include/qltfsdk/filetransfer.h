// Rate-limited file copy with progress reports and abort.
#ifndef QLTFSDK_FILETRANSFER_H
#define QLTFSDK_FILETRANSFER_H

#include "qltfsdk/export.h"
#include "qltfsdk/wintypes.h"

// The record a transfer hands to its progress callback. The transfer owns it;
// it is valid only during the call. The fields without a meaning for the
// transfer carry the fixed values noted beside them on every report.
struct KX_TRANS_PROGRESS_INFO_ST {
  int nReserved1;       // always -1
  int nReserved2;       // always -1
  int nPercent;         // 0..99 while copying, 100 in the final report
  int nReserved4;       // always 0
  LONGLONG nReserved5;  // always 0
  double dReserved6;    // always 0.0
  double dReserved7;    // always 0.0
  LONGLONG nBytesDone;  // bytes written to the destination so far
  int bFinished;        // 0 while copying, 1 in the final report
};

// Progress callback: called on the thread that runs TransferFile, with the
// record and the user pointer given to SetProgressCallBack.
typedef void(WINAPI* KX_TRANS_PROGRESS_CALLBACK)(KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUserData);

class KxFileTransfer;

// Copies one file to another in 64 KiB blocks at a bit-rate limit, reports
// whole-percent progress through a callback and can be aborted from another
// thread.
//
// Thread rule: one host thread runs transfers, one at a time; TransferFile
// runs the copy on that thread and calls the callback there. Abort may be
// called from any thread, at any time. The setters may be called from any
// thread; a change takes effect with the next transfer.
//
// The facade owns its implementation and cannot be copied (the copy would
// share and then delete the implementation twice). The object must not be
// destroyed while one of its calls is running.
class QLTFS_API QLT_FileTransfer {
 public:
  // Creates the implementation. When that fails, every operation returns 0
  // with ERROR_NOT_ENOUGH_MEMORY.
  QLT_FileTransfer();
  virtual ~QLT_FileTransfer();
  QLT_FileTransfer(const QLT_FileTransfer&) = delete;
  QLT_FileTransfer& operator=(const QLT_FileTransfer&) = delete;

  // Returns 1 (0 when construction failed); nothing else to set up.
  int Initialize();

  // Stores the callback and the pointer handed back to it; a null callback
  // switches reports off. The callback must not delete this object. Returns 1.
  int SetProgressCallBack(KX_TRANS_PROGRESS_CALLBACK pfnCallback, void* pUserData);

  // Stores the limit in bits per second, unchanged. A transfer that starts
  // with a limit of 0 or below uses 8,192 and stores that value. Default
  // 20,000,000. Returns 1.
  int SetTransferBitrate(int nBitsPerSecond);

  // Copies strSource to strDestination (replaced if it exists and given the
  // source's size at once) and returns when the copy has ended. Returns the
  // achieved rate in bits per second over the whole source size (also after
  // an abort), at least 1 and at most 2,147,483,647; 0 on failure: a source
  // or destination that cannot be opened (nothing is created when the
  // source is missing; no report is made), a failed read or write (the
  // destination keeps its full size; the final report is still made), a
  // destination that is the source file itself under any spelling (relative
  // path, symbolic or hard link: ERROR_INVALID_PARAMETER, nothing touched),
  // a callback that threw (the copy stops there; ERROR_CANCELLED), or a
  // transfer already running on this object (ERROR_BUSY). Unless an open
  // failed, the callback gets one final report (nPercent 100, bFinished 1)
  // whatever the outcome. No exception leaves this or any other operation,
  // and the object stays usable after every failure.
  int TransferFile(CComBSTR strSource, CComBSTR strDestination);

  // Asks a running transfer to stop before its next block (a pacing wait is
  // cut short) and returns 1 once it has stopped: its files are closed and
  // its final report made. Returns 1 at once when no transfer runs. Called
  // from the progress callback, it only asks, and the transfer stops after
  // the callback returns.
  int Abort();

 private:
  KxFileTransfer* m_pImpl;  // owned; null only when construction failed
};

#endif  // QLTFSDK_FILETRANSFER_H
