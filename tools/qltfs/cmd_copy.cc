// qltfs copy: copies one file at a bit-rate limit through QLT_FileTransfer,
// with a progress bar on stderr; Ctrl-C aborts the copy cleanly.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "commands.h"
#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Set by the signal handler, read by the watcher thread. A lock-free atomic
// is safe to store from a handler; relaxed ordering is enough because the
// flag carries no data.
std::atomic<int> g_nInterrupted{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal flag must be lock-free");

extern "C" void OnInterrupt(int) { g_nInterrupted.store(1, std::memory_order_relaxed); }

// Parses "20M", "1.5G", "800k", "64000": bits per second, suffixes k/K
// (thousand), M (million), G (billion). False for anything else, for 0 and
// below, and beyond what the transfer accepts (2,147,483,647).
bool ParseRate(const std::string& strText, int* pRate) {
  size_t nUsed = 0;
  double dValue = 0;
  try {
    dValue = std::stod(strText, &nUsed);
  } catch (const std::exception&) {
    return false;
  }
  std::string strSuffix = strText.substr(nUsed);
  if (strSuffix == "k" || strSuffix == "K")
    dValue *= 1e3;
  else if (strSuffix == "M")
    dValue *= 1e6;
  else if (strSuffix == "G")
    dValue *= 1e9;
  else if (!strSuffix.empty())
    return false;
  dValue = std::round(dValue);
  if (!(dValue >= 1 && dValue <= 2147483647.0)) return false;
  *pRate = static_cast<int>(dValue);
  return true;
}

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

// What the progress callback draws with; touched only on the copying thread.
struct ProgressBar {
  static constexpr LONGLONG kBlock = 65536;  // the transfer's block
  LONGLONG m_nTotal = 0;
  Clock::time_point m_tStart = Clock::now();
  LONGLONG m_nFinalBytes = 0;  // bytes written, from the final report

  static void WINAPI OnProgress(KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
    auto* self = static_cast<ProgressBar*>(pUser);
    if (pInfo->bFinished) {
      self->m_nFinalBytes = pInfo->nBytesDone;
      // The final report says 100 even after an abort; draw only a full copy.
      if (pInfo->nBytesDone == self->m_nTotal) self->Draw(100, pInfo->nBytesDone, pInfo->nBytesDone);
      std::fputc('\n', stderr);
      return;
    }
    // A paced block is reported as soon as it is written and then waited
    // for: count the blocks before it, or the rate starts far too high.
    self->Draw(pInfo->nPercent, pInfo->nBytesDone, std::max<LONGLONG>(pInfo->nBytesDone - kBlock, 0));
  }

  // nBytes written so far; nPaid of them are due by now at the limit.
  void Draw(int nPercent, LONGLONG nBytes, LONGLONG nPaid) const {
    constexpr int kWidth = 30;
    double dSeconds = std::chrono::duration<double>(Clock::now() - m_tStart).count();
    double dRate = dSeconds > 0 ? static_cast<double>(nPaid) * 8 / dSeconds : 0;
    std::string strBar(static_cast<size_t>(nPercent * kWidth / 100), '#');
    strBar.resize(kWidth, '.');
    std::string strLeft = dRate > 0 ? FormatDuration(static_cast<double>(m_nTotal - nBytes) * 8 / dRate) + " left" : "";
    std::fprintf(stderr, "\r[%s] %3d%%  %-14s %-12s", strBar.c_str(), nPercent, FormatRate(dRate).c_str(),
                 strLeft.c_str());
    std::fflush(stderr);
  }
};

[[noreturn]] void Fail(const std::string& strMessage, int nExitCode = 1) {
  std::fprintf(stderr, "qltfs copy: %s\n", strMessage.c_str());
  throw CLI::RuntimeError(nExitCode);
}

void RunCopy(const std::string& strSource, const std::string& strDestination, const std::string& strRate) {
  int nRate = 0;
  if (!ParseRate(strRate, &nRate))
    Fail("bad rate '" + strRate + "': give bits per second, optionally with k, M or G (e.g. 20M)", 2);
  std::error_code ec;
  if (!fs::is_regular_file(strSource, ec)) Fail("'" + strSource + "' is not a readable file");
  if (fs::exists(strDestination, ec) && fs::equivalent(strSource, strDestination, ec))
    Fail("source and destination are the same file");

  ProgressBar bar;
  bar.m_nTotal = static_cast<LONGLONG>(fs::file_size(strSource, ec));
  QLT_FileTransfer transfer;
  if (!transfer.Initialize()) Fail("cannot set up the transfer");
  transfer.SetTransferBitrate(nRate);
  transfer.SetProgressCallBack(&ProgressBar::OnProgress, &bar);

  // Ctrl-C only sets a flag; the watcher turns it into Abort, which returns
  // once the copy has stopped. The watcher ends when the copy ends.
  g_nInterrupted.store(0, std::memory_order_relaxed);
  auto pfnOldInt = std::signal(SIGINT, OnInterrupt);
  auto pfnOldTerm = std::signal(SIGTERM, OnInterrupt);
  HANDLE hCopyEnded = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!hCopyEnded) Fail("cannot create an event");
  std::thread watcher([&transfer, hCopyEnded] {
    while (WaitForSingleObject(hCopyEnded, 50) == WAIT_TIMEOUT) {
      if (g_nInterrupted.load(std::memory_order_relaxed)) {
        transfer.Abort();
        return;
      }
    }
  });

  std::wstring wstrSource = QltWindowsPath(fs::absolute(strSource, ec).string());
  std::wstring wstrDestination = QltWindowsPath(fs::absolute(strDestination, ec).string());
  bar.m_tStart = Clock::now();
  int nAchieved = transfer.TransferFile(CComBSTR(wstrSource.c_str()), CComBSTR(wstrDestination.c_str()));
  DWORD nError = GetLastError();
  double dSeconds = std::chrono::duration<double>(Clock::now() - bar.m_tStart).count();
  SetEvent(hCopyEnded);
  watcher.join();
  CloseHandle(hCopyEnded);
  std::signal(SIGINT, pfnOldInt);
  std::signal(SIGTERM, pfnOldTerm);

  if (nAchieved == 0) Fail("copy failed (error " + std::to_string(nError) + ")");
  if (bar.m_nFinalBytes < bar.m_nTotal)
    Fail("copy aborted after " + std::to_string(bar.m_nFinalBytes) + " of " + std::to_string(bar.m_nTotal) +
             " bytes; '" + strDestination + "' keeps its full size",
         130);
  std::fprintf(stdout, "copied %lld bytes in %.2f s: %s (limit %s)\n", static_cast<long long>(bar.m_nTotal), dSeconds,
               FormatRate(nAchieved).c_str(), FormatRate(nRate).c_str());
}

}  // namespace

void AddCopyCommand(CLI::App& app) {
  auto* cmd = app.add_subcommand("copy", "Copy a file at a limited bit rate, with progress; Ctrl-C aborts");
  auto strSource = std::make_shared<std::string>();
  auto strDestination = std::make_shared<std::string>();
  auto strRate = std::make_shared<std::string>("20M");
  cmd->add_option("SRC", *strSource, "File to copy")->required();
  cmd->add_option("DST", *strDestination, "Destination, replaced if it exists")->required();
  cmd->add_option("--rate", *strRate, "Limit in bits per second; suffixes k, M, G (default 20M)");
  cmd->callback([=] { RunCopy(*strSource, *strDestination, *strRate); });
}
