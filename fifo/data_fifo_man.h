// CDataFifoMan: an ordered queue of variable-length records between one
// producer and one consumer, over a memory ring with optional disk overflow.
//
// A record is a 32-bit signed length L and L payload bytes (4 length bytes,
// little-endian, then the payload, both in the ring and in overflow files).
// Buffering mode 0 keeps everything in the memory ring: a producer that finds
// it full waits for the consumer. Mode 1 spills records that do not fit to
// numbered overflow files (CFifoDiskFile) and a mover thread copies the oldest
// file back into the ring when the consumer has made room, so records still
// leave exactly once and in the order they entered.
//
// Thread rule: the setters, StartFifo and StopFifo come from one controlling
// thread; while running, one producer thread calls WriteBuffer and one
// consumer thread calls ReadBuffer. StopFifo closes the memory ring, which
// releases a consumer waiting in ReadBuffer, a producer waiting for room and
// the mover at once and for good, and returns only when neither is inside
// the ring any more and the mover thread has been joined.
// The mover runs only in mode 1: a manager kept in mode 0 starts no thread,
// creates no folder and allocates no staging buffer.
// No operation throws: out of memory gives the failure result with the last
// error ERROR_NOT_ENOUGH_MEMORY (for WriteBuffer only in disk mode, when an
// overflow file cannot be set up; that record is then not queued).
// Lock order: m_csWriteFile before m_csFiles, m_csRead before m_csFiles; the
// ring's own lock is innermost.
#ifndef QLTFSDK_FIFO_DATA_FIFO_MAN_H
#define QLTFSDK_FIFO_DATA_FIFO_MAN_H

#include <atomic>
#include <deque>
#include <string>
#include <type_traits>

#include "fifo/fifo_disk_file.h"
#include "fifo/ring_stream.h"
#include "platform/platform.h"
#include "platform/worker_thread.h"

// Bytes of a record's length prefix, in the rings and in overflow files alike.
constexpr LONG kRecordPrefixBytes = 4;

class CDataFifoMan {
 public:
  static constexpr DWORD kDefaultMemoryPoolSize = 0x2000000;  // 32 MiB
  static constexpr DWORD kLowWater = 0x200000;                // half a disk file's limit
  static constexpr DWORD kMoveBufferSize = 0x100000;          // mover's first staging buffer
  // Free ring space above which the consumer asks for a move: a whole disk
  // file plus the low-water mark.
  static constexpr LONG kMoveThreshold = static_cast<LONG>(CFifoDiskFile::kMaxSize + kLowWater);

  // Mode 0, 32 MiB ring for the next StartFifo, disk folder "C:\Temp".
  // Creates no folder and allocates nothing yet.
  CDataFifoMan();
  // Stops the manager (see StopFifo) and frees the staging buffer.
  virtual ~CDataFifoMan();
  CDataFifoMan(const CDataFifoMan&) = delete;
  CDataFifoMan& operator=(const CDataFifoMan&) = delete;

