// The read-ahead / write-behind scheme shared by the local and FTP back-ends.
#include "access/kx_async_file_access.h"

#include <algorithm>
#include <new>

#include "fifo/ring_memory.h"

namespace {

// The read-ahead worker's buffer comes from the rings' memory store: a
// region (page-aligned, so the local back-end can read whole blocks straight
// into it, also without system buffering) that the next read-ahead takes
// again instead of touching fresh pages. A buffer that is not aligned would
// still work: the local back-end then reads through its cache.
BYTE* NewTransfer(int nSize) { return qlt::fifo::AllocRingMemory(static_cast<size_t>(nSize)); }
void FreeTransfer(BYTE* p, int nSize) { qlt::fifo::FreeRingMemory(p, static_cast<size_t>(nSize)); }

}  // namespace

KxAsyncFileAccess::KxAsyncFileAccess(int nReadAheadChunk)
    : m_hFileOpened(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      m_hWorkerDone(CreateEventW(nullptr, TRUE, TRUE, nullptr)),
      m_nReadAheadChunk(std::max(1, nReadAheadChunk)) {}

KxAsyncFileAccess::~KxAsyncFileAccess() {
  // The derived destructor has stopped the worker already; stopping here
  // again is a no-op then, and only a safety net otherwise.
  AsyncStop();
  if (m_hFileOpened) CloseHandle(m_hFileOpened);
  if (m_hWorkerDone) CloseHandle(m_hWorkerDone);
}

int KxAsyncFileAccess::AsyncEnable(bool bRead, int bEnable, int nCapacity, bool bFileOpen, DWORD nOpenMode) {
  // Every check comes before any change: a refused call leaves the running
  // transfer exactly as it was.
  if (nCapacity < kMinAsyncBufferSize) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  // A ring serves one direction; a file open for the other one keeps its
  // direct path rather than racing a worker on the same handle.
  if (bEnable && bFileOpen && nOpenMode != (bRead ? 1u : 2u)) {
    SetLastError(ERROR_INVALID_FUNCTION);
    return 0;
  }
  m_bAsync = bEnable;
  m_nAsyncBufferSize = nCapacity;
  // A write-behind serving an open file is never drained here (on a slow or
  // stalled server that could take minutes): turned off, it goes on until
  // CloseFile writes out what it queued; enabled again, it is replaced only
  // when it holds nothing (the caller is its only producer, so an empty
  // ring stays empty and its worker ends at once).
  if (IsAsyncWrite() && bFileOpen && (!bEnable || m_pRing->HasData())) return 1;
  if (m_pRing) {
    __int64 nResume = AsyncStop();
    if (nResume >= 0 && bFileOpen) ResumeAt(nResume);
  }
  if (!bEnable) return 1;
  // No worker runs now, so the back-end's position is the caller's to read.
  __int64 nFilePos = bFileOpen ? CurrentReadPosition() : 0;
  if (bRead) m_nAsyncPosition = 0;
  if (!StartWorker(bRead, static_cast<DWORD>(nCapacity), nFilePos)) {
    m_bAsync = 0;
    return 0;
  }
  if (bFileOpen) {
    SetEvent(m_hFileOpened);
    m_bOpenSignalled = true;
  }
  return 1;
}

void KxAsyncFileAccess::AsyncOnOpen(DWORD nMode) {
  m_nAsyncPosition = 0;
  bool bRead = nMode == 1;
  if (m_pRing) {
    // A ring made before the open: its worker still waits for the open, so
    // the ring can be emptied under it. One made for the other direction is
    // replaced by one that suits the mode.
    if (m_bWorkerReads == bRead) {
      m_pRing->ResetStream();
      m_nAsyncBase = 0;
      m_nAsyncConsumed = 0;
    } else {
      DWORD nCapacity = m_pRing->GetBufferSize();
      AsyncStop();
      if (!StartWorker(bRead, nCapacity, 0)) m_bAsync = 0;
    }
  } else if (m_bAsync && (nMode == 1 || nMode == 2)) {
    m_nAsyncBufferSize = m_nDefaultAsyncBufferSize;
    if (!StartWorker(bRead, static_cast<DWORD>(m_nDefaultAsyncBufferSize), 0)) m_bAsync = 0;
  }
  SetEvent(m_hFileOpened);
  m_bOpenSignalled = true;
}

__int64 KxAsyncFileAccess::AsyncStop() {
  if (!m_pRing) return -1;
  // Release a worker still waiting for an open; it then finds its stop
  // signal (read) or an ended, empty stream (write) and leaves.
  SetEvent(m_hFileOpened);
  if (m_bWorkerReads) {
    // Close (sticky) releases a worker waiting for ring space now or later;
    // the flag ends its loop between chunks.
    m_bStopWorker.store(1);
    m_worker.RequestStop();
    m_pRing->Close();
    // A released worker may be blocked inside a transfer call of the
    // back-end; one still waiting for an open is not, and the back-end may
    // just have opened a file that must not be disturbed.
    if (m_bOpenSignalled) InterruptWorker();
  } else {
    m_pRing->SetEndOfStream();
  }
  WaitForSingleObject(m_hWorkerDone, INFINITE);
  m_worker.Join();
  __int64 nResume = m_bWorkerReads ? m_nAsyncBase + m_nAsyncConsumed : -1;
  m_pRing->UninitStream();
  delete m_pRing;
  m_pRing = nullptr;
  FreeTransfer(m_pTransfer, m_nTransferSize);
  m_pTransfer = nullptr;
  m_nTransferSize = 0;
  m_bStopWorker.store(0);
  if (!m_bOpenSignalled) ResetEvent(m_hFileOpened);
  return nResume;
}

void KxAsyncFileAccess::AsyncOnClose() {
  ResetEvent(m_hFileOpened);
  m_bOpenSignalled = false;
}

bool KxAsyncFileAccess::AsyncRestart(bool bRead, DWORD nCapacity, __int64 nFilePos) {
  if (!StartWorker(bRead, nCapacity, nFilePos)) {
    m_bAsync = 0;
    return false;
  }
  SetEvent(m_hFileOpened);
  m_bOpenSignalled = true;
  return true;
}

bool KxAsyncFileAccess::StartWorker(bool bRead, DWORD nCapacity, __int64 nFilePos) {
  // Everything the worker needs is made here, so a failure is reported to
  // the enabling call instead of leaving a caller waiting on a dead ring.
  int nPiece = static_cast<int>(std::max<DWORD>(1, nCapacity / 2));
  int nTransfer = bRead ? m_nReadAheadChunk : std::min(kWriteBehindChunk, nPiece);
  CRingStream_Wd* pRing = new (std::nothrow) CRingStream_Wd(L"input Buffering");
  // Read-ahead only: write-behind writes from the ring itself.
  BYTE* pTransfer = bRead ? NewTransfer(nTransfer) : nullptr;
  if (!pRing || (bRead && !pTransfer) || pRing->InitStream(nCapacity) != 0) {
    if (pRing) pRing->UninitStream();
    delete pRing;
    FreeTransfer(pTransfer, nTransfer);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  pRing->ResetStream();
  m_pRing = pRing;
  m_pTransfer = pTransfer;
  m_nTransferSize = nTransfer;
  m_nRingPiece = nPiece;
  m_bWorkerReads = bRead;
  m_nWorkerError.store(0, std::memory_order_relaxed);
  m_nAsyncBase = nFilePos;
  m_nAsyncConsumed = 0;
  m_bStopWorker.store(0);
  ResetEvent(m_hWorkerDone);
  // The worker runs above normal priority, so that read-ahead and
  // write-behind keep pace with the host's thread.
  if (!m_worker.Start([this] { WorkerMain(); }, THREAD_PRIORITY_ABOVE_NORMAL)) {
    SetEvent(m_hWorkerDone);
    m_pRing->UninitStream();
    delete m_pRing;
    m_pRing = nullptr;
    FreeTransfer(m_pTransfer, m_nTransferSize);
    m_pTransfer = nullptr;
    return false;
  }
  return true;
}

void KxAsyncFileAccess::WorkerMain() {
  KxAsyncFileAccess* self = this;
  WaitForSingleObject(self->m_hFileOpened, INFINITE);
  ResetEvent(self->m_hWorkerDone);
  try {
    if (self->m_bWorkerReads)
      self->ReadAheadLoop();
    else
      self->WriteBehindLoop();
  } catch (...) {
    // A hook that threw ends the transfer. A read-ahead caller is released
    // by the stream end below; a write-behind caller is released by taking
    // (and dropping) whatever it still queues until the stream ends.
    if (!self->m_bWorkerReads) {
      while (!self->m_pRing->IsEndOfStream() || self->m_pRing->HasData()) {
        LONG nLen = self->m_nTransferSize;
        self->m_pRing->ReadData(nullptr, nLen, true);
      }
    }
  }
  self->m_pRing->SetEndOfStream();
  SetEvent(self->m_hWorkerDone);
}

void KxAsyncFileAccess::ReadAheadLoop() {
  for (;;) {
    if (m_bStopWorker.load()) return;
    // Whatever arrived is handed on at once: the chunk bounds one transfer
    // call, it is not a unit to wait for.
    int nRead = WorkerRead(m_pTransfer, m_nTransferSize);
    if (nRead < 0) {
      // The caller's read that meets the end says why, instead of looking
      // like the end of the file.
      DWORD nError = GetLastError();
      m_nWorkerError.store(nError != ERROR_SUCCESS ? nError : ERROR_READ_FAULT, std::memory_order_relaxed);
      return;
    }
    if (nRead == 0) return;  // end of file
    int nDone = 0;
    // Hand the bytes over in pieces that always fit beside what the caller
    // is waiting for (see CallerPiece).
    while (nDone < nRead) {
      if (m_bStopWorker.load()) return;
      LONG nLen = std::min(nRead - nDone, m_nRingPiece);
      LONG nAsked = nLen;
      m_pRing->WriteData(m_pTransfer + nDone, nLen);
      if (nLen < nAsked) return;  // StopWriting cut the wait short
      nDone += nLen;
    }
  }
}

void KxAsyncFileAccess::WriteBehindLoop() {
  // The bytes are written from where they lie in the ring (two pieces when
  // they wrap) and leave it only after the write: no copy on this side.
  auto write = [this](const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
    if (n1 > 0) WorkerWrite(p1, static_cast<int>(n1));
    if (n2 > 0) WorkerWrite(p2, static_cast<int>(n2));
  };
  while (!m_pRing->IsEndOfStream() || m_pRing->HasData()) {
    LONG nLen = m_nTransferSize;
    m_pRing->ReadInPlace(nLen, write);
  }
}

int KxAsyncFileAccess::CallerPiece(int nCount) const {
  // Requests up to half the ring go in one call; longer ones are cut into
  // pieces of at most half the ring and 2 MiB. Half the ring (not the whole
  // ring) keeps room for the worker's own piece, so neither side can wait on
  // the other.
  if (nCount <= m_nRingPiece) return nCount;
  return std::min(m_nRingPiece, kMaxCallerPiece);
}

int KxAsyncFileAccess::AsyncRead(BYTE* pBuffer, int nCount) {
  if (!IsAsyncRead() || nCount < 0) return 0;
  int nPiece = CallerPiece(nCount);
  int nTotal = 0;
  while (nTotal < nCount) {
    LONG nLen = std::min(nPiece, nCount - nTotal);
    LONG nAsked = nLen;
    m_pRing->ReadData(pBuffer ? pBuffer + nTotal : nullptr, nLen, pBuffer == nullptr);
    nTotal += nLen;
    if (nLen < nAsked) {
      // The worker ended: end of file, a stop, or a failed read.
      if (DWORD nError = m_nWorkerError.load(std::memory_order_relaxed)) SetLastError(nError);
      break;
    }
  }
  m_nAsyncConsumed += nTotal;
  return nTotal;
}

int KxAsyncFileAccess::AsyncWrite(const BYTE* pBuffer, int nCount) {
  if (!IsAsyncWrite() || !pBuffer || nCount < 0) return 0;
  int nPiece = CallerPiece(nCount);
  int nTotal = 0;
  while (nTotal < nCount) {
    LONG nLen = std::min(nPiece, nCount - nTotal);
    LONG nAsked = nLen;
    m_pRing->WriteData(pBuffer + nTotal, nLen);
    nTotal += nLen;
    if (nLen < nAsked) break;
  }
  return nTotal;
}
