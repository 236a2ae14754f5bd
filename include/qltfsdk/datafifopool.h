// QLCT_DataFifoPool: a blocking, ordered record queue between one producer
// thread and one consumer thread.
//
// The producer hands records in with WriteBuffer; the consumer takes them out
// whole, exactly once and in the same order, with ReadBuffer. Inside, a write
// cache ring (16 MiB by default) feeds a memory ring (32 MiB by default)
// through a cache thread, so the producer waits only when both are full. The
// pool keeps everything in memory: it never writes overflow files.
//
// Calling order: Initialize, the setters, StartFifo; then WriteBuffer from the
// producer and ReadBuffer from the consumer, concurrently; the producer ends
// with WriteBuffer(nullptr, 0); StopFifo; destruction (or StartFifo again for
// a new run with empty rings).
//
// Thread rule: Initialize, the setters, StartFifo, StopFifo and destruction
// come from one controlling thread; WriteBuffer from one producer thread;
// ReadBuffer from one consumer thread. StopFifo releases a producer or
// consumer that waits and returns only when every thread the pool started
// has ended.
//
// Every operation returns 0 before Initialize has run. No exception leaves an
// operation: when memory runs out it fails with its failure result and the
// last error ERROR_NOT_ENOUGH_MEMORY, and the pool stays usable.
#ifndef QLTFSDK_DATAFIFOPOOL_H
#define QLTFSDK_DATAFIFOPOOL_H

#include "qltfsdk/export.h"
#include "qltfsdk/wintypes.h"

class KxDataFifoPool;

class QLTFS_API QLCT_DataFifoPool {
 public:
  // No implementation yet: call Initialize first.
  QLCT_DataFifoPool();
  // Stops the pool (as StopFifo) and frees everything it owns.
  virtual ~QLCT_DataFifoPool();
  // A copy would share the implementation: copying is not supported.
  QLCT_DataFifoPool(const QLCT_DataFifoPool&) = delete;
  QLCT_DataFifoPool& operator=(const QLCT_DataFifoPool&) = delete;

  // Creates the implementation if there is none. 1 (0 when out of memory).
  int Initialize();
  // Accepted and ignored. 1.
  int SetFifoOpMode(int nMode);
  // Accepted; the pool always keeps its records in memory. 1.
  int SetBufferingMode(int nMode);
  // Creates the folder (and its missing parents) and stores it. 1 when the
  // folder exists afterwards, 0 otherwise. nSize has no effect.
  int SetDiskPoolProps(CComBSTR strFolder, DWORD nSize);
  // Memory ring capacity in bytes for the next StartFifo. 1; 0 with the
  // last error ERROR_INVALID_PARAMETER (size kept) above 2^31 - 1 bytes.
  int SetMemoryPoolSize(DWORD nBytes);
  // Write cache capacity in bytes for the next StartFifo. 1; 0 with the
  // last error ERROR_INVALID_PARAMETER (size kept) above 2^31 - 1 bytes.
  int SetWriteCacheSize(DWORD nBytes);
  // Stops any earlier run and starts a new one with empty rings. 1 on
  // success; 0 when a ring cannot be allocated (or is smaller than 4 bytes)
  // or a thread cannot be started, with the last error set (the pool is
  // then stopped, and a later StartFifo may succeed).
  int StartFifo();
  // Queues one record of nLen bytes copied from pData, waiting while the
  // pool is full; pData null marks the end of the data (nLen ignored).
  // Returns 1 when queued (or the end marked); 0 when the pool is not
  // started or is being stopped, the end was already marked, nLen is
  // negative, or nLen exceeds the smaller of the two ring capacities (such a
  // record could never fit). A record of 0 bytes is delivered as length 0.
  // Producer thread.
  int WriteBuffer(const void* pData, int nLen);
  // Waits for the next record and copies it into pData, which must hold the
  // longest record the producer writes. Returns 1 with the outcome in nLen:
  // nLen >= 0 is the record's length; -1 means the producer has ended and
  // every record was delivered, or the pool is stopped or not started
  // (returned at once); -2 means a corrupt stored length. A null pData
  // returns 0 with nLen = -1 and consumes nothing. Consumer thread.
  int ReadBuffer(void* pData, int& nLen);
  // Stops the pool, discards whatever is still queued and frees both rings;
  // a waiting producer gets 0 and a waiting consumer -1. 1.
  int StopFifo();

 private:
  KxDataFifoPool* m_pImpl;  // owned; created by Initialize
};

#endif  // QLTFSDK_DATAFIFOPOOL_H
