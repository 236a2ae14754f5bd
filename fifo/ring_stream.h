// CRingStream: a fixed-capacity blocking byte ring between one producer
// thread and one consumer thread.
//
// A write blocks until the whole block fits; a read blocks until the whole
// requested amount is buffered or the stream has ended. The ring carries no
// framing: the FIFO manager and the data FIFO pool lay length-prefixed
// records over it, the file access back-ends use it as a plain byte pipe.
//
// Ending and closing:
// - SetEndOfStream ends the stream. Reads then return what is buffered and
//   after it nothing (result false). A write whose copy is already under way
//   completes, and its bytes are read before the end shows: a reader never
//   reports the end while such a write is in flight. Every other write (one
//   waiting for space, or one that starts later) writes nothing and returns
//   at once. So once a reader has seen the end with the ring empty, no byte
//   ever appears again until ResetStream starts a new run.
// - Close does the same and stays in force: ResetStream does not undo it,
//   only InitStream does. It is the one signal that stops both sides, from
//   any thread, whenever they call.
// - StopWriting is the older one-shot release of a writer waiting for space:
//   that write takes what fits and then ends the stream.
//
// Thread rule: exactly one producer thread calls WriteData and one consumer
// thread calls ReadData. SetEndOfStream, Close, StopWriting, HasData,
// IsEndOfStream, IsClosed, IsReaderWaiting and FreeSpace may come from any
// thread. InitStream, ResetStream and UninitStream need external
// synchronisation: neither side may be inside WriteData or ReadData (Close
// from any thread followed by a join of both sides is the way to get there).
#ifndef QLTFSDK_FIFO_RING_STREAM_H
#define QLTFSDK_FIFO_RING_STREAM_H

#include <atomic>
#include <string>
#include <type_traits>

#include "platform/platform.h"

class CRingStream {
 public:
  enum : BYTE {
    RS_WRITER_WAITING = 0x01,  // a writer waits for space
    RS_READER_WAITING = 0x02,  // a reader waits for data
    RS_END_OF_STREAM = 0x08,   // the producer will write no more
    RS_WRITING = 0x10,         // a write copies outside the lock (in flight)
    RS_CLOSED = 0x20,          // Close: ended until InitStream
  };
  // Largest capacity: every count and position must fit a 32-bit signed
  // number, and a position plus a length a 32-bit unsigned one.
  static constexpr DWORD kMaxCapacity = 0x7FFFFFFF;

  // Stores the label and creates the four auto-reset events; no buffer yet,
  // so InitStream comes first. Throws only std::bad_alloc for the label; an
  // event the platform cannot make makes every InitStream fail instead.
  explicit CRingStream(const std::wstring& strName);
  // Frees nothing: owners call UninitStream first.
  virtual ~CRingStream();
  CRingStream(const CRingStream&) = delete;
  CRingStream& operator=(const CRingStream&) = delete;

  // Replaces the buffer by one of nSize bytes, empties the ring and clears
  // Close. nHoldRoom bytes more are allocated for HoldData; the capacity a
  // writer sees stays nSize. Returns 0; E_INVALIDARG when nSize plus
  // nHoldRoom exceeds kMaxCapacity, before anything is allocated or
  // changed; E_FAIL (0x80004005) when the buffer (or, at construction, an
  // event) cannot be allocated (the ring then has no buffer until a later
  // InitStream succeeds).
  HRESULT InitStream(DWORD nSize, DWORD nHoldRoom = 0);

  // Copies nLen bytes from pSrc into the ring, waiting until all of them fit.
  // On return nLen holds the bytes written: fewer only when StopWriting cut
  // the wait short (the stream is then marked ended), and none when the
  // stream has ended or been closed before the copy began. A write longer
  // than the capacity waits until one of those. Returns 1; returns 0
  // with nLen = 0 for a negative length or a null source with a positive
  // length. Producer thread only.
  BOOL WriteData(const void* pSrc, LONG& nLen);

  // Takes nLen bytes into pDst (discarded when bDiscard is set; pDst may then
  // be null), waiting until all of them are buffered or the end is marked. On
  // return nLen holds the bytes consumed. Returns false when this read left
  // the ring empty after the end mark, true otherwise; a negative length or a
  // null destination without bDiscard gives false and nLen = 0 with nothing
  // consumed. Consumer thread only.
  bool ReadData(void* pDst, LONG& nLen, bool bDiscard = false);

  // Like ReadData, but hands the bytes to visit(p1, n1, p2, n2) where they
  // lie in the ring instead of copying them out: the first piece and, when
  // they wrap around the end of the buffer, the rest (otherwise n2 is 0).
  // The bytes are consumed once visit returns; it runs without the ring's
  // lock and must not call back into this ring's consumer side. If it
  // throws, the bytes stay unread and the exception propagates.
  // visit is not called when nLen comes back 0. Same result and waits as
  // ReadData. Consumer thread only.
  // Waits, as ReadData does, until nLen bytes are buffered, then counts them
  // as free space for the writer while they stay where they are: the next
  // read (usually in place) takes them, and only then may the writer use
  // their bytes. So the consumer can keep one pending record out of the
  // ring's capacity without copying it out. At most nHoldRoom bytes, one
  // hold at a time. Returns true when held; false with nLen the bytes
  // buffered when the stream ended first, or nLen = 0 for a negative length,
  // one above the hold room, or a hold still pending. Consumer thread only.
  bool HoldData(LONG& nLen);
  // The untyped form: pVisit(pContext, p1, n1, p2, n2); a null pVisit
  // discards the bytes.
  using PieceVisitor = void (*)(void* pContext, const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2);
  bool ReadPieces(LONG& nLen, PieceVisitor pVisit, void* pContext);
  // A PieceVisitor that copies the pieces, in order, to pContext (a byte
  // buffer).
  static void CopyPieces(void* pContext, const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2);
  template <class Visit>
  bool ReadInPlace(LONG& nLen, Visit&& visit) {
    return ReadPieces(
        nLen,
        [](void* pVisit, const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
          (*static_cast<std::remove_reference_t<Visit>*>(pVisit))(p1, n1, p2, n2);
        },
        &visit);
  }

