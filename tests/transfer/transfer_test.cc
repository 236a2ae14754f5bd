// The rate-limited file transfer: progress sequence, replacing and sizing the
// destination, odd sizes through the unbuffered source, failures, and abort
// from another thread and from the callback.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "platform/platform.h"
#include "qltfsdk/filetransfer.h"
#include "tests/support/temp_dir.h"
#include "transfer/kx_file_transfer.h"

namespace {

constexpr int kBlock = 65536;
constexpr int kFastRate = 2000000000;  // fast enough that pacing never waits in these tests

std::string Pattern(size_t nBytes, unsigned nSeed) {
  std::string s(nBytes, '\0');
  unsigned x = nSeed * 2654435761u + 1;
  for (char& c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  return s;
}

// Everything the callback saw, in order. Filled on the transfer's thread.
struct Recorder {
  std::vector<KX_TRANS_PROGRESS_INFO_ST> reports;
  std::vector<uintmax_t> destinationSizes;  // size of the destination at each report
  std::string destination;
  std::function<void(const KX_TRANS_PROGRESS_INFO_ST&)> onReport;

  static void WINAPI Callback(KX_TRANS_PROGRESS_INFO_ST* pInfo, void* pUser) {
    auto* self = static_cast<Recorder*>(pUser);
    self->reports.push_back(*pInfo);
    std::error_code ec;
    if (!self->destination.empty()) self->destinationSizes.push_back(std::filesystem::file_size(self->destination, ec));
    if (self->onReport) self->onReport(*pInfo);
  }
};

// Runs fn on its own thread; true when it returned within the limit. A call
// that hangs is left behind (detached) so that the suite still ends.
bool FinishesWithin(std::function<void()> fn, std::chrono::seconds limit) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> f = done->get_future();
  std::thread t([fn, done] {
    fn();
    done->set_value();
  });
  if (f.wait_for(limit) != std::future_status::ready) {
    t.detach();
    return false;
  }
  t.join();
  return true;
}

class TransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_transfer.SetTransferBitrate(kFastRate);
    m_rec.destination = m_dir.file("dst.dat");
  }
  void UseRecorder() { m_transfer.SetProgressCallBack(&Recorder::Callback, &m_rec); }
  int Copy(const std::string& src = "src.dat", const std::string& dst = "dst.dat") {
    return m_transfer.TransferFile(m_dir.wpath(src).c_str(), m_dir.wpath(dst).c_str());
  }

  TempDir m_dir;
  KxFileTransfer m_transfer;
  Recorder m_rec;
};

TEST_F(TransferTest, ThreeBlocksReportThirdsThenFinalAndReplaceGrownDestination) {
  std::string data = Pattern(3 * kBlock, 1);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("dst.dat"), Pattern(5 * kBlock + 17, 2)));  // longer, replaced
  UseRecorder();

  EXPECT_GT(Copy(), 0);

  ASSERT_EQ(m_rec.reports.size(), 4u);
  const int percents[] = {0, 33, 66, 100};
  for (size_t i = 0; i < 4; ++i) {
    const KX_TRANS_PROGRESS_INFO_ST& r = m_rec.reports[i];
    EXPECT_EQ(r.nPercent, percents[i]);
    EXPECT_EQ(r.bFinished, i == 3 ? 1 : 0);
    EXPECT_EQ(r.nBytesDone, i == 3 ? 3 * kBlock : static_cast<LONGLONG>(i + 1) * kBlock);
    EXPECT_EQ(r.nReserved1, -1);
    EXPECT_EQ(r.nReserved2, -1);
    EXPECT_EQ(r.nReserved4, 0);
    EXPECT_EQ(r.nReserved5, 0);
    EXPECT_EQ(r.dReserved6, 0.0);
    EXPECT_EQ(r.dReserved7, 0.0);
    // The destination had its final size from the first block on.
    EXPECT_EQ(m_rec.destinationSizes[i], data.size());
  }
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), data);
}