  // Mode 0 (memory only) or 1 (memory, then disk): returns 1 and stores it.
  // Any other mode, or mode 1 while running over a ring too small to ever
  // move a file back (not above kMoveThreshold) or when the mover thread
  // cannot start (last error set), returns 0 and keeps the mode. Mode 1
  // while running starts the mover. Takes effect with the next WriteBuffer.
  BOOL SetBufferingMode(LONG nMode);
  // Ring capacity for the next StartFifo. Returns 1; 0 (ERROR_INVALID_PARAMETER,
  // size kept) above CRingStream::kMaxCapacity.
  BOOL SetMemoryPoolSize(DWORD nBytes);
  // Creates the folder and every missing parent ('\' or '/' separators).
  // Returns 1 when the folder exists afterwards (and stores it for new disk
  // files), 0 otherwise (the old folder stays; ERROR_NOT_ENOUGH_MEMORY when
  // memory runs out).
  BOOL SetDiskPath(const std::wstring& strFolder);
  // Starts a new run with an empty ring and no disk files (stopping a
  // running one first). In mode 1 it also makes sure the disk folder exists
  // (best effort) and starts the mover thread. Returns 1 when all that
  // worked; 0 when the ring cannot be allocated, the mover cannot start
  // (last error set), or in mode 1 with a ring too small to move files back.
  // After a 0 nothing runs; StopFifo and a later StartFifo are both safe.
  BOOL StartFifo();
  // Ends the run: closes the ring (one signal that releases every wait in
  // it), waits out a consumer inside ReadBuffer and a producer inside
  // WriteBuffer, joins the mover thread, frees the ring and deletes every
  // disk file. Safe to call at any time, repeatedly.
  void StopFifo();
  // Queues one record of nLen bytes (a null payload signals the end of the
  // data instead; nLen is then ignored). In mode 0 waits while the ring is
  // full. Returns 1 when queued or the end is signalled; 0 when the manager
  // is not running, nLen is negative, or nLen exceeds the ring's capacity.
  // Disk write failures do not reach the producer (still 1). Producer thread.
  BOOL WriteBuffer(const void* pPayload, LONG nLen);
  // Queues one record only if that needs no waiting and no disk: in mode 0
  // (disk state 0) with room for the whole record in the ring. Returns 1
  // when queued, 0 otherwise (nothing written). Same caller as WriteBuffer;
  // the two are never called at once.
  BOOL TryWriteBuffer(const void* pPayload, LONG nLen);
  // The longest payload that WriteBuffer would now put into the memory ring
  // without waiting (mode 0, disk state 0); -1 when none would go there.
  // Since the producer is the ring's only writer in that state, the room
  // only grows until it writes. Producer thread.
  LONG RecordRoomNow();
  // Queues one record whose payload is given in two pieces (nLen bytes at
  // pPayload, then nRest at pRest), as WriteBuffer queues one piece. Never
  // the end of data: a null pPayload gives 0. The pieces go to the memory
  // ring only: while records are going to disk (mode 1) with nRest above 0
  // it returns 0 and queues nothing. Same caller as WriteBuffer.
  BOOL WriteBufferPieces(const void* pPayload, LONG nLen, const void* pRest, LONG nRest);
  // Takes the next record into pDst, which must hold the longest record the
  // producer writes; waits until one is there. Returns 1 with the outcome in
  // nLen: L >= 0 a record of L bytes, -1 the end of the data or a stopped
  // manager, -2 a stored length below -1. A null pDst returns 0 with
  // nLen = -1 and consumes nothing. Consumer thread.
  BOOL ReadBuffer(void* pDst, LONG& nLen);
  // Like ReadBuffer, but shows the record's payload to
  // visit(p1, n1, p2, n2) where it lies in the memory ring (two pieces when
  // it wraps; n2 is 0 otherwise) instead of copying it out; the record is
  // consumed when visit returns. visit runs only for a record of at least
  // one byte, without the ring's lock; if it throws, the record stays
  // unread. Consumer thread.
  template <class Visit>
  BOOL ReadBufferInPlace(LONG& nLen, Visit&& visit) {
    return ReadRecord(
        nLen,
        [](void* pVisit, const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
          (*static_cast<std::remove_reference_t<Visit>*>(pVisit))(p1, n1, p2, n2);
        },
        &visit);
  }

  // True while the consumer waits in ReadBuffer for bytes that are not in
  // the memory ring yet (a hint for tests and diagnostics). Any thread
  // while running, not during StopFifo.
  bool IsConsumerWaiting();
  // True while the mover thread runs (mode 1 between StartFifo and StopFifo).
  bool IsMoverRunning() const { return m_mover.IsRunning(); }
  // Capacity of the running ring (0 when stopped). Any thread while running.
  DWORD GetRingCapacity() const { return m_nRingCapacity.load(std::memory_order_acquire); }
  DWORD GetMemoryPoolSize() const { return m_nMemoryPoolSize; }

