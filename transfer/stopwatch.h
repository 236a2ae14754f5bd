// Elapsed time on the performance counter.
#ifndef QLTFSDK_TRANSFER_STOPWATCH_H
#define QLTFSDK_TRANSFER_STOPWATCH_H

#include "platform/platform.h"

// Started at construction; read from the thread that owns it.
class CStopwatch {
 public:
  CStopwatch() {
    QueryPerformanceFrequency(&m_nFrequency);
    QueryPerformanceCounter(&m_nStart);
  }
  // Counter ticks since the start; Frequency() ticks make one second.
  LONGLONG Ticks() const {
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return now.QuadPart - m_nStart.QuadPart;
  }
  LONGLONG Frequency() const { return m_nFrequency.QuadPart; }
  // Whole milliseconds since the start.
  LONGLONG Milliseconds() const { return Ticks() * 1000 / m_nFrequency.QuadPart; }

 private:
  LARGE_INTEGER m_nFrequency;
  LARGE_INTEGER m_nStart;
};

#endif  // QLTFSDK_TRANSFER_STOPWATCH_H
