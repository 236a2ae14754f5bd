#include "progress.h"

#include <algorithm>
#include <cmath>

#include "qltfsdk/wintypes.h"

std::string FormatRate(double dBitsPerSecond) {
  char text[32];
  if (dBitsPerSecond >= 1e9)
    std::snprintf(text, sizeof text, "%.2f Gbit/s", dBitsPerSecond / 1e9);
  else if (dBitsPerSecond >= 1e6)
    std::snprintf(text, sizeof text, "%.1f Mbit/s", dBitsPerSecond / 1e6);
  else
    std::snprintf(text, sizeof text, "%.1f kbit/s", dBitsPerSecond / 1e3);
  return text;
}

std::string FormatDuration(double dSeconds) {
  long nSeconds = std::lround(std::max(dSeconds, 0.0));
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld", nSeconds / 60, nSeconds % 60);
  return text;
}

ProgressBar::ProgressBar(LONGLONG nTotal, FILE* pOut, bool bInPlace)
    : m_nTotal(nTotal), m_pOut(pOut), m_bInPlace(bInPlace), m_tStart(Clock::now()), m_tLastDrawn(m_tStart) {}

bool ProgressBar::OutputIsTerminal(FILE* pOut) { return QltIsTerminal(pOut) != FALSE; }

void ProgressBar::Start() { m_tStart = m_tLastDrawn = Clock::now(); }

double ProgressBar::Seconds() const { return std::chrono::duration<double>(Clock::now() - m_tStart).count(); }

void ProgressBar::Update(int nPercent, LONGLONG nDone, LONGLONG nPaid) {
  const auto tSince = Clock::now() - m_tLastDrawn;
  if (m_bInPlace ? (m_bDrawn && tSince < kRedrawEvery) : tSince < kLineEvery) return;
  Draw(nPercent, nDone, nPaid, false);
}

void ProgressBar::Finish(LONGLONG nDone) {
  const int nPercent = nDone >= m_nTotal ? 100 : static_cast<int>(m_nTotal > 0 ? nDone * 100 / m_nTotal : 0);
  Draw(nPercent, nDone, nDone, true);
}

void ProgressBar::Draw(int nPercent, LONGLONG nDone, LONGLONG nPaid, bool bLast) {
  constexpr int kWidth = 30;
  const double dSeconds = Seconds();
  const double dRate = dSeconds > 0 ? static_cast<double>(nPaid) * 8 / dSeconds : 0;
  std::string strBar(static_cast<size_t>(std::clamp(nPercent, 0, 100) * kWidth / 100), '#');
  strBar.resize(kWidth, '.');
  std::string strLeft;
  if (bLast)
    strLeft = FormatDuration(dSeconds) + " taken";
  else if (dRate > 0)
    strLeft = FormatDuration(static_cast<double>(m_nTotal - nDone) * 8 / dRate) + " left";
  std::fprintf(m_pOut, "%s[%s] %3d%%  %-14s %-12s%s", m_bInPlace ? "\r" : "", strBar.c_str(), nPercent,
               FormatRate(dRate).c_str(), strLeft.c_str(), m_bInPlace && !bLast ? "" : "\n");
  std::fflush(m_pOut);
  m_tLastDrawn = Clock::now();
  m_bDrawn = true;
}
