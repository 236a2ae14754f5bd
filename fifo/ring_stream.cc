// The blocking byte ring. Positions and counts move under m_csStream; the
// bytes are copied outside it (see the field comments in ring_stream.h).
#include "fifo/ring_stream.h"

#include <cstring>
#include <new>

#include "fifo/ring_memory.h"
#include "platform/contain.h"

namespace {

// An auto-reset event, or null when the platform cannot make one (InitStream
// then fails): the constructor must not leave events behind by throwing.
HANDLE NewEvent() noexcept {
  return QltContain<HANDLE>(nullptr, [] { return CreateEventW(nullptr, FALSE, FALSE, nullptr); });
}

}  // namespace

CRingStream::CRingStream(const std::wstring& strName)
    : m_strName(strName),
      m_hDataWritten(NewEvent()),
      m_hSpaceFreed(NewEvent()),
      m_hEndMarked(NewEvent()),
      m_hStopWriting(NewEvent()),
      m_hReaderWait{m_hDataWritten, m_hEndMarked},
      m_hWriterWait{m_hSpaceFreed, m_hStopWriting} {
  InitializeCriticalSection(&m_csStream);
  ResetStream();
}

CRingStream::~CRingStream() { DeleteCriticalSection(&m_csStream); }

HRESULT CRingStream::InitStream(DWORD nSize, DWORD nHoldRoom) {
  // Refused before anything changes.
  if (nSize > kMaxCapacity || nHoldRoom > kMaxCapacity - nSize) return E_INVALIDARG;
  if (!m_hDataWritten || !m_hSpaceFreed || !m_hEndMarked || !m_hStopWriting) return E_FAIL;  // no waits possible
  qlt::fifo::FreeRingMemory(m_pBuffer, m_nSpan);
  m_pBuffer = nullptr;
  m_nBufferSize = m_nSpan = m_nHoldRoom = 0;
  m_pBuffer = qlt::fifo::AllocRingMemory(nSize + nHoldRoom);
  if (!m_pBuffer) {
    OutputDebugStringW(L"InitStream ：内存不够 \n");
    return E_FAIL;
  }
  m_nBufferSize = nSize;
  m_nHoldRoom = nHoldRoom;
  m_nSpan = nSize + nHoldRoom;
  {
    CAutoLock lock(&m_csStream);
    m_byState = 0;  // reopens a closed ring
  }
  ResetStream();
  return S_OK;
}

void CRingStream::ResetStream() {
  ResetEvent(m_hDataWritten);
  ResetEvent(m_hSpaceFreed);
  ResetEvent(m_hEndMarked);
  CAutoLock lock(&m_csStream);  // uncontended: neither side is inside
  m_nReadPos = 0;
  m_nWritePos = 0;
  m_nDataLen.store(0, std::memory_order_relaxed);
  m_nFreeLen = static_cast<LONG>(m_nBufferSize);
  m_nHeld = 0;
  // A closed ring stays ended; everything else starts afresh.
  m_byState = (m_byState & RS_CLOSED) ? static_cast<BYTE>(RS_CLOSED | RS_END_OF_STREAM) : 0;
}

void CRingStream::CopyIn(DWORD nPos, const BYTE* pSrc, DWORD nLen) {
  DWORD nFirst = m_nSpan - nPos;
  if (nLen > nFirst) {
    std::memcpy(m_pBuffer + nPos, pSrc, nFirst);
    std::memcpy(m_pBuffer, pSrc + nFirst, nLen - nFirst);
  } else {
    std::memcpy(m_pBuffer + nPos, pSrc, nLen);
  }
}