TEST_F(TransferTest, OddSizesAreCopiedByteForByte) {
  std::vector<std::string> roots = {m_dir.path()};
  // tmpfs refuses direct I/O: the source is then read buffered.
  std::unique_ptr<TempDir> shm;
  if (std::filesystem::is_directory("/dev/shm")) {
    const char* pOld = std::getenv("QLTFS_TEST_TMP");
    std::string strOld = pOld ? pOld : "";
    ::setenv("QLTFS_TEST_TMP", "/dev/shm", 1);
    shm = std::make_unique<TempDir>();
    if (pOld)
      ::setenv("QLTFS_TEST_TMP", strOld.c_str(), 1);
    else
      ::unsetenv("QLTFS_TEST_TMP");
    roots.push_back(shm->path());
  }
  const size_t sizes[] = {0, 1, 511, 512, 513, 4095, 4097, 65535, 65537, 3 * 65536 + 1000, 200007};
  unsigned seed = 10;
  for (const std::string& root : roots) {
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
}

TEST_F(TransferTest, FileUnderOneBlockGetsOnlyTheFinalReport) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(kBlock - 1, 3)));
  UseRecorder();
  int nRate = Copy();
  // Far under a millisecond, still a real rate.
  EXPECT_GT(nRate, 0);
  ASSERT_EQ(m_rec.reports.size(), 1u);
  EXPECT_EQ(m_rec.reports[0].nPercent, 100);
  EXPECT_EQ(m_rec.reports[0].bFinished, 1);
  EXPECT_EQ(m_rec.reports[0].nBytesDone, kBlock - 1);
}

TEST_F(TransferTest, RemovedCallbackMakesNoReports) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(2 * kBlock + 5, 4)));
  UseRecorder();
  m_transfer.SetProgressCallBack(nullptr, &m_rec);
  EXPECT_GT(Copy(), 0);
  EXPECT_TRUE(m_rec.reports.empty());
}

TEST_F(TransferTest, BitrateOfZeroOrBelowBecomes8192AndStays) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(100, 5)));  // the tail alone: no pacing
  m_transfer.SetTransferBitrate(0);
  EXPECT_GT(Copy(), 0);
  EXPECT_EQ(m_transfer.GetTransferBitrate(), 8192);
  EXPECT_GT(Copy(), 0);
  EXPECT_EQ(m_transfer.GetTransferBitrate(), 8192);
  m_transfer.SetTransferBitrate(-5);
  EXPECT_EQ(m_transfer.GetTransferBitrate(), -5);
  EXPECT_GT(Copy(), 0);
  EXPECT_EQ(m_transfer.GetTransferBitrate(), 8192);
}

TEST_F(TransferTest, BadPathsFailWithoutReportsOrDamage) {
  std::string data = Pattern(kBlock + 3, 6);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("dst.dat"), "keep"));
  UseRecorder();

  EXPECT_EQ(Copy("missing.dat", "dst.dat"), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), "keep");
  EXPECT_EQ(Copy("missing.dat", "new.dat"), 0);
  EXPECT_FALSE(FileExists(m_dir.file("new.dat")));

  EXPECT_EQ(Copy("src.dat", "no-such-dir/dst.dat"), 0);
  EXPECT_EQ(Copy("src.dat", "src.dat"), 0);  // would empty the source
  EXPECT_EQ(m_transfer.TransferFile(nullptr, m_dir.wpath("dst.dat").c_str()), 0);
  EXPECT_EQ(m_transfer.TransferFile(m_dir.wpath("src.dat").c_str(), L""), 0);

  EXPECT_TRUE(m_rec.reports.empty());
  EXPECT_EQ(ReadWholeFile(m_dir.file("src.dat")), data);
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), "keep");
}

