// The rate-limited file transfer: progress reports, byte-for-byte copies
// through the unbuffered source, abort, host callbacks that throw or abort,
// and a destination that is the source under another name or a bad path.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "qltfsdk/filetransfer.h"
#include "tests/support/temp_dir.h"
#include "transfer/kx_file_transfer.h"

namespace {

namespace fs = std::filesystem;
constexpr int kBlock = 65536;
constexpr int kFastRate = 2000000000;  // fast enough that pacing never waits in these tests

std::string Pattern(size_t nBytes, unsigned nSeed) {
  std::string s(nBytes, '\0');
  for (char& c : s) c = static_cast<char>((nSeed = nSeed * 1103515245u + 12345u) >> 16);
  return s;
}

// Runs fn on its own thread and expects it to return within 20 s. A call
// that hangs cannot be left behind (it still uses the fixture), so the test
// program stops there, after reporting the failure.
void ExpectFinishes(std::function<void()> fn) {
  std::packaged_task<void()> task(std::move(fn));
  std::future<void> f = task.get_future();
  std::thread t(std::move(task));
  if (f.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    std::fprintf(stderr, "the call did not return within 20 s\n");
    std::abort();
  }
  t.join();
}

class TransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_transfer.SetTransferBitrate(kFastRate);
    m_transfer.SetProgressCallBack(&Callback, this);
    ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), m_data));
  }
  // Keeps every report, in order (made on the transfer's thread), then runs
  // m_onReport.
  static void WINAPI Callback(KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
    auto* self = static_cast<TransferTest*>(pUser);
    self->m_reports.push_back(*pInfo);
    if (self->m_onReport) self->m_onReport(*pInfo);
  }
  int Copy(const std::string& src = "src.dat", const std::string& dst = "dst.dat") {
    return m_transfer.TransferFile(CComBSTR(m_dir.wpath(src).c_str()), CComBSTR(m_dir.wpath(dst).c_str()));
  }

  TempDir m_dir;
  QLT_FileTransfer m_transfer;  // as a host uses it: every call contains its exceptions
  std::vector<KX_TRANS_PROGRESS_INFO_ST> m_reports;
  std::function<void(const KX_TRANS_PROGRESS_INFO_ST&)> m_onReport;
  const std::string m_data = Pattern(4 * kBlock, 1);  // the source unless a test writes another
};

// A longer destination is replaced and has the source's size from the first
// report on; a file under one block gets only the final report (and, copied
// in far under a millisecond, still a real rate). Sizes that are not whole
// sectors copy byte for byte, read directly from disk and buffered from tmpfs
// (which refuses direct I/O), with no report once the callback is removed.
TEST_F(TransferTest, ReportsWholePercentsPerBlockAndCopiesAnySizeByteForByte) {
  const std::pair<int, std::vector<int>> cases[] = {{3 * kBlock, {0, 33, 66, 100}}, {kBlock - 1, {100}}};
  for (const auto& [nSize, percents] : cases) {
    SCOPED_TRACE(nSize);
    m_reports.clear();
    std::string data = Pattern(nSize, nSize);
    ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
    ASSERT_TRUE(WriteWholeFile(m_dir.file("dst.dat"), Pattern(5 * kBlock + 17, 2)));
    m_onReport = [&](auto&) { EXPECT_EQ(fs::file_size(m_dir.file("dst.dat")), data.size()); };
    EXPECT_GT(Copy(), 0);
    ASSERT_EQ(m_reports.size(), percents.size());
    for (size_t i = 0; i < percents.size(); ++i) {
      EXPECT_EQ(m_reports[i].nPercent, percents[i]);
      EXPECT_EQ(m_reports[i].bFinished, i + 1 == percents.size() ? 1 : 0);
      EXPECT_EQ(m_reports[i].nBytesDone, std::min<LONGLONG>((i + 1) * kBlock, nSize));
    }
    EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), data);
  }

  m_reports.clear();
  m_transfer.SetProgressCallBack(nullptr, this);
  const std::string strOld = std::getenv("QLTFS_TEST_TMP") ? std::getenv("QLTFS_TEST_TMP") : "";
  if (fs::is_directory("/dev/shm")) ::setenv("QLTFS_TEST_TMP", "/dev/shm", 1);
  TempDir tmpfs;
  ::setenv("QLTFS_TEST_TMP", strOld.c_str(), 1);  // empty means the usual place
  for (const std::string& root : {m_dir.path(), tmpfs.path()}) {
    for (size_t size : {0, 1, 511, 513, 4095, 4097, 65535, 65537, 3 * 65536 + 1000}) {
      SCOPED_TRACE(root + " size " + std::to_string(size));
      std::string data = Pattern(size, static_cast<unsigned>(size));
      ASSERT_TRUE(WriteWholeFile(root + "/src.dat", data));
      const std::wstring src = QltWindowsPath(root + "/src.dat"), dst = QltWindowsPath(root + "/dst.dat");
      EXPECT_GT(m_transfer.TransferFile(CComBSTR(src.c_str()), CComBSTR(dst.c_str())), 0);
      EXPECT_EQ(ReadWholeFile(root + "/dst.dat"), data);
    }
  }
  EXPECT_TRUE(m_reports.empty());
}

