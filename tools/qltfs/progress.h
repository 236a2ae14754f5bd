// The progress line of a long qltfs command (copy, write, read).
#ifndef QLTFS_TOOL_PROGRESS_H
#define QLTFS_TOOL_PROGRESS_H

#include <qltfsdk/qltfsdk.h>

#include <chrono>
#include <cstdio>
#include <string>

// "20.0 Mbit/s", "1.50 Gbit/s", "800.0 kbit/s".
std::string FormatRate(double dBitsPerSecond);
// "m:ss".
std::string FormatDuration(double dSeconds);

// Shows how far an operation over nTotal bytes has come: bar, percent, rate
// and time left. On a terminal one line is redrawn in place (at most ten
// times a second); otherwise (a log file, a pipe) a line is printed every
// few seconds, so the output stays short and readable. Finish prints the
// last line either way.
//
// Used from one thread at a time (the one the operation reports on).
class ProgressBar {
 public:
  static constexpr std::chrono::milliseconds kRedrawEvery{100};
  static constexpr std::chrono::seconds kLineEvery{5};

  // pOut is not owned; bInPlace: redraw in place (see OutputIsTerminal).
  ProgressBar(LONGLONG nTotal, FILE* pOut, bool bInPlace);
  // True when pOut is a terminal.
  static bool OutputIsTerminal(FILE* pOut);

  // Restarts the clock the rate is measured on.
  void Start();
  // nDone bytes are done; nPaid of them count for the rate (a paced writer
  // reports a block before waiting for it).
  void Update(int nPercent, LONGLONG nDone, LONGLONG nPaid);
  // The last line: 100 % when all nTotal bytes are done, else where the
  // operation stopped. Call once.
  void Finish(LONGLONG nDone);
  // Seconds since Start.
  double Seconds() const;

 private:
  using Clock = std::chrono::steady_clock;
  void Draw(int nPercent, LONGLONG nDone, LONGLONG nPaid, bool bLast);

  const LONGLONG m_nTotal;
  FILE* const m_pOut;
  const bool m_bInPlace;
  Clock::time_point m_tStart;
  Clock::time_point m_tLastDrawn;
  bool m_bDrawn = false;
};

#endif  // QLTFS_TOOL_PROGRESS_H
