// qltfs copy: copies one file at a bit-rate limit through QLT_FileTransfer,
// with a progress line on stderr; Ctrl-C aborts the copy cleanly.
#include <qltfsdk/qltfsdk.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "places.h"
#include "progress.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;

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

// The transfer's reports, drawn as a progress line; touched only on the
// copying thread.
struct CopyProgress {
  static constexpr LONGLONG kBlock = 65536;  // the transfer's block
  ProgressBar bar;
  bool bReported = false;    // the transfer made at least its final report
  LONGLONG nFinalBytes = 0;  // bytes written, from the final report

  static void WINAPI OnProgress(KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
    auto* self = static_cast<CopyProgress*>(pUser);
    self->bReported = true;
    if (pInfo->bFinished) {
      // The final report says 100 even after an abort: count the bytes.
      self->nFinalBytes = pInfo->nBytesDone;
      self->bar.Finish(pInfo->nBytesDone);
      return;
    }
    // A paced block is reported as soon as it is written and then waited
    // for: count the blocks before it, or the rate starts far too high.
    self->bar.Update(pInfo->nPercent, pInfo->nBytesDone, std::max<LONGLONG>(pInfo->nBytesDone - kBlock, 0));
  }
};

bool CanRead(const std::string& strPath) {
  return static_cast<bool>(std::ifstream(NativePath(strPath), std::ios::binary));
}

// An unfinished copy must not look complete: the transfer gives the
// destination its full size before the first block, so what is left is
// removed. Returns the clause for the message.
std::string RemoveUnfinished(const std::string& strDestination) {
  std::error_code ec;
  const fs::path destination = NativePath(strDestination);
  if (fs::remove(destination, ec) || !fs::exists(destination, ec)) return "'" + strDestination + "' removed";
  return "'" + strDestination + "' could not be removed and is incomplete";
}

void RunCopy(const std::string& strSource, const std::string& strDestination, const std::string& strRate) {
  int nRate = 0;
  if (!ParseRate(strRate, &nRate))
    Fail("copy", "bad rate '" + strRate + "': give bits per second, optionally with k, M or G (e.g. 20M)", 2);
  std::error_code ec;
  if (!fs::exists(NativePath(strSource), ec)) Fail("copy", CannotText("open", strSource, ERROR_FILE_NOT_FOUND));
  // The transfer copies regular files only: a FIFO would block its open and
  // a directory or device has no size to copy.
  if (std::string strKind = NotAFileKind(strSource); !strKind.empty())
    Fail("copy", "cannot copy '" + strSource + "': it is " + strKind + ", not a regular file");
  if (std::string strKind = NotAFileKind(strDestination); !strKind.empty())
    Fail("copy", "cannot copy to '" + strDestination + "': it is " + strKind + "; copy writes regular files only");
  if (IsSameFile(strSource, strDestination))
    Fail("copy", "cannot copy '" + strSource + "' to '" + strDestination + "': they are the same file");
  const LONGLONG nTotal = static_cast<LONGLONG>(fs::file_size(NativePath(strSource), ec));

  QLT_FileTransfer transfer;
  if (!transfer.Initialize()) Fail("copy", "cannot set up the transfer: " + ErrorText(GetLastError()));
  CopyProgress progress{ProgressBar(nTotal, stderr, ProgressBar::OutputIsTerminal(stderr))};
  transfer.SetTransferBitrate(nRate);
  transfer.SetProgressCallBack(&CopyProgress::OnProgress, &progress);

  int nAchieved = 0;
  DWORD nError = ERROR_SUCCESS;
  {
    // Abort returns at once while nothing runs and otherwise once the copy
    // has stopped; the watch repeats it until the copy is over, so an
    // interrupt just before the copy starts still ends it.
    InterruptWatch watch([&transfer] { transfer.Abort(); });
    if (InterruptWatch::Interrupted()) Fail("copy", "interrupted before the copy started", 130);
    progress.bar.Start();
    nAchieved =
        transfer.TransferFile(CComBSTR(LibraryPath(strSource).c_str()), CComBSTR(LibraryPath(strDestination).c_str()));
    nError = GetLastError();
  }
  const double dSeconds = progress.bar.Seconds();

  // The library reports a stopped copy as complete (full size, the rate over
  // the whole file): the bytes of the final report tell what was copied.
  if (nAchieved == 0) {
    if (!progress.bReported)  // an open failed: the source, or else the destination
      Fail("copy",
           CanRead(strSource) ? CannotText("create", strDestination, nError) : CannotText("open", strSource, nError));
    Fail("copy", "copying '" + strSource + "' to '" + strDestination + "' failed after " +
                     std::to_string(progress.nFinalBytes) + " of " + std::to_string(nTotal) +
                     " bytes: " + ErrorText(nError) + "; " + RemoveUnfinished(strDestination));
  }
  if (progress.nFinalBytes < nTotal)
    Fail("copy",
         "copy aborted after " + std::to_string(progress.nFinalBytes) + " of " + std::to_string(nTotal) + " bytes; " +
             RemoveUnfinished(strDestination),
         130);
  std::fprintf(stdout, "copied %lld bytes in %.2f s: %s (limit %s)\n", static_cast<long long>(nTotal), dSeconds,
               FormatRate(nAchieved).c_str(), FormatRate(nRate).c_str());
}

}  // namespace

void AddCopyCommand(CLI::App& app) {
  auto* cmd = app.add_subcommand("copy", "Copy a file at a limited bit rate, with progress; Ctrl-C aborts");
  auto strSource = std::make_shared<std::string>();
  auto strDestination = std::make_shared<std::string>();
  auto strRate = std::make_shared<std::string>("20M");
  cmd->add_option("SRC", *strSource, "File to copy")->required();
  cmd->add_option("DST", *strDestination,
                  "Destination file, replaced if it exists; removed again when the copy fails or is aborted")
      ->required();
  cmd->add_option("--rate", *strRate, "Limit in bits per second; suffixes k, M, G (default 20M)");
  cmd->callback([=] { RunCopy(*strSource, *strDestination, *strRate); });
}
