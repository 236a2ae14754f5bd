// The rate-limited file transfer: progress sequence, replacing and sizing the
// destination, odd sizes through the unbuffered source, failures, and abort
// from another thread and from the callback.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "qltfsdk/filetransfer.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/temp_dir.h"
#include "transfer/kx_file_transfer.h"

namespace {

constexpr int kBlock = 65536;
constexpr int kFastRate = 2000000000;  // fast enough that pacing never waits in these tests

std::string Pattern(size_t nBytes, unsigned nSeed) {
  std::minstd_rand gen(nSeed + 1);
  std::string s(nBytes, '\0');
  for (char& c : s) c = static_cast<char>(gen() >> 7);
  return s;
}

// Everything the callback saw, in order. Filled on the transfer's thread.
struct Recorder {
  std::vector<KX_TRANS_PROGRESS_INFO_ST> reports;
  std::function<void(const KX_TRANS_PROGRESS_INFO_ST&)> onReport;

  static void WINAPI Callback(KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
    auto* self = static_cast<Recorder*>(pUser);
    self->reports.push_back(*pInfo);
    if (self->onReport) self->onReport(*pInfo);
  }
};

// Runs fn on its own thread; true when it returned within the limit. A call
// that hangs cannot be left behind (it still uses the fixture), so the test
// program stops there, after reporting the failure.
bool FinishesWithin(std::function<void()> fn, std::chrono::seconds limit) {
  auto task = std::make_shared<std::packaged_task<void()>>(std::move(fn));
  std::future<void> f = task->get_future();
  std::thread t([task] { (*task)(); });
  if (f.wait_for(limit) != std::future_status::ready) {
    ADD_FAILURE() << "the call did not return within " << limit.count() << " s";
    std::fflush(stdout);
    std::abort();
  }
  t.join();
  return true;
}

// A temporary directory on tmpfs, which refuses direct I/O (an unbuffered
// source is then read buffered); in the usual place where there is none.
std::unique_ptr<TempDir> TmpfsDir() {
  const char* pOld = std::getenv("QLTFS_TEST_TMP");
  std::string strOld = pOld ? pOld : "";
  if (std::filesystem::is_directory("/dev/shm")) ::setenv("QLTFS_TEST_TMP", "/dev/shm", 1);
  auto dir = std::make_unique<TempDir>();
  ::setenv("QLTFS_TEST_TMP", strOld.c_str(), 1);  // empty means the usual place
  return dir;
}

class TransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_transfer.SetTransferBitrate(kFastRate);
    m_transfer.SetProgressCallBack(&Recorder::Callback, &m_rec);
  }
  int Copy(const std::string& src = "src.dat", const std::string& dst = "dst.dat") {
    return m_transfer.TransferFile(m_dir.wpath(src).c_str(), m_dir.wpath(dst).c_str());
  }

  TempDir m_dir;
  KxFileTransfer m_transfer;
  Recorder m_rec;
};

// A longer destination is replaced and has the source's size from the first
// report on; a file under one block gets only the final report (and, copied
// in far under a millisecond, still a real rate).
TEST_F(TransferTest, ReportsWholePercentsPerBlockThenFinalOnReplacedDestination) {
  const struct {
    int nSize;
    std::vector<int> percents;
  } cases[] = {{3 * kBlock, {0, 33, 66, 100}}, {kBlock - 1, {100}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.nSize);
    m_rec.reports.clear();
    std::string data = Pattern(c.nSize, c.nSize);
    ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
    ASSERT_TRUE(WriteWholeFile(m_dir.file("dst.dat"), Pattern(5 * kBlock + 17, 2)));
    m_rec.onReport = [&](const KX_TRANS_PROGRESS_INFO_ST&) {
      EXPECT_EQ(std::filesystem::file_size(m_dir.file("dst.dat")), data.size());  // sized at once
    };

    EXPECT_GT(Copy(), 0);
    ASSERT_EQ(m_rec.reports.size(), c.percents.size());
    for (size_t i = 0; i < c.percents.size(); ++i) {
      const KX_TRANS_PROGRESS_INFO_ST& r = m_rec.reports[i];
      EXPECT_EQ(r.nPercent, c.percents[i]);
      EXPECT_EQ(r.bFinished, i + 1 == c.percents.size() ? 1 : 0);
      EXPECT_EQ(r.nBytesDone, std::min<LONGLONG>((i + 1) * kBlock, c.nSize));
    }
    EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), data);
  }
}

