// Data FIFO pool: write cache ring, cache thread, FIFO manager.
#include "fifo/kx_data_fifo_pool.h"

#include <algorithm>
#include <new>

#include "fifo/producer_guard.h"

KxDataFifoPool::KxDataFifoPool() {
  InitializeCriticalSection(&m_csForward);
  m_fifoMan.SetBufferingMode(0);
}

KxDataFifoPool::~KxDataFifoPool() {
  StopFifo();
  DeleteCriticalSection(&m_csForward);
}

LONG KxDataFifoPool::SetFifoOpMode(LONG) { return 1; }

LONG KxDataFifoPool::SetBufferingMode(LONG) {
  m_fifoMan.SetBufferingMode(0);  // the pool never spills to disk
  return 1;
}

LONG KxDataFifoPool::SetDiskPoolProps(const std::wstring& strFolder, DWORD) { return m_fifoMan.SetDiskPath(strFolder); }

LONG KxDataFifoPool::SetMemoryPoolSize(DWORD nBytes) { return m_fifoMan.SetMemoryPoolSize(nBytes) ? 1 : 0; }

LONG KxDataFifoPool::SetWriteCacheSize(DWORD nBytes) {
  if (nBytes > CRingStream::kMaxCapacity) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  m_nWriteCacheSize = nBytes;
  return 1;
}

