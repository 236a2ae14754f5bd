// KxAsyncFileAccess: the read-ahead / write-behind scheme shared by the
// back-ends that transfer through a worker thread (local and FTP).
//
// A back-end derives from this class instead of KxFileAccessBase and supplies
// two hooks that run on the worker thread: WorkerRead (its cached direct read)
// and WorkerWrite (its direct write). The class owns the ring between the
// caller and the worker, the worker thread and the two events, and gives the
// back-end the steps it calls from its own operations:
//
//   EnableAsyncRead/EnableAsyncWrite -> AsyncEnable
//   end of OpenFile                  -> AsyncOnOpen
//   Read / Write in asynchronous mode -> AsyncRead / AsyncWrite
//   SetPosition in asynchronous mode -> AsyncStop, move, AsyncRestart
//   CloseFile and the destructor     -> AsyncStop
//
// Asynchronous mode means "a ring exists" (IsAsyncActive). The ring carries
// data one way only: a read-ahead ring serves Read, a write-behind ring serves
// Write; the other operation then fails with 0.
//
// Completion guarantee, whatever the capacity: the caller moves at most
// max(1, capacity / 2) bytes per ring call and the worker does the same, so
// one side's request always fits beside what the other side left in the ring.
//
// Threads: every operation here is for the one caller thread of the object,
// except the two hooks, which the worker calls. The derived destructor must
// call AsyncStop before its own members go, because the worker calls the
// derived hooks; this class's destructor stops a worker again only as a
// safety net (a no-op after the derived destructor's AsyncStop).
#ifndef QLTFSDK_ACCESS_KX_ASYNC_FILE_ACCESS_H
#define QLTFSDK_ACCESS_KX_ASYNC_FILE_ACCESS_H

#include <atomic>

#include "access/kx_file_access_base.h"
#include "fifo/ring_stream.h"
#include "platform/platform.h"
#include "platform/worker_thread.h"

class KxAsyncFileAccess : public KxFileAccessBase {
 public:
  // Capacity given to a ring that OpenFile enables by itself.
  static constexpr int kDefaultAsyncBufferSize = 0xA00000;
  // Largest piece of a long caller request.
  static constexpr int kMaxCallerPiece = 2097152;
  // Transfer size of the write-behind worker.
  static constexpr int kWriteBehindChunk = 0x180000;
  // Smallest ring an enabling call accepts: below it every transfer is a
  // thread hand-over of a few bytes, and the transfer crawls.
  static constexpr int kMinAsyncBufferSize = 65536;

 protected:
  // nReadAheadChunk: most bytes the read-ahead worker asks of WorkerRead at
  // a time (3 MiB local, 1 MiB FTP). Creates the two events.
  explicit KxAsyncFileAccess(int nReadAheadChunk);
  ~KxAsyncFileAccess() override;

  // Worker thread: read up to nCount bytes at the file's read position into
  // pBuffer; return the bytes read, 0 at the end of the file, or -1 on a
  // failure with the thread's last error set. Either ends the read-ahead; a
  // failure's error is handed to the caller's read that meets the end. It
  // may return fewer than asked whenever that is what has arrived: the
  // worker hands them on at once.
  virtual int WorkerRead(BYTE* pBuffer, int nCount) = 0;
  // Worker thread: write nCount bytes; return the bytes written.
  virtual int WorkerWrite(const BYTE* pBuffer, int nCount) = 0;
  // Caller thread, no worker running: a read-ahead worker was stopped while
  // the file stays open (enabling again, or turning the mode off); the
  // back-end moves its read position to nFilePos, the next byte the caller
  // had not taken, so that nothing is skipped. The base does nothing.
  virtual void ResumeAt(__int64 nFilePos) {}
  // Caller thread, no worker running: the file position of the next byte a
  // read-ahead started now would deliver. The base returns 0.
  virtual __int64 CurrentReadPosition() { return 0; }
  // Caller thread, while a released read-ahead worker runs: end a transfer
  // call the worker may be blocked in (the back-end's WorkerRead then
  // returns soon). Called by AsyncStop before it waits for the worker. The
  // base does nothing.
  virtual void InterruptWorker() {}

  // EnableAsyncRead (bRead) or EnableAsyncWrite. Checks first and changes
  // nothing when it refuses: 0 with ERROR_INVALID_PARAMETER for a capacity
  // below kMinAsyncBufferSize, 0 with ERROR_INVALID_FUNCTION when enabling
  // while a file is open (bFileOpen) in the other direction's mode
  // (nOpenMode). Otherwise stores the flag and the capacity and returns 1:
  // - enable 0 ends a read-ahead (reads go on synchronously from the next
  //   byte not yet delivered); a write-behind serving an open file keeps
  //   running until CloseFile writes out what it queued;
  // - enable 1 replaces any worker by a new one over a new ring (starting at
  //   once when a file is open, else at the next open), except that a
  //   write-behind serving an open file with bytes still queued goes on with
  //   its ring; 0 with asynchronous mode off when the ring or the thread
  //   cannot be made.
  // Neither waits for a transfer to finish: a read-ahead is interrupted
  // (InterruptWorker) and write-behind is never drained here.
  int AsyncEnable(bool bRead, int bEnable, int nCapacity, bool bFileOpen, DWORD nOpenMode);