// Tails that are not whole sectors, read directly from disk and buffered from
// tmpfs. The callback is removed first: no report may be made.
TEST_F(TransferTest, OddSizesAreCopiedByteForByteWithoutReportsWhenCallbackRemoved) {
  m_transfer.SetProgressCallBack(nullptr, &m_rec);
  std::unique_ptr<TempDir> tmpfs = TmpfsDir();
  const size_t sizes[] = {0, 1, 511, 513, 4095, 4097, 65535, 65537, 3 * 65536 + 1000};
  unsigned seed = 10;
  for (const std::string& root : {m_dir.path(), tmpfs->path()}) {
    for (size_t size : sizes) {
      SCOPED_TRACE(root + " size " + std::to_string(size));
      std::string data = Pattern(size, ++seed);
      ASSERT_TRUE(WriteWholeFile(root + "/src.dat", data));
      EXPECT_GT(
          m_transfer.TransferFile(QltWindowsPath(root + "/src.dat").c_str(), QltWindowsPath(root + "/dst.dat").c_str()),
          0);
      EXPECT_EQ(ReadWholeFile(root + "/dst.dat"), data);
    }
  }
  EXPECT_TRUE(m_rec.reports.empty());
}

TEST_F(TransferTest, BitrateOfZeroOrBelowBecomes8192WhenCopyingAndStays) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(100, 5)));  // the tail alone: no pacing
  for (int nRate : {0, -5}) {
    m_transfer.SetTransferBitrate(nRate);
    EXPECT_EQ(m_transfer.GetTransferBitrate(), nRate);
    for (int i = 0; i < 2; ++i) {
      EXPECT_GT(Copy(), 0);
      EXPECT_EQ(m_transfer.GetTransferBitrate(), 8192);
    }
  }
}

TEST_F(TransferTest, BadPathsFailWithoutReportsOrDamage) {
  std::string data = Pattern(kBlock + 3, 6);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("dst.dat"), "keep"));

  EXPECT_EQ(Copy("missing.dat", "dst.dat"), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Copy("missing.dat", "new.dat"), 0);
  EXPECT_FALSE(FileExists(m_dir.file("new.dat")));
  EXPECT_EQ(Copy("src.dat", "no-such-dir/dst.dat"), 0);
  EXPECT_EQ(m_transfer.TransferFile(nullptr, m_dir.wpath("dst.dat").c_str()), 0);
  EXPECT_EQ(m_transfer.TransferFile(m_dir.wpath("src.dat").c_str(), L""), 0);

  EXPECT_TRUE(m_rec.reports.empty());
  EXPECT_EQ(ReadWholeFile(m_dir.file("src.dat")), data);
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), "keep");
}

TEST_F(TransferTest, FailedReadOrWriteKeepsFullSizeAndStillReports) {
  const std::string data = Pattern(3 * kBlock + 700, 7);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  // A short read of the second block or of the tail; a short first write.
  const std::pair<unsigned, int> cases[] = {{qlt::fault::kRead, 2}, {qlt::fault::kRead, 4}, {qlt::fault::kWrite, 1}};
  for (const auto& [nOp, nNth] : cases) {
    SCOPED_TRACE(std::to_string(nOp) + " call " + std::to_string(nNth));
    m_rec.reports.clear();
    qlt::fault::Rule rule;
    rule.ops = nOp;
    rule.pathPattern = nOp == qlt::fault::kRead ? L"*src.dat" : L"*dst.dat";
    rule.nth = nNth;
    rule.action = qlt::fault::Action::kShort;
    rule.shortBytes = 100;
    qlt::fault::ScopedFault fault(rule);

    EXPECT_EQ(Copy(), 0);
    ASSERT_FALSE(m_rec.reports.empty());
    EXPECT_EQ(m_rec.reports.back().bFinished, 1);
    EXPECT_EQ(std::filesystem::file_size(m_dir.file("dst.dat")), data.size());
  }
}