  // Ends the stream (see the top of this file): wakes a waiting reader and
  // releases a writer waiting for space with nothing written. Never waits.
  // Any thread.
  void SetEndOfStream();
  // Ends the stream like SetEndOfStream and keeps it ended across
  // ResetStream until the next InitStream. Any thread, any number of times.
  void Close();
  // Cuts short the current (or, if none waits, the next) write that has to
  // wait for space. The signal stays pending until a write consumes it, even
  // across ResetStream. Any thread.
  void StopWriting();
  // Empties the ring and clears the flags (not a pending StopWriting, and
  // not Close: a closed ring stays ended).
  void ResetStream();
  // True while unread bytes are buffered. Any thread.
  bool HasData() const;
  // True from SetEndOfStream until ResetStream (from Close until
  // InitStream). Any thread.
  bool IsEndOfStream();
  // True from Close until InitStream. Any thread.
  bool IsClosed();
  // True while the consumer waits in ReadData for bytes (a hint). Any thread.
  bool IsReaderWaiting();
  // Bytes a writer may write now without waiting. Any thread.
  LONG FreeSpace();
  // Capacity in bytes (0 before a successful InitStream).
  DWORD GetBufferSize() const { return m_nBufferSize; }
  // Closes the events and frees the buffer; the object is then only destroyed.
  void UninitStream();

 private:
  bool EndedLocked() const REQUIRES(m_csStream);  // ended for the reader: marked, no write in flight
  // False when a wait failed; nLen cut at the end. Leaves m_csStream while
  // it waits and holds it again on return.
  bool WaitForDataLocked(LONG& nLen) REQUIRES(m_csStream);
  void WakeWriterLocked() REQUIRES(m_csStream);
  void MarkEndLocked() REQUIRES(m_csStream);
  void CopyIn(DWORD nPos, const BYTE* pSrc, DWORD nLen);

  const std::wstring m_strName;  // label; immutable
  BYTE m_byState GUARDED_BY(m_csStream) = 0;
  BYTE* m_pBuffer = nullptr;  // owned; replaced only by Init/UninitStream
  DWORD m_nBufferSize = 0;    // capacity <= kMaxCapacity; changed only by InitStream
  DWORD m_nHoldRoom = 0;      // bytes beyond the capacity for HoldData; as m_nBufferSize
  DWORD m_nSpan = 0;          // allocated bytes: m_nBufferSize + m_nHoldRoom; as m_nBufferSize
  HANDLE m_hDataWritten;      // writer -> waiting reader
  HANDLE m_hSpaceFreed;       // reader -> waiting writer
  HANDLE m_hEndMarked;        // SetEndOfStream -> waiting reader
  HANDLE m_hStopWriting;      // StopWriting -> waiting writer
  HANDLE m_hReaderWait[2];    // m_hDataWritten, m_hEndMarked: order matters
  HANDLE m_hWriterWait[2];    // m_hSpaceFreed, m_hStopWriting: order matters
  CRITICAL_SECTION m_csStream;

  // Positions and counts change only under m_csStream. The bytes themselves
  // are copied outside it: between the two lock holds of a write, the region
  // [m_nWritePos, m_nWritePos + len) lies in the free part, which only the
  // single producer touches; between the two holds of a read, the region at
  // m_nReadPos lies in the data part, which only the single consumer touches.
  // A region changes hands only when the counts move under the lock, and the
  // lock orders the copy before the other side sees the new counts.
  // RS_WRITING marks the time between the two holds of a write: the end is
  // not reported to a reader while it is set, and a write that finds the end
  // marked at its first hold copies nothing.
  // Invariant: m_nDataLen - m_nHeld + m_nFreeLen == m_nBufferSize, and
  // m_nHeld <= m_nHoldRoom, so a writer that fits m_nFreeLen never reaches
  // held bytes within the m_nSpan bytes allocated; unread bytes (held ones
  // first) run from m_nReadPos forward, wrapping at m_nSpan, to m_nWritePos.
  DWORD m_nReadPos GUARDED_BY(m_csStream) = 0;
  DWORD m_nWritePos GUARDED_BY(m_csStream) = 0;
  std::atomic<LONG> m_nDataLen{0};             // written under m_csStream; HasData reads it
                                               // without the lock (relaxed: a hint only)
  LONG m_nFreeLen GUARDED_BY(m_csStream) = 0;  // what a writer may write now
  LONG m_nHeld GUARDED_BY(m_csStream) = 0;     // unread bytes counted free
  // What a waiting side waits for (valid while its RS_*_WAITING flag is
  // set): the other side signals only once that much is there.
  LONG m_nReaderNeeds GUARDED_BY(m_csStream) = 0;  // bytes of data
  LONG m_nWriterNeeds GUARDED_BY(m_csStream) = 0;  // bytes of free space
};

// The file access back-ends' name for the same ring.
using CRingStream_Wd = CRingStream;

#endif  // QLTFSDK_FIFO_RING_STREAM_H