 private:
  BOOL StartRun();  // StartFifo without the exception guard
  // The one read path behind ReadBuffer and ReadBufferInPlace.
  BOOL ReadRecord(LONG& nLen, CRingStream::PieceVisitor pVisit, void* pContext);
  BOOL SetDiskPathOrThrow(const std::wstring& strFolder);
  // Creates the work event and starts the mover (controlling thread).
  BOOL StartMover();
  void MoverLoop();
  // WriteBuffer and WriteBufferPieces (nRest is 0 for one piece).
  BOOL Write(const void* pPayload, LONG nLen, const void* pRest, LONG nRest);
  // Writes one whole record, its payload in one or two pieces, into the
  // ring; false when StopFifo cut it short.
  bool WriteRecordToRing(const void* pPayload, LONG nLen, const void* pRest = nullptr, LONG nRest = 0);
  void WriteMemoryFirst(const void* pPayload, LONG nLen);
  void WriteToDisk(const void* pPayload, LONG nLen);
  CFifoDiskFile* OpenNewDiskFile() REQUIRES(m_csWriteFile);
  void MoveFileToMemory(CFifoDiskFile* pFile);
  // Requires m_csFiles. Asks the mover for the oldest file when no move is
  // pending and the ring has room for it.
  void RequestMoveLocked() REQUIRES(m_csFiles);
  // Requires m_csFiles. Marks the ring's end once the producer has ended and
  // every disk file has been moved back.
  void MarkEndIfDrainedLocked() REQUIRES(m_csFiles);
  // Requires m_csFiles. Sends new records to memory again once no file is
  // left, no move is pending and the ring has the low-water room free.
  void LeaveDiskStateIfDrainedLocked() REQUIRES(m_csFiles);

  // Mover thread: started by StartFifo or SetBufferingMode(1), joined by
  // StopFifo (controlling thread only).
  CWorkerThread m_mover{L"FIFO mover"};
  // Between StartFifo and StopFifo. Sequentially consistent: StartFifo
  // publishes m_pMemoryPool before setting it, and a producer's increment of
  // m_nProducersInside and its load of m_bRunning pair with StopFifo's store
  // and its load of the count (either the producer sees false or StopFifo
  // sees it inside).
  std::atomic<bool> m_bRunning{false};
  // Manual reset: asks the mover for one move. Created with the mover,
  // closed by StopFifo after the join.
  HANDLE m_hWorkEvent = nullptr;
  // Owned memory ring. Created before m_bRunning is set; freed by StopFifo
  // only after the consumer (m_csRead), the producer (m_nProducersInside)
  // and the mover (joined) are all out of it.
  CRingStream* m_pMemoryPool = nullptr;
  std::atomic<DWORD> m_nRingCapacity{0};             // capacity of m_pMemoryPool; 0 when none
  DWORD m_nMemoryPoolSize = kDefaultMemoryPoolSize;  // controlling thread only
  std::wstring m_strDiskPath GUARDED_BY(m_csFiles) = L"C:\\Temp";
  // 0: new records go to memory; 1: to disk. Written under m_csFiles; the
  // producer also reads it without the lock (acquire) to pick its path. Only
  // the producer turns it to 1 and only the mover back to 0, so a stale 1
  // merely sends the producer to WriteToDisk, which re-checks under the lock.
  std::atomic<LONG> m_nDiskState{0};
  std::deque<CFifoDiskFile*> m_arrDiskFiles GUARDED_BY(m_csFiles);  // owned, oldest first
  CFifoDiskFile* m_pWriteFile GUARDED_BY(m_csWriteFile) = nullptr;  // file receiving records
  CRITICAL_SECTION m_csWriteFile;                                   // m_pWriteFile and disk writing
  CRITICAL_SECTION m_csRead;                                        // serialises ReadBuffer; held across its ring waits
  CRITICAL_SECTION m_csFiles ACQUIRED_AFTER(m_csWriteFile, m_csRead);  // m_arrDiskFiles, m_nDiskState, m_pMoveFile
  DWORD m_nLowWater = kLowWater;
  // Mover's staging buffer, allocated by its first move (at least 1 MiB);
  // mover thread only while it runs, freed by the destructor.
  BYTE* m_pMoveBuffer = nullptr;
  DWORD m_nMoveBufferSize = 0;                                 // its size
  CFifoDiskFile* m_pMoveFile GUARDED_BY(m_csFiles) = nullptr;  // file of the requested move
  LONG m_nMoveIndex GUARDED_BY(m_csFiles) = 0;                 // its index in m_arrDiskFiles (always 0)
  std::atomic<bool> m_bEndOfData{false};                       // producer ended; written under m_csFiles
  // Moves requested and not finished (0 or 1). Changed under m_csFiles.
  std::atomic<LONG> m_nPendingMoves{0};
  std::atomic<LONG> m_nBufferingMode{0};   // read by the producer (relaxed: any recent value will do)
  std::atomic<int> m_nProducersInside{0};  // producers inside WriteBuffer; see m_bRunning
};

#endif  // QLTFSDK_FIFO_DATA_FIFO_MAN_H
