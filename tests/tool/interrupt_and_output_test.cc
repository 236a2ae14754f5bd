// The tool's interrupt watch against a real transfer, and what the tool
// prints: the progress line on a terminal and in a log, the error text and
// the text conversions behind both.
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
// request made then has nothing to act on, yet the copy must still end, so
// the watch repeats it. The transfer starts only once a first stop has
// returned; its first report then waits (bounded) until the watcher starts
// another stop or is inside one. It never waits on a watcher that is blocked
// in Abort (which waits for the transfer): the report sees that stop under
// way and returns. Without the repeated request all 64 blocks are copied.
TEST(InterruptWatchTest, InterruptBeforeTheTransferStartsStillEndsIt) {
  TempDir dir;
  const std::string data(64 * 65536, 'x');
  ASSERT_TRUE(WriteWholeFile(dir.file("src.dat"), data));

  QLT_FileTransfer transfer;
  struct Stops {
    std::mutex lock;
    std::condition_variable changed;
    int nBegun = 0;             // lock: stop calls begun
    bool bInStop = false;       // lock: the watcher is inside a stop call
    bool bWaited = false;       // lock: the first report has waited
    LONGLONG nFinalBytes = -1;  // written by the transfer's thread only
  } stops;
  transfer.SetTransferBitrate(2 * 1000 * 1000);  // a missed stop copies all in 17 s
  transfer.SetProgressCallBack(
      [](KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
        auto* s = static_cast<Stops*>(pUser);
        if (pInfo->bFinished) {
          s->nFinalBytes = pInfo->nBytesDone;
          return;
        }
        std::unique_lock<std::mutex> guard(s->lock);
        if (s->bWaited) return;
        s->bWaited = true;
        const int nSeen = s->nBegun;
        s->changed.wait_for(guard, std::chrono::seconds(10), [s, nSeen] { return s->bInStop || s->nBegun > nSeen; });
      },
      &stops);

  int nRate = 0;
  {
    InterruptWatch watch([&] {
      {
        std::lock_guard<std::mutex> guard(stops.lock);
        stops.bInStop = true;
        ++stops.nBegun;
      }
      stops.changed.notify_all();
      transfer.Abort();
      {
        std::lock_guard<std::mutex> guard(stops.lock);
        stops.bInStop = false;
      }
      stops.changed.notify_all();
    });
    InterruptWatch::Raise();
    ASSERT_TRUE(InterruptWatch::Interrupted());
    {
      std::unique_lock<std::mutex> guard(stops.lock);
      // The first stop has returned: it found nothing running.
      ASSERT_TRUE(
          stops.changed.wait_for(guard, std::chrono::seconds(10), [&] { return stops.nBegun > 0 && !stops.bInStop; }));
    }
    nRate = transfer.TransferFile(dir.wpath("src.dat").c_str(), dir.wpath("dst.dat").c_str());
  }
  EXPECT_GT(nRate, 0);
  EXPECT_GE(stops.nFinalBytes, 0);  // a stop may come before the first block
  EXPECT_LT(stops.nFinalBytes, static_cast<LONGLONG>(data.size()));
}

// What a person sees: redrawn in place on a terminal, whole lines in a log
// (only the last one for a short operation), and the final line either way.
TEST(ProgressBarTest, RedrawsInPlaceOnATerminalAndPrintsLinesOtherwise) {
  TempDir dir;
  for (bool bInPlace : {true, false}) {
    SCOPED_TRACE(bInPlace);
    FILE* pOut = std::fopen(dir.file("out.txt").c_str(), "w+b");
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
  EXPECT_EQ(ToWide(text).size(), sizeof(wchar_t) == 2 ? 6u : 5u);     // 😀 is a surrogate pair in UTF-16
  EXPECT_EQ(ToUtf8(ToWide(text).c_str()), text);
  EXPECT_EQ(ToUtf8(ToWide("a\xC3").c_str()), "a\xC3");  // cut short: kept, not replaced
}

}  // namespace