  // End of a successful or failed open in mode nMode: empties a ring made
  // before the open (or replaces it when its direction does not suit the
  // mode), or enables the default ring when asynchronous mode is on, then
  // releases the worker. m_nAsyncPosition starts at 0.
  void AsyncOnOpen(DWORD nMode);

  // Stops the worker and destroys the ring: a read-ahead worker is told to
  // stop (and interrupted when it was released) and its buffered bytes are
  // dropped; a write-behind worker first writes every queued byte. Returns
  // only after the worker thread has ended.
  // Returns the file position of the next byte the caller had not yet taken
  // from a read-ahead ring (-1 for a write-behind ring or no ring).
  __int64 AsyncStop();

  // After AsyncStop in CloseFile: no file is open any more, so a worker made
  // later waits for the next open.
  void AsyncOnClose();

  // Starts a new worker in the same direction and capacity as the one that
  // the last AsyncStop ended, with the file positioned at nFilePos (the
  // worker starts at once: a file is open). Returns false (asynchronous mode
  // then off) when it cannot.
  bool AsyncRestart(bool bRead, DWORD nCapacity, __int64 nFilePos);

  // Caller-side transfers; 0 for a negative count, a missing ring or a ring
  // of the other direction. AsyncRead with a null buffer skips.
  int AsyncRead(BYTE* pBuffer, int nCount);
  int AsyncWrite(const BYTE* pBuffer, int nCount);

  bool IsAsyncActive() const { return m_pRing != nullptr; }
  bool IsAsyncRead() const { return m_pRing != nullptr && m_bWorkerReads; }
  bool IsAsyncWrite() const { return m_pRing != nullptr && !m_bWorkerReads; }
  DWORD AsyncCapacity() const { return m_pRing ? m_pRing->GetBufferSize() : 0; }

  // Caller thread only unless noted.
  int m_bAsync = 0;                                               // async mode wanted
  int m_nAsyncBufferSize = kDefaultAsyncBufferSize;               // last enabling call's capacity
  const int m_nDefaultAsyncBufferSize = kDefaultAsyncBufferSize;  // never changed
  CRingStream_Wd* m_pRing = nullptr;                              // owned; made and destroyed by the caller
                                                                  // thread only while no worker runs
  __int64 m_nAsyncPosition = 0;                                   // bytes delivered by Read since enabling
  std::atomic<int> m_bStopWorker{0};                              // caller writes, worker reads between chunks
  // Why the read-ahead ended early (0: end of file or stopped). The worker
  // stores it before it ends the stream; the caller reads it once the ring
  // has reported that end, so relaxed order is enough (the ring's lock
  // orders the two). Cleared by the caller while no worker runs.
  std::atomic<DWORD> m_nWorkerError{0};
  DWORD m_nAccessMode = 0;         // mode of the last OpenFile
  HANDLE m_hFileOpened = nullptr;  // manual reset; platform event is thread-safe
  HANDLE m_hWorkerDone = nullptr;  // manual reset, initially signalled

 private:
  bool StartWorker(bool bRead, DWORD nCapacity, __int64 nFilePos);
  void WorkerMain();
  void ReadAheadLoop();
  void WriteBehindLoop();
  int CallerPiece(int nCount) const;

  const int m_nReadAheadChunk;
  bool m_bWorkerReads = false;                    // direction of m_pRing; caller thread, fixed while a worker runs
  bool m_bOpenSignalled = false;                  // m_hFileOpened is set for an open file; caller thread
  CWorkerThread m_worker{L"file access worker"};  // started and joined by the caller thread
  BYTE* m_pTransfer = nullptr;                    // read-ahead worker's buffer (null for write-behind);
                                                  // allocated before the worker starts, freed after it is joined
  int m_nTransferSize = 0;                        // bytes per worker transfer; fixed while a worker runs
  int m_nRingPiece = 1;                           // max bytes per ring call; fixed while a worker runs
  __int64 m_nAsyncBase = 0;                       // file position where the read-ahead began; caller thread
  __int64 m_nAsyncConsumed = 0;                   // bytes taken from the read-ahead ring; caller thread
};

#endif  // QLTFSDK_ACCESS_KX_ASYNC_FILE_ACCESS_H
