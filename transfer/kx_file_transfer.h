// The implementation behind QLT_FileTransfer.
#ifndef QLTFSDK_TRANSFER_KX_FILE_TRANSFER_H
#define QLTFSDK_TRANSFER_KX_FILE_TRANSFER_H

#include <atomic>

#include "platform/platform.h"
#include "qltfsdk/filetransfer.h"
#include "transfer/stopwatch.h"

// Copies a file in 64 KiB blocks at a bit-rate limit. The source is read
// without system buffering (whole sectors into a 4 KiB-aligned buffer); the
// destination is created at the source's size before the first block.
//
// Thread rule: TransferFile runs on the caller's thread, one transfer at a
// time (a second concurrent call fails with ERROR_BUSY). Abort and the
// setters may be called from any thread. See QLT_FileTransfer for the
// results; this class returns the same ones.
class KxFileTransfer {
 public:
  static constexpr DWORD kBlockSize = 65536;
  // Unbuffered reads need buffers, sizes and offsets in whole sectors; 4,096
  // covers every sector size in use.
  static constexpr DWORD kSectorSize = 4096;
  static constexpr int kDefaultBitrate = 20000000;
  static constexpr int kMinimumBitrate = 8192;

  KxFileTransfer();
  virtual ~KxFileTransfer();
  KxFileTransfer(const KxFileTransfer&) = delete;
  KxFileTransfer& operator=(const KxFileTransfer&) = delete;

  // False when the events could not be created; the object is then unusable.
  bool IsValid() const { return m_hDoneEvent && m_hAbortEvent && m_hNoAbortWaitersEvent; }

  // Both apply from the next transfer on.
  void SetProgressCallBack(KX_TRANS_PROGRESS_CALLBACK pfnCallback, void* pUserData);
  void SetTransferBitrate(int nBitsPerSecond);
  // The limit the object holds now (8,192 after a transfer started with 0).
  int GetTransferBitrate();
  // Achieved bits per second, 0 on failure (last error set); the caller
  // keeps the paths.
  int TransferFile(const wchar_t* pszSource, const wchar_t* pszDestination);
  // Returns at once when no transfer runs, else once it has stopped.
  void Abort();
  // The clock the next transfers pace on (not owned; it must outlive them);
  // null restores the monotonic clock. For tests: the pacing then follows
  // the clock's time and its waits.
  void SetClock(CTransferClock* pClock);

 private:
  struct Settings {
    KX_TRANS_PROGRESS_CALLBACK pfnProgress;
    void* pUserData;
    CTransferClock* pClock;
  };

  // Marks a transfer as running and takes the settings it runs with; false
  // (ERROR_BUSY) when one already runs.
  bool BeginTransfer(Settings* pSettings);
  // Marks the running transfer as stopped and wakes Abort callers.
  void EndTransfer();
  // Copies the blocks and the tail; false on a failed read or write, or when
  // the callback threw (ERROR_CANCELLED).
  // Starts with the limit, replacing one of 0 or below for good.
  bool CopyData(HANDLE hSource, HANDLE hDestination, char* pBuffer, LONGLONG nSize, const Settings& settings,
                const CStopwatch& clock, LONGLONG* pWritten);
  // Opens both files, copies and makes the final report; returns the
  // achieved rate or 0 (last error set). Runs between Begin and End.
  int Copy(const wchar_t* pszSource, const wchar_t* pszDestination, const Settings& settings);
  // Calls the host's callback, if any; false when it threw.
  static bool Report(const Settings& settings, int nPercent, LONGLONG nWritten, bool bFinished);

  // Guards the fields marked GUARDED_BY(m_cs) below. Never held while
  // copying, while calling the callback or while waiting.
  CRITICAL_SECTION m_cs;
  KX_TRANS_PROGRESS_CALLBACK m_pfnProgress GUARDED_BY(m_cs);  // read once per transfer
  void* m_pUserData GUARDED_BY(m_cs);                         // read once per transfer
  int m_nBitrate GUARDED_BY(m_cs);                            // bits per second
  CTransferClock* m_pClock GUARDED_BY(m_cs);                  // read once per transfer
  bool m_bRunning GUARDED_BY(m_cs);                           // a transfer is between Begin and End
  DWORD m_nTransferThreadId GUARDED_BY(m_cs);                 // thread of the running transfer
  int m_nAbortWaiters GUARDED_BY(m_cs);                       // Abort calls waiting for the running transfer

  // Set by Abort, read once per block without the lock. Cleared under m_cs
  // when a transfer begins, and Abort sets it under m_cs only while
  // m_bRunning, so a request is never lost to the clear. Relaxed ordering is
  // enough: the flag carries no data, and Abort's wait synchronises through
  // m_hDoneEvent.
  std::atomic<int> m_bAbort;

  // Manual reset. Reset under m_cs when a transfer begins and set when it
  // has stopped (files closed, final report made); Abort waits on it. A new
  // transfer does not begin (and so does not reset it) while an Abort call
  // still waits for the previous one: see m_hNoAbortWaitersEvent.
  HANDLE m_hDoneEvent;
  // Manual reset. Reset when a transfer begins, set by Abort: cuts the
  // pacing wait short.
  HANDLE m_hAbortEvent;
  // Manual reset. Set while m_nAbortWaiters is 0 (changed under m_cs);
  // BeginTransfer waits on it.
  HANDLE m_hNoAbortWaitersEvent;
};

#endif  // QLTFSDK_TRANSFER_KX_FILE_TRANSFER_H