// At 8,192 bit/s each block is followed by a 64 s pacing wait: an abort from
// another thread after the first report cuts it short and returns after the
// final report. From the callback, Abort asks and returns, and a nested
// transfer is refused with ERROR_BUSY.
TEST_F(TransferTest, AbortStopsAfterTheCurrentBlockFromAnotherThreadOrTheCallback) {
  m_transfer.SetTransferBitrate(8192);
  std::promise<void> firstReport;
  std::atomic<bool> finalReported{false};
  m_onReport = [&](const KX_TRANS_PROGRESS_INFO_ST& r) {
    if (r.nBytesDone == kBlock && !r.bFinished) firstReport.set_value();
    if (r.bFinished) finalReported = true;
  };
  std::thread aborter([&] {
    firstReport.get_future().wait_for(std::chrono::seconds(20));  // bounded: a silent transfer is aborted anyway
    m_transfer.Abort();
    EXPECT_TRUE(finalReported);  // Abort returns once the transfer has stopped
  });
  EXPECT_GT(Copy(), 0);  // the rate over the whole source
  aborter.join();
  ASSERT_EQ(m_reports.size(), 2u);  // the first block's and the final one
  EXPECT_EQ(m_reports[1].nBytesDone, kBlock);
  EXPECT_EQ(fs::file_size(m_dir.file("dst.dat")), m_data.size());

  m_reports.clear();
  m_transfer.SetTransferBitrate(kFastRate);
  DWORD nNestedError = 0;
  m_onReport = [&](const KX_TRANS_PROGRESS_INFO_ST& r) {
    if (r.nPercent != 25) return;
    nNestedError = Copy("src.dat", "other.dat") == 0 ? GetLastError() : 0;
    m_transfer.Abort();
  };
  ExpectFinishes([this] { EXPECT_GT(Copy(), 0); });
  EXPECT_EQ(nNestedError, static_cast<DWORD>(ERROR_BUSY));
  EXPECT_FALSE(FileExists(m_dir.file("other.dat")));
  ASSERT_EQ(m_reports.size(), 3u);  // 0, 25, final
  EXPECT_EQ(m_reports[2].nBytesDone, 2 * kBlock);
}

// Replacing the destination would empty the source: every spelling of the
// same file is refused before anything is opened, either way round; a copy
// is another file. Missing files and folders, null and empty paths fail
// alike, with no report and without touching either file.
TEST_F(TransferTest, SameFileUnderAnySpellingOrABadPathIsRefusedWithoutDamage) {
  fs::create_directory(fs::u8path(m_dir.file("sub")));
#if defined(_WIN32)
  // Names differ only in case on Windows; a symbolic link needs a privilege
  // that a test cannot count on there.
  const char* pszOtherName = "SRC.DAT";
#else
  fs::create_symlink(m_dir.file("src.dat"), m_dir.file("symlink.dat"));
  const char* pszOtherName = "symlink.dat";
#endif
  fs::create_hard_link(fs::u8path(m_dir.file("src.dat")), fs::u8path(m_dir.file("hardlink.dat")));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("dst.dat"), "keep"));
  for (const char* pszDst : {"src.dat", "./src.dat", "sub/../src.dat", pszOtherName, "hardlink.dat"}) {
    SCOPED_TRACE(pszDst);
    EXPECT_EQ(Copy("src.dat", pszDst), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Copy(pszDst, "src.dat"), 0);
  }
  EXPECT_EQ(Copy("missing.dat", "dst.dat"), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Copy("missing.dat", "new.dat"), 0);
  EXPECT_EQ(Copy("src.dat", "no-such-dir/dst.dat"), 0);
  EXPECT_EQ(m_transfer.TransferFile(nullptr, CComBSTR(m_dir.wpath("dst.dat").c_str())), 0);
  EXPECT_EQ(m_transfer.TransferFile(CComBSTR(m_dir.wpath("src.dat").c_str()), CComBSTR(L"")), 0);
  EXPECT_TRUE(m_reports.empty());
  EXPECT_EQ(ReadWholeFile(m_dir.file("src.dat")), m_data);
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), "keep");
  EXPECT_FALSE(FileExists(m_dir.file("new.dat")));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("copy.dat"), m_data));
  EXPECT_GT(Copy("src.dat", "copy.dat"), 0);
}

