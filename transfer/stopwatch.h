// Elapsed time for the transfer's pacing, on a clock that tests can replace.
#ifndef QLTFSDK_TRANSFER_STOPWATCH_H
#define QLTFSDK_TRANSFER_STOPWATCH_H

#include "platform/platform.h"

// The time source of a transfer: a counter with its frequency, and the
// pacing wait. The default is the performance counter (monotonic) and a wait
// on the abort event; a test hands its own to KxFileTransfer::SetClock so the
// schedule can be checked without real waiting. Called on the transfer's
// thread only; an implementation must outlive the transfers that use it.
class CTransferClock {
 public:
  virtual ~CTransferClock() = default;
  // The counter now; Frequency() ticks make one second (above 0).
  virtual LONGLONG Ticks() = 0;
  virtual LONGLONG Frequency() = 0;
  // Waits nMs milliseconds, or less once hAbort is signalled.
  virtual void Wait(HANDLE hAbort, DWORD nMs) = 0;

  // The performance counter and a real wait; one shared instance.
  static CTransferClock& Monotonic();
};

// Started at construction on the clock given; read from the thread that owns
// it. The clock is not owned.
class CStopwatch {
 public:
  explicit CStopwatch(CTransferClock& clock)
      : m_clock(clock), m_nFrequency(clock.Frequency()), m_nStart(clock.Ticks()) {}
  // Counter ticks since the start; Frequency() ticks make one second.
  LONGLONG Ticks() const { return m_clock.Ticks() - m_nStart; }
  LONGLONG Frequency() const { return m_nFrequency; }
  // Whole milliseconds since the start.
  LONGLONG Milliseconds() const { return Ticks() * 1000 / m_nFrequency; }
  // The pacing wait (see CTransferClock::Wait).
  void Wait(HANDLE hAbort, DWORD nMs) const { m_clock.Wait(hAbort, nMs); }

 private:
  CTransferClock& m_clock;
  const LONGLONG m_nFrequency;
  const LONGLONG m_nStart;
};

#endif  // QLTFSDK_TRANSFER_STOPWATCH_H