BOOL CRingStream::WriteData(const void* pSrc, LONG& nLen) {
  if (nLen < 0 || (!pSrc && nLen > 0)) {
    nLen = 0;
    return FALSE;
  }
  bool bMarkEnd = false;
  EnterCriticalSection(&m_csStream);
  for (;;) {
    if (m_byState & RS_END_OF_STREAM) {  // ended or closed: nothing more goes in
      LeaveCriticalSection(&m_csStream);
      nLen = 0;
      return TRUE;
    }
    if (nLen <= m_nFreeLen) break;
    m_byState |= RS_WRITER_WAITING;
    m_nWriterNeeds = nLen;
    LeaveCriticalSection(&m_csStream);
    DWORD nWait = WaitForMultipleObjects(2, m_hWriterWait, FALSE, INFINITE);
    EnterCriticalSection(&m_csStream);
    m_byState &= static_cast<BYTE>(~RS_WRITER_WAITING);  // set again if this writer waits again
    if (nWait == WAIT_OBJECT_0 + 1) {
      // Cut short: write what fits now (the test above then passes), unless
      // the stream has ended meanwhile.
      nLen = m_nFreeLen;
      bMarkEnd = true;
    } else if (nWait != WAIT_OBJECT_0) {  // the wait itself failed: write nothing
      LeaveCriticalSection(&m_csStream);
      nLen = 0;
      return FALSE;
    }
  }
  const DWORD nPos = m_nWritePos;
  if (nLen > 0) m_byState |= RS_WRITING;  // a reader now waits for this copy before it reports the end
  LeaveCriticalSection(&m_csStream);

  // The region after nPos is free space that only this producer writes.
  if (nLen > 0) CopyIn(nPos, static_cast<const BYTE*>(pSrc), static_cast<DWORD>(nLen));

  CAutoLock lock(&m_csStream);
  if (nLen > 0) {
    // nPos < m_nSpan and nLen <= m_nSpan, both at most kMaxCapacity: the
    // sum fits a DWORD.
    DWORD nEnd = nPos + static_cast<DWORD>(nLen);
    m_nWritePos = nEnd >= m_nSpan ? nEnd - m_nSpan : nEnd;
    m_nDataLen.fetch_add(nLen, std::memory_order_relaxed);
    m_nFreeLen -= nLen;
    m_byState &= static_cast<BYTE>(~RS_WRITING);
    // A waiting reader is woken once what it waits for is there, or once
    // the end it saw marked is final with this write done.
    if ((m_byState & RS_READER_WAITING) &&
        (m_nDataLen.load(std::memory_order_relaxed) >= m_nReaderNeeds || (m_byState & RS_END_OF_STREAM))) {
      m_byState &= static_cast<BYTE>(~RS_READER_WAITING);
      SetEvent(m_hDataWritten);
    }
  }
  if (bMarkEnd) MarkEndLocked();
  return TRUE;
}

bool CRingStream::ReadData(void* pDst, LONG& nLen, bool bDiscard) {
  if (nLen < 0 || (!pDst && !bDiscard && nLen > 0)) {
    nLen = 0;
    return false;
  }
  return ReadPieces(nLen, bDiscard ? nullptr : &CopyPieces, pDst);
}

void CRingStream::CopyPieces(void* pContext, const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
  BYTE* pOut = static_cast<BYTE*>(pContext);
  std::memcpy(pOut, p1, n1);
  if (n2 > 0) std::memcpy(pOut + n1, p2, n2);
}

bool CRingStream::EndedLocked() const {
  // Ended for this reader: the end is marked and no write is in flight, so
  // nothing can be added any more.
  return (m_byState & (RS_END_OF_STREAM | RS_WRITING)) == RS_END_OF_STREAM;
}

bool CRingStream::WaitForDataLocked(LONG& nLen) {
  for (;;) {
    LONG nData = m_nDataLen.load(std::memory_order_relaxed);
    if (nData >= nLen) return true;
    if (EndedLocked()) {
      nLen = nData;
      return true;
    }
    m_byState |= RS_READER_WAITING;
    m_nReaderNeeds = nLen;
    LeaveCriticalSection(&m_csStream);
    DWORD nWait = WaitForMultipleObjects(2, m_hReaderWait, FALSE, INFINITE);
    EnterCriticalSection(&m_csStream);
    m_byState &= static_cast<BYTE>(~RS_READER_WAITING);                      // set again if this reader waits again
    if (nWait != WAIT_OBJECT_0 && nWait != WAIT_OBJECT_0 + 1) return false;  // data or end: test again
  }
}

void CRingStream::WakeWriterLocked() {
  // Only once the room it waits for is there: a writer woken for less
  // would only wait again (one wake-up per read instead of per write).
  if ((m_byState & RS_WRITER_WAITING) && m_nFreeLen >= m_nWriterNeeds) {
    m_byState &= static_cast<BYTE>(~RS_WRITER_WAITING);
    SetEvent(m_hSpaceFreed);
  }
}

