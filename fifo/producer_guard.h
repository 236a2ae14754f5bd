// CProducerGuard: counts a producer thread inside a FIFO's write call, so
// that a stop can let every producer leave before it frees what they use.
//
// The guard increments the count when constructed and decrements it when
// destroyed (also when an exception passes). Construct it before testing the
// running flag: the increment and that load pair with the stop's store of
// the flag and its WaitUntilNoneInside (both sequentially consistent), so
// either the producer sees the stop or the stop sees the producer inside.
//
// Thread rule: a guard lives on the producer thread that made it; the count
// it refers to must outlive it. WaitUntilNoneInside comes from the thread
// that stops the FIFO, after it has released every wait a producer could be
// in.
#ifndef QLTFSDK_FIFO_PRODUCER_GUARD_H
#define QLTFSDK_FIFO_PRODUCER_GUARD_H

#include <atomic>

#include "platform/platform.h"

class CProducerGuard {
 public:
  explicit CProducerGuard(std::atomic<int>& nInside) : m_nInside(nInside) { m_nInside.fetch_add(1); }
  ~CProducerGuard() { m_nInside.fetch_sub(1); }
  CProducerGuard(const CProducerGuard&) = delete;
  CProducerGuard& operator=(const CProducerGuard&) = delete;

  // Returns once no producer is counted in nInside. Producers still inside
  // must be on their way out (waiting on nothing), or this never returns.
  static void WaitUntilNoneInside(const std::atomic<int>& nInside) {
    while (nInside.load() > 0) Sleep(1);
  }

 private:
  std::atomic<int>& m_nInside;
};

#endif  // QLTFSDK_FIFO_PRODUCER_GUARD_H