TEST_F(TransferTest, AbortWithoutRunningTransferReturnsAtOnceAndDoesNotCarryOver) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(kBlock, 8)));
  for (int i = 0; i < 2; ++i) {  // before any transfer, then after a finished one
    EXPECT_TRUE(FinishesWithin([this] { m_transfer.Abort(); }, std::chrono::seconds(10)));
    EXPECT_GT(Copy(), 0);
    EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), Pattern(kBlock, 8));
  }
}

// At 8,192 bit/s each block is followed by a 64 s pacing wait: an abort
// issued after the first report must cut that wait short and stop there.
TEST_F(TransferTest, AbortFromAnotherThreadStopsAfterTheCurrentBlock) {
  std::string data = Pattern(3 * kBlock, 9);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  m_transfer.SetTransferBitrate(8192);
  std::promise<void> firstReport;
  std::atomic<bool> finalReported{false};
  m_rec.onReport = [&](const KX_TRANS_PROGRESS_INFO_ST& r) {
    if (r.nBytesDone == kBlock && !r.bFinished) firstReport.set_value();
    if (r.bFinished) finalReported = true;
  };

  bool finalBeforeAbortReturned = false;
  std::thread aborter([&] {
    // Bounded: a transfer that never reports gets aborted anyway.
    firstReport.get_future().wait_for(std::chrono::seconds(20));
    m_transfer.Abort();
    finalBeforeAbortReturned = finalReported;
  });
  int nRate = Copy();
  aborter.join();

  EXPECT_GT(nRate, 0);  // the rate over the whole source
  EXPECT_TRUE(finalBeforeAbortReturned);
  ASSERT_EQ(m_rec.reports.size(), 2u);
  EXPECT_EQ(m_rec.reports[1].nBytesDone, kBlock);
  EXPECT_EQ(m_rec.reports[1].bFinished, 1);
  EXPECT_EQ(std::filesystem::file_size(m_dir.file("dst.dat")), data.size());
}

TEST_F(TransferTest, CallbackMayAbortButNotStartAnotherTransfer) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(4 * kBlock, 10)));
  DWORD nNestedError = 0;
  m_rec.onReport = [&](const KX_TRANS_PROGRESS_INFO_ST& r) {
    if (r.nPercent != 25) return;
    nNestedError = Copy("src.dat", "other.dat") == 0 ? GetLastError() : 0;
    m_transfer.Abort();  // from the transfer's own thread: asks and returns
  };
  EXPECT_TRUE(FinishesWithin([this] { EXPECT_GT(Copy(), 0); }, std::chrono::seconds(20)));
  EXPECT_EQ(nNestedError, static_cast<DWORD>(ERROR_BUSY));
  EXPECT_FALSE(FileExists(m_dir.file("other.dat")));
  ASSERT_EQ(m_rec.reports.size(), 3u);  // 0, 25, final
  EXPECT_EQ(m_rec.reports[2].nBytesDone, 2 * kBlock);
}

// Replacing the destination would empty the source: every spelling of the
// same file is refused before anything is opened.
TEST_F(TransferTest, SameFileUnderAnySpellingIsRefusedAndSourceKept) {
  namespace fs = std::filesystem;
  const std::string data = Pattern(2 * kBlock + 5, 11);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  fs::create_directory(m_dir.file("sub"));
  fs::create_symlink(m_dir.file("src.dat"), m_dir.file("symlink.dat"));
  fs::create_hard_link(m_dir.file("src.dat"), m_dir.file("hardlink.dat"));
  const std::string sameSpellings[] = {"src.dat", "./src.dat", "sub/../src.dat", "symlink.dat", "hardlink.dat"};
  for (const std::string& dst : sameSpellings) {
    SCOPED_TRACE(dst);
    EXPECT_EQ(Copy("src.dat", dst), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Copy(dst, "src.dat"), 0);
    EXPECT_EQ(ReadWholeFile(m_dir.file("src.dat")), data);
  }
  EXPECT_TRUE(m_rec.reports.empty());
  // A copy of the file is another file: it may be replaced.
  ASSERT_TRUE(WriteWholeFile(m_dir.file("copy.dat"), data));
  EXPECT_GT(Copy("src.dat", "copy.dat"), 0);
}

