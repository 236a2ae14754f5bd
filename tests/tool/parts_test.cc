// The tool's reusable pieces: the interrupt watch against a real transfer,
// the progress line on a terminal and in a log, the error text.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "errors.h"
#include "interrupt.h"
#include "progress.h"
#include "tests/support/temp_dir.h"
#include "text.h"

namespace {

// An interrupt that arrives before the transfer has started: the stop
// request made then has nothing to act on, yet the copy must still end. The
// first report waits (bounded) until a stop has been requested while the
// transfer runs, so the test does not depend on timing; without the repeated
// request it would copy all 64 blocks.
TEST(InterruptWatchTest, InterruptBeforeTheTransferStartsStillEndsIt) {
  TempDir dir;
  const std::string data(64 * 65536, 'x');
  ASSERT_TRUE(WriteWholeFile(dir.file("src.dat"), data));

  QLT_FileTransfer transfer;
  std::mutex lock;
  std::condition_variable changed;
  bool bRunning = false;           // lock: the first report has come
  bool bStopWhileRunning = false;  // lock: a stop was requested after that
  struct Reports {
    std::mutex* pLock;
    std::condition_variable* pChanged;
    bool* pRunning;
    bool* pStopWhileRunning;
    LONGLONG nFinalBytes = -1;
  } reports{&lock, &changed, &bRunning, &bStopWhileRunning};
  transfer.SetTransferBitrate(1000 * 1000);  // a missed stop would take 34 s
  transfer.SetProgressCallBack(
      [](KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
        auto* r = static_cast<Reports*>(pUser);
        if (pInfo->bFinished) {
          r->nFinalBytes = pInfo->nBytesDone;
          return;
        }
        std::unique_lock<std::mutex> guard(*r->pLock);
        *r->pRunning = true;
        r->pChanged->wait_for(guard, std::chrono::seconds(30), [r] { return *r->pStopWhileRunning; });
      },
      &reports);

  int nRate = 0;
  {
    InterruptWatch watch([&] {
      {
        std::lock_guard<std::mutex> guard(lock);
        if (bRunning) bStopWhileRunning = true;
      }
      changed.notify_all();
      transfer.Abort();
    });
    InterruptWatch::Raise();
    ASSERT_TRUE(InterruptWatch::Interrupted());
    nRate = transfer.TransferFile(dir.wpath("src.dat").c_str(), dir.wpath("dst.dat").c_str());
  }
  EXPECT_GT(nRate, 0);
  EXPECT_TRUE(bStopWhileRunning);
  EXPECT_GT(reports.nFinalBytes, 0);
  EXPECT_LT(reports.nFinalBytes, static_cast<LONGLONG>(data.size()));
}

// What a person sees: redrawn in place on a terminal, whole lines in a log
// (only the last one for a short operation), and the final line either way.
TEST(ProgressBarTest, RedrawsInPlaceOnATerminalAndPrintsLinesOtherwise) {
  TempDir dir;
  for (bool bInPlace : {true, false}) {
    SCOPED_TRACE(bInPlace);
    FILE* pOut = std::fopen(dir.file("out.txt").c_str(), "w+");
    ASSERT_NE(pOut, nullptr);
    ProgressBar bar(1000, pOut, bInPlace);
    bar.Start();
    for (int i = 1; i <= 9; ++i) bar.Update(i * 10, i * 100, i * 100);
    bar.Finish(400);  // stopped early
    std::fclose(pOut);
    const std::string text = ReadWholeFile(dir.file("out.txt"));
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_EQ(text.find('\r') != std::string::npos, bInPlace) << text;
    EXPECT_NE(text.rfind(" 40%"), std::string::npos) << text;
    EXPECT_EQ(text.find("100%"), std::string::npos) << text;
  }
}

TEST(ErrorTextTest, NamesTheFailureThePathAndTheNumber) {
  EXPECT_EQ(CannotText("create", "/x/y", ERROR_PATH_NOT_FOUND),
            "cannot create '/x/y': the path does not exist (error 3)");
  EXPECT_EQ(ErrorText(ERROR_DISK_FULL), "the disk is full (error 112)");
  EXPECT_EQ(ErrorText(99999), "unexpected failure (error 99999)");
}

TEST(TextTest, Utf8AndWideRoundTrip) {
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
  EXPECT_EQ(ToWide(text).size(), 5u);
  EXPECT_EQ(ToUtf8(ToWide(text).c_str()), text);
  EXPECT_EQ(ToUtf8(ToWide("a\xC3").c_str()), "a\xC3");  // cut short: kept, not replaced
}

}  // namespace