// Host code that throws from the callback, during the copy or in the final
// report: the transfer fails (ERROR_CANCELLED), stops copying, still makes
// its final report, and the object answers Abort at once (before any
// transfer too) and runs the next transfer whole.
TEST_F(TransferTest, ThrowingCallbackFailsTheTransferAndLeavesTheObjectUsable) {
  ExpectFinishes([this] { m_transfer.Abort(); });
  const std::pair<bool, std::function<void()>> cases[] = {
      {false, [] { throw std::runtime_error("host failed"); }},
      {false, [] { throw std::bad_alloc(); }},
      {true, [] { throw 7; }},
  };
  for (const auto& c : cases) {
    const bool bInFinal = c.first;  // named locals: a lambda cannot capture a structured binding in C++17
    const std::function<void()>& fnThrow = c.second;
    SCOPED_TRACE(bInFinal ? "in the final report" : "at 25%");
    m_reports.clear();
    m_onReport = [&](auto& r) {
      if (bInFinal ? r.bFinished == 1 : r.nPercent == 25) fnThrow();
    };
    EXPECT_EQ(Copy(), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CANCELLED));
    ASSERT_FALSE(m_reports.empty());
    EXPECT_EQ(m_reports.back().bFinished, 1);
    EXPECT_TRUE(bInFinal || m_reports.back().nBytesDone == 2 * kBlock);  // stopped at the throw
    m_onReport = nullptr;
    ExpectFinishes([this] { m_transfer.Abort(); });
    EXPECT_GT(Copy(), 0);
    EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), m_data);
  }
}

// A clock that moves only when the transfer waits, or when a report moves
// it (standing for slow I/O): the pacing is checked against its schedule
// without waiting for real.
class FakeClock : public CTransferClock {
 public:
  LONGLONG Ticks() override { return m_nNowMs; }
  LONGLONG Frequency() override { return 1000; }
  void Wait(HANDLE, DWORD nMs) override {
    m_waits.push_back(nMs);
    m_nNowMs += nMs;
  }
  LONGLONG m_nNowMs = 5000;
  LONGLONG m_nIoMsPerBlock = 0;
  std::vector<DWORD> m_waits;
};

// The copy waits only when more than 3 ms ahead of its schedule, and then
// exactly as long as it is ahead, so it ends on schedule and the achieved
// rate approaches the limit from below. Slow I/O is not waited for again.
TEST(TransferPacingTest, WaitsOnlyWhenMoreThanThreeMillisecondsAheadOfSchedule) {
  TempDir dir;
  ASSERT_TRUE(WriteWholeFile(dir.file("src.dat"), Pattern(8 * kBlock, 3)));
  struct Case {
    int nBytesPerSecond;  // the limit / 8
    LONGLONG nIoMsPerBlock;
    std::vector<DWORD> waits;
  };
  const Case cases[] = {
      {6553600, 0, {10, 10, 10, 10, 10, 10, 10, 10}},  // a block every 10 ms, instant I/O
      {32768000, 0, {4, 4, 4, 4}},                     // every 2 ms: waits once 4 ms ahead
      {6553600, 7, {6, 6, 6, 6}},                      // 3 ms ahead is not enough to wait
      {6553600, 12, {}},                               // behind all the way
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.nBytesPerSecond) + " B/s, I/O " + std::to_string(c.nIoMsPerBlock) + " ms");
    FakeClock clock;
    clock.m_nIoMsPerBlock = c.nIoMsPerBlock;
    KxFileTransfer transfer;
    transfer.SetClock(&clock);
    transfer.SetTransferBitrate(c.nBytesPerSecond * 8);
    transfer.SetProgressCallBack(
        [](KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
          auto* pClock = static_cast<FakeClock*>(pUser);
          if (!pInfo->bFinished) pClock->m_nNowMs += pClock->m_nIoMsPerBlock;
        },
        &clock);
    const int nRate = transfer.TransferFile(dir.wpath("src.dat").c_str(), dir.wpath("dst.dat").c_str());
    EXPECT_EQ(clock.m_waits, c.waits);
    const LONGLONG nScheduleMs = 8LL * kBlock * 1000 / c.nBytesPerSecond;
    EXPECT_EQ(clock.m_nNowMs - 5000, std::max(nScheduleMs, 8 * c.nIoMsPerBlock));
    EXPECT_GT(nRate, 0);
    EXPECT_LE(nRate, c.nBytesPerSecond * 8);
  }
}

}  // namespace