// Host code that throws from the callback, during the copy or in the final
// report: the transfer fails (ERROR_CANCELLED), stops copying, still makes
// its final report, and the object runs the next transfer and answers Abort
// at once. Through the exported facade as well as the implementation.
TEST_F(TransferTest, ThrowingCallbackFailsTheTransferAndLeavesTheObjectUsable) {
  const std::string data = Pattern(4 * kBlock, 12);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  const struct {
    const char* name;
    bool bInFinal;
    std::function<void()> fnThrow;
  } cases[] = {
      {"runtime_error at 25%", false, [] { throw std::runtime_error("host failed"); }},
      {"bad_alloc at 25%", false, [] { throw std::bad_alloc(); }},
      {"int in the final report", true, [] { throw 7; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    m_rec.reports.clear();
    m_rec.onReport = [&](const KX_TRANS_PROGRESS_INFO_ST& r) {
      if (c.bInFinal ? r.bFinished == 1 : r.nPercent == 25) c.fnThrow();
    };
    EXPECT_EQ(Copy(), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CANCELLED));
    ASSERT_FALSE(m_rec.reports.empty());
    EXPECT_EQ(m_rec.reports.back().bFinished, 1);
    if (!c.bInFinal) {
      EXPECT_EQ(m_rec.reports.back().nBytesDone, 2 * kBlock);  // stopped at the throw
    }

    m_rec.onReport = nullptr;
    EXPECT_TRUE(FinishesWithin([this] { m_transfer.Abort(); }, std::chrono::seconds(20)));
    EXPECT_GT(Copy(), 0);
    EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), data);
  }

  QLT_FileTransfer facade;
  int nCalls = 0;
  auto* pfnThrowing = +[](KX_TRANS_PROGRESS_INFO_ST*, void* pUser) {
    if (++*static_cast<int*>(pUser) == 1) throw std::runtime_error("host failed");
  };
  ASSERT_EQ(facade.SetProgressCallBack(pfnThrowing, &nCalls), 1);
  ASSERT_EQ(facade.SetTransferBitrate(kFastRate), 1);
  EXPECT_EQ(facade.TransferFile(m_dir.wpath("src.dat").c_str(), m_dir.wpath("dst2.dat").c_str()), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CANCELLED));
  EXPECT_EQ(nCalls, 2);  // the throwing report and the final one
  EXPECT_EQ(facade.Abort(), 1);
  EXPECT_GT(facade.TransferFile(m_dir.wpath("src.dat").c_str(), m_dir.wpath("dst2.dat").c_str()), 0);
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst2.dat")), data);
}

// Memory running out at each allocation in turn, from construction through
// the copy: every call fails with 0 and ERROR_NOT_ENOUGH_MEMORY (or
// succeeds), nothing escapes, and a copy that succeeds is whole.
TEST_F(TransferTest, RunningOutOfMemoryAnywhereFailsCleanly) {
  const std::string data = Pattern(2 * kBlock + 100, 13);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  const CComBSTR src(m_dir.wpath("src.dat").c_str()), dst(m_dir.wpath("dst.dat").c_str());
  int nResult = 0;
  DWORD nError = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int) {
                  QLT_FileTransfer transfer;
                  transfer.SetTransferBitrate(kFastRate);
                  nResult = transfer.TransferFile(src, dst);
                  nError = GetLastError();
                },
                [&](int n, bool) {
                  SCOPED_TRACE(n);
                  if (nResult == 0) {
                    EXPECT_EQ(nError, static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
                  } else {
                    EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), data);
                  }
                  EXPECT_EQ(ReadWholeFile(m_dir.file("src.dat")), data);
                }),
            1);
}

}  // namespace
