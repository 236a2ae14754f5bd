// KxDataFifoPool: the data FIFO pool behind QLCT_DataFifoPool.
//
// A write cache ring (16 MiB by default) sits in front of a FIFO manager
// (memory ring, 32 MiB by default, always buffering mode 0). WriteBuffer
// copies a record into the write cache; the cache thread moves each record on
// into the manager; ReadBuffer takes records from the manager. A producer
// therefore waits only when both rings are full.
//
// Thread rule: setters, StartFifo and StopFifo come from one controlling
// thread; while running, one producer thread calls WriteBuffer and one
// consumer thread calls ReadBuffer. StopFifo releases both if they wait (by
// closing both rings: one signal each, in force for every later call), and
// joins the cache thread before it returns. The manager stays in mode 0, so
// it runs no mover thread and never touches the disk.
#ifndef QLTFSDK_FIFO_KX_DATA_FIFO_POOL_H
#define QLTFSDK_FIFO_KX_DATA_FIFO_POOL_H

#include <atomic>
#include <string>
#include <utility>

#include "fifo/data_fifo_man.h"
#include "fifo/ring_stream.h"
#include "platform/platform.h"
#include "platform/worker_thread.h"

class KxDataFifoPool {
 public:
  static constexpr DWORD kDefaultWriteCacheSize = 0x1000000;  // 16 MiB
  // Room beyond the write cache's capacity in which the cache thread holds
  // a record of up to this size while the memory ring is full; longer
  // records are taken out into a staging buffer made for them.
  static constexpr DWORD kHoldRoom = 0x100000;
  static constexpr DWORD kEndResignalMs = 300;
  // The longest payload a producer queues as one record in a pool whose
  // rings are nMemoryPoolSize and nWriteCacheSize bytes (each from 5 to
  // CRingStream::kMaxCapacity): the smaller ring less one length field.
  static constexpr LONG LargestPayload(DWORD nMemoryPoolSize, DWORD nWriteCacheSize) {
    const DWORD nSmaller = nMemoryPoolSize < nWriteCacheSize ? nMemoryPoolSize : nWriteCacheSize;
    return static_cast<LONG>((nSmaller > CRingStream::kMaxCapacity ? CRingStream::kMaxCapacity : nSmaller) -
                             static_cast<DWORD>(kRecordPrefixBytes));
  }

  // Stopped; the manager is set to buffering mode 0.
  KxDataFifoPool();
  // Stops the pool (see StopFifo).
  virtual ~KxDataFifoPool();
  KxDataFifoPool(const KxDataFifoPool&) = delete;
  KxDataFifoPool& operator=(const KxDataFifoPool&) = delete;

  // No effect; 1.
  LONG SetFifoOpMode(LONG nMode);
  // Sets the manager's mode 0 whatever nMode is; 1.
  LONG SetBufferingMode(LONG nMode);
  // The manager's SetDiskPath: 1 when the folder exists afterwards, else 0.
  // nSize has no effect. Throws std::bad_alloc only (the facade contains it).
  LONG SetDiskPoolProps(const std::wstring& strFolder, DWORD nSize);
  // Ring capacities for the next StartFifo; 1. 0 with ERROR_INVALID_PARAMETER
  // (size kept) above CRingStream::kMaxCapacity.
  LONG SetMemoryPoolSize(DWORD nBytes);
  LONG SetWriteCacheSize(DWORD nBytes);
  // Stops any run, then starts a new one with empty rings. 1 on success; 0
  // when a ring cannot be allocated or the cache
  // thread cannot be started (last error set), leaving the pool stopped and
  // ready for another StartFifo. A ring of 4 bytes or fewer (no room for a
  // record's length and one byte) is refused with ERROR_INVALID_PARAMETER.
  // Never throws: out of memory gives 0 with ERROR_NOT_ENOUGH_MEMORY.
  LONG StartFifo();
  // Queues one record (pData, nLen), waiting while the write cache lacks
  // room; a null pData marks the end of the data (nLen ignored). 1 when
  // queued or the end is marked; 0 when the pool is not started, is
  // stopping, the end was already marked, nLen is negative or nLen exceeds
  // the smaller ring's capacity. A payload of 0 bytes is a record too: the
  // consumer receives it as length 0. Producer thread.
  LONG WriteBuffer(const void* pData, LONG nLen);
  // Takes the next record into pData (which must hold the longest record
  // the producer writes), waiting until one is there; returns 1 with the
  // outcome in nLen: L >= 0 bytes, -1 end of data or a stopped pool, -2 a
  // corrupt stored length. A null pData gives 0 and nLen = -1, consuming
  // nothing. Consumer thread.
  LONG ReadBuffer(void* pData, LONG& nLen);
  // Like ReadBuffer, but shows the payload where it lies in the memory ring
  // (see CDataFifoMan::ReadBufferInPlace) instead of copying it. Consumer
  // thread.
  template <class Visit>
  LONG ReadBufferInPlace(LONG& nLen, Visit&& visit) {
    return m_fifoMan.ReadBufferInPlace(nLen, std::forward<Visit>(visit));
  }
  // Stops the pool, discarding whatever is still queued, and frees both
  // rings. Releases a producer or consumer that waits. 1.
  LONG StopFifo();

 private:
  LONG StartRun();  // StartFifo without the exception guard
  void CacheLoop();

  // Write cache; created by StartFifo, freed by StopFifo once the producer
  // (m_nProducersInside) and the cache thread (joined) are out of it.
  CRingStream* m_pWriteCache = nullptr;
  CDataFifoMan m_fifoMan;  // thread rules of its own
  // Cache thread: started by StartFifo, joined by StopFifo (controlling
  // thread). Its stop event also cuts the end-of-data pause short.
  CWorkerThread m_cacheThread{L"FIFO write cache"};
  DWORD m_nWriteCacheSize = kDefaultWriteCacheSize;  // controlling thread only
  BYTE* m_pStaging = nullptr;                        // cache thread's buffer for long records; made on demand
  DWORD m_nStagingSize = 0;                          // its size
  // WriteBuffer is open. Sequentially consistent, paired with
  // m_nProducersInside the same way as the manager's m_bRunning: either a
  // producer sees false or StopFifo sees it inside and releases it.
  std::atomic<bool> m_bAccepting{false};
  std::atomic<int> m_nProducersInside{0};
  std::atomic<bool> m_bEndSent{false};  // the producer has marked the end
  // The cache thread could not carry a record (out of memory) and has closed
  // the write cache; written by it, read by the producer.
  std::atomic<bool> m_bCacheFailed{false};
  DWORD m_nMaxPayload = 0;  // smaller ring capacity; set before m_bAccepting
  // Records accepted into the write cache and not yet handed to the manager.
  // Only the producer increments it (under m_csForward) and only the cache
  // thread decrements it (under m_csForward, after the hand-over). While it
  // is 0 no record is on its way through the cache, so the producer may put
  // a record straight into the manager's memory ring without overtaking one.
  std::atomic<LONG> m_nQueued{0};
  // Serialises the two writers of the manager: the cache thread's hand-over
  // and the producer's direct write.
  CRITICAL_SECTION m_csForward;
};

#endif  // QLTFSDK_FIFO_KX_DATA_FIFO_POOL_H