TEST_F(TransferTest, FailedReadOrWriteKeepsFullSizeAndStillReports) {
  const std::string size3 = Pattern(3 * kBlock + 700, 7);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), size3));
  UseRecorder();
  struct Case {
    unsigned op;
    const char* file;
    int nth;
  } cases[] = {
      {qlt::fault::kRead, "*src.dat", 2},   // second block
      {qlt::fault::kRead, "*src.dat", 4},   // the tail
      {qlt::fault::kWrite, "*dst.dat", 1},  // first block
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " call " + std::to_string(c.nth));
    m_rec.reports.clear();
    qlt::fault::Rule rule;
    rule.ops = c.op;
    rule.pathPattern = QltUtf8ToWide(c.file);
    rule.nth = c.nth;
    rule.action = qlt::fault::Action::kShort;
    rule.shortBytes = 100;
    qlt::fault::ScopedFault fault(rule);

    EXPECT_EQ(Copy(), 0);
    EXPECT_EQ(fault.Fired(), 1);
    ASSERT_FALSE(m_rec.reports.empty());
    EXPECT_EQ(m_rec.reports.back().nPercent, 100);
    EXPECT_EQ(m_rec.reports.back().bFinished, 1);
    EXPECT_EQ(std::filesystem::file_size(m_dir.file("dst.dat")), size3.size());
  }
}

TEST_F(TransferTest, AbortWithoutRunningTransferReturnsAtOnce) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(kBlock, 8)));
  EXPECT_TRUE(FinishesWithin([this] { m_transfer.Abort(); }, std::chrono::seconds(10)));
  EXPECT_GT(Copy(), 0);
  EXPECT_TRUE(FinishesWithin([this] { m_transfer.Abort(); }, std::chrono::seconds(10)));
  // The earlier abort does not carry over to the next transfer.
  EXPECT_GT(Copy(), 0);
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), Pattern(kBlock, 8));
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
  UseRecorder();

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
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")).substr(0, kBlock), data.substr(0, kBlock));
}

TEST_F(TransferTest, CallbackMayAbortButNotStartAnotherTransfer) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(4 * kBlock, 10)));
  int nNested = -1;
  DWORD nNestedError = 0;
  m_rec.onReport = [&](const KX_TRANS_PROGRESS_INFO_ST& r) {
    if (r.nPercent != 25) return;
    nNested = Copy("src.dat", "other.dat");
    nNestedError = GetLastError();
    m_transfer.Abort();  // from the transfer's own thread: asks and returns
  };
  UseRecorder();
  EXPECT_TRUE(FinishesWithin([this] { EXPECT_GT(Copy(), 0); }, std::chrono::seconds(20)));
  EXPECT_EQ(nNested, 0);
  EXPECT_EQ(nNestedError, static_cast<DWORD>(ERROR_BUSY));
  EXPECT_FALSE(FileExists(m_dir.file("other.dat")));
  ASSERT_EQ(m_rec.reports.size(), 3u);  // 0, 25, final
  EXPECT_EQ(m_rec.reports[2].nBytesDone, 2 * kBlock);
}

TEST(FileTransferFacadeTest, ForwardsToItsImplementation) {
  static_assert(!std::is_copy_constructible_v<QLT_FileTransfer>, "the facade must not be copied");
  static_assert(!std::is_copy_assignable_v<QLT_FileTransfer>, "the facade must not be copied");
  TempDir dir;
  std::string data = Pattern(2 * kBlock + 99, 11);
  ASSERT_TRUE(WriteWholeFile(dir.file("src.dat"), data));
  Recorder rec;
  QLT_FileTransfer transfer;
  EXPECT_EQ(transfer.Initialize(), 1);
  EXPECT_EQ(transfer.SetProgressCallBack(&Recorder::Callback, &rec), 1);
  EXPECT_EQ(transfer.SetTransferBitrate(kFastRate), 1);
  EXPECT_EQ(transfer.Abort(), 1);
  EXPECT_GT(transfer.TransferFile(CComBSTR(dir.wpath("src.dat").c_str()), CComBSTR(dir.wpath("dst.dat").c_str())), 0);
  EXPECT_EQ(ReadWholeFile(dir.file("dst.dat")), data);
  ASSERT_EQ(rec.reports.size(), 3u);  // 0, 50, final
  EXPECT_EQ(rec.reports[1].nPercent, 50);
  EXPECT_EQ(transfer.TransferFile(CComBSTR(), CComBSTR(dir.wpath("dst.dat").c_str())), 0);
}

}  // namespace