bool CRingStream::ReadPieces(LONG& nLen, PieceVisitor pVisit, void* pContext) {
  if (nLen < 0) {
    nLen = 0;
    return false;
  }
  EnterCriticalSection(&m_csStream);
  if (!WaitForDataLocked(nLen)) {  // the wait itself failed: consume nothing
    bool bMore = !(m_nDataLen.load(std::memory_order_relaxed) == 0 && EndedLocked());
    LeaveCriticalSection(&m_csStream);
    nLen = 0;
    return bMore;
  }
  const DWORD nPos = m_nReadPos;
  LeaveCriticalSection(&m_csStream);

  // The region after nPos holds data that only this consumer reads.
  if (nLen > 0 && pVisit) {
    const DWORD nWant = static_cast<DWORD>(nLen);
    const DWORD nFirst = m_nSpan - nPos < nWant ? m_nSpan - nPos : nWant;
    pVisit(pContext, m_pBuffer + nPos, nFirst, m_pBuffer, nWant - nFirst);
  }

  CAutoLock lock(&m_csStream);
  if (nLen > 0) {
    DWORD nEnd = nPos + static_cast<DWORD>(nLen);
    m_nReadPos = nEnd >= m_nSpan ? nEnd - m_nSpan : nEnd;
    m_nDataLen.fetch_sub(nLen, std::memory_order_relaxed);
    // Held bytes lie first at the read position and were counted free when
    // they were held.
    LONG nWasHeld = nLen < m_nHeld ? nLen : m_nHeld;
    m_nHeld -= nWasHeld;
    m_nFreeLen += nLen - nWasHeld;
    WakeWriterLocked();
  }
  return !(m_nDataLen.load(std::memory_order_relaxed) == 0 && EndedLocked());
}

bool CRingStream::HoldData(LONG& nLen) {
  CAutoLock lock(&m_csStream);
  if (nLen < 0 || m_nHeld != 0 || nLen > static_cast<LONG>(m_nHoldRoom)) {
    nLen = 0;
    return false;
  }
  const LONG nWant = nLen;
  if (!WaitForDataLocked(nLen) || nLen != nWant) return false;
  m_nHeld = nLen;
  m_nFreeLen += nLen;
  WakeWriterLocked();
  return true;
}

void CRingStream::MarkEndLocked() {
  m_byState |= RS_END_OF_STREAM;
  SetEvent(m_hEndMarked);
  // A writer waiting for space can no longer write anything: release it.
  if (m_byState & RS_WRITER_WAITING) {
    m_byState &= static_cast<BYTE>(~RS_WRITER_WAITING);
    SetEvent(m_hSpaceFreed);
  }
}

void CRingStream::SetEndOfStream() {
  CAutoLock lock(&m_csStream);
  MarkEndLocked();
}

void CRingStream::Close() {
  CAutoLock lock(&m_csStream);
  m_byState |= RS_CLOSED;
  MarkEndLocked();
}

void CRingStream::StopWriting() { SetEvent(m_hStopWriting); }

bool CRingStream::HasData() const { return m_nDataLen.load(std::memory_order_relaxed) > 0; }

bool CRingStream::IsEndOfStream() {
  CAutoLock lock(&m_csStream);
  return (m_byState & RS_END_OF_STREAM) != 0;
}

bool CRingStream::IsReaderWaiting() {
  CAutoLock lock(&m_csStream);
  return (m_byState & RS_READER_WAITING) != 0;
}

bool CRingStream::IsClosed() {
  CAutoLock lock(&m_csStream);
  return (m_byState & RS_CLOSED) != 0;
}

LONG CRingStream::FreeSpace() {
  CAutoLock lock(&m_csStream);
  return m_nFreeLen;
}

void CRingStream::UninitStream() {
  for (HANDLE* ph : {&m_hDataWritten, &m_hSpaceFreed, &m_hEndMarked, &m_hStopWriting}) {
    if (*ph) CloseHandle(*ph);
    *ph = nullptr;
  }
  m_hReaderWait[0] = m_hReaderWait[1] = m_hWriterWait[0] = m_hWriterWait[1] = nullptr;
  qlt::fifo::FreeRingMemory(m_pBuffer, m_nSpan);
  m_pBuffer = nullptr;
  m_nBufferSize = m_nSpan = m_nHoldRoom = 0;
  ResetStream();
}