LONG KxDataFifoPool::StartFifo() {
  try {
    return StartRun();
  } catch (const std::bad_alloc&) {
    StopFifo();  // whatever was made so far
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

LONG KxDataFifoPool::StartRun() {
  StopFifo();
  // Rings that cannot hold a record's length and one byte are refused.
  if (m_nWriteCacheSize <= kRecordPrefixBytes || m_fifoMan.GetMemoryPoolSize() <= kRecordPrefixBytes) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  m_pWriteCache = new CRingStream(L"WriteCache");  // bad_alloc: see StartFifo
  if (!m_pWriteCache || m_pWriteCache->InitStream(m_nWriteCacheSize, kHoldRoom) != S_OK) {
    StopFifo();
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  // The manager runs before the cache thread starts feeding it.
  if (!m_fifoMan.StartFifo()) {
    DWORD nError = GetLastError();
    StopFifo();
    SetLastError(nError);
    return 0;
  }
  m_nMaxPayload = std::min(m_nWriteCacheSize, m_fifoMan.GetRingCapacity());
  m_bEndSent.store(false);
  m_bCacheFailed.store(false);
  m_nQueued.store(0);
  if (!m_cacheThread.Start([this] { CacheLoop(); })) {
    DWORD nError = GetLastError();
    StopFifo();
    SetLastError(nError);
    return 0;
  }
  m_bAccepting.store(true);
  return 1;
}

LONG KxDataFifoPool::WriteBuffer(const void* pData, LONG nLen) {
  if (pData && nLen < 0) return 0;
  CProducerGuard inside(m_nProducersInside);  // announce before testing m_bAccepting
  if (!m_bAccepting.load() || m_bEndSent.load(std::memory_order_relaxed)) return 0;
  if (!pData) {
    m_bEndSent.store(true, std::memory_order_relaxed);
    m_pWriteCache->SetEndOfStream();
    return 1;
  }
  if (static_cast<DWORD>(nLen) > m_nMaxPayload) return 0;  // could never fit
  // Short cut: with nothing on its way through the write cache and room in
  // the memory ring, the record goes straight into the ring (one copy fewer,
  // no hand-over). Order and waiting stay as through the cache: the record
  // is behind every earlier one, and the producer still waits only when the
  // write cache is full.
  if (m_nQueued.load() == 0) {
    CAutoLock lock(&m_csForward);  // free: the cache thread holds it only while m_nQueued > 0
    if (m_fifoMan.TryWriteBuffer(pData, nLen)) return 1;
  }
  m_nQueued.fetch_add(1);
  LONG nHead = kRecordPrefixBytes;
  m_pWriteCache->WriteData(&nLen, nHead);
  if (nHead != kRecordPrefixBytes || !m_bAccepting.load()) {  // StopFifo, or a failed cache thread, cut the write short
    if (m_bCacheFailed.load()) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  LONG nBody = nLen;
  m_pWriteCache->WriteData(pData, nBody);
  if (nBody == nLen && m_bAccepting.load()) return 1;
  if (m_bCacheFailed.load()) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

LONG KxDataFifoPool::ReadBuffer(void* pData, LONG& nLen) { return m_fifoMan.ReadBuffer(pData, nLen); }

LONG KxDataFifoPool::StopFifo() {
  m_bAccepting.store(false);
  m_cacheThread.RequestStop();  // also cuts the end-of-data pause short
  // Closing the write cache releases the cache thread waiting for data and
  // a producer waiting for room, at once and for every later call.
  if (m_pWriteCache) m_pWriteCache->Close();
  // Stopping the manager releases the cache thread if it waits for room in
  // the memory ring (and waits until it has left the manager), and releases
  // a consumer waiting in ReadBuffer.
  m_fifoMan.StopFifo();
  m_cacheThread.Join();
  // A producer still inside WriteBuffer waits on nothing any more (both
  // rings are closed); let it leave before the write cache goes.
  CProducerGuard::WaitUntilNoneInside(m_nProducersInside);
  if (m_pWriteCache) {
    m_pWriteCache->UninitStream();
    delete m_pWriteCache;
    m_pWriteCache = nullptr;
  }
  delete[] m_pStaging;
  m_pStaging = nullptr;
  m_nStagingSize = 0;
  return 1;
}

void KxDataFifoPool::CacheLoop() {
  while (!m_cacheThread.StopRequested()) {
    LONG nLen = 0;
    LONG nHead = kRecordPrefixBytes;
    m_pWriteCache->ReadData(&nLen, nHead);
    if (nHead == 0) {
      // End of data and nothing left: tell the manager, and again every
      // 300 ms until the pool is stopped.
      m_fifoMan.WriteBuffer(nullptr, 0);
      WaitForSingleObject(m_cacheThread.StopEvent(), kEndResignalMs);
      continue;
    }
    if (m_cacheThread.StopRequested() || nHead != kRecordPrefixBytes || nLen < 0) break;
    const bool bRoomNow = nLen > 0 && m_fifoMan.RecordRoomNow() >= nLen;
    if (bRoomNow || (nLen > 0 && static_cast<DWORD>(nLen) <= kHoldRoom)) {
      // The record goes across from where it lies in the write cache, one
      // copy. While the memory ring is full it waits there, held: its room
      // counts free for the producer, exactly as if it had been taken out
      // into a staging buffer, so the producer waits no sooner.
      LONG nBody = nLen;
      if (!bRoomNow && (!m_pWriteCache->HoldData(nBody) || m_cacheThread.StopRequested())) break;
      CAutoLock lock(&m_csForward);
      nBody = nLen;
      m_pWriteCache->ReadInPlace(nBody, [&](const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
        if (n1 + n2 == static_cast<DWORD>(nLen))
          m_fifoMan.WriteBufferPieces(p1, static_cast<LONG>(n1), p2, static_cast<LONG>(n2));
      });
      if (nBody != nLen || m_cacheThread.StopRequested()) break;
      m_nQueued.fetch_sub(1);
      continue;
    }
    // A record longer than the hold room (or an empty one) is taken out
    // into the staging buffer.
    if (static_cast<DWORD>(nLen) > m_nStagingSize) {
      BYTE* pBigger = new (std::nothrow) BYTE[static_cast<DWORD>(nLen)];
      if (!pBigger) {
        // This record cannot be carried. Fail the producer's later writes
        // (out of memory) and end the consumer's data after the records
        // already handed over, instead of leaving both waiting.
        m_bCacheFailed.store(true);
        m_pWriteCache->Close();
        m_fifoMan.WriteBuffer(nullptr, 0);
        break;
      }
      delete[] m_pStaging;
      m_pStaging = pBigger;
      m_nStagingSize = static_cast<DWORD>(nLen);
    }
    LONG nBody = nLen;
    if (nLen > 0) m_pWriteCache->ReadData(m_pStaging, nBody);
    if (nBody != nLen || m_cacheThread.StopRequested()) break;
    // An empty record is forwarded like any other, from a payload that is
    // never null, so it cannot be mistaken for the end of data.
    static const BYTE kEmpty = 0;
    CAutoLock lock(&m_csForward);
    m_fifoMan.WriteBuffer(nLen > 0 ? m_pStaging : &kEmpty, nLen);
    m_nQueued.fetch_sub(1);
  }
}
