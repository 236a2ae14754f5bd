// Read-ahead and write-behind on the local back-end: the same bytes as the
// synchronous path for any request size and ring size, closes in the middle
// of a transfer, and no worker left behind.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "access/kx_file_access_local.h"
#include "diagnostics/sdk_settings.h"
#include "platform/faults.h"
#include "tests/access/access_fixture.h"

namespace {

constexpr int kMiB = 1 << 20;

class AsyncAccessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SdkSettings.ReadMode = 0;
    // A sanitizer runtime starts a helper thread with the first thread of
    // the process: let that happen before counting.
    std::thread([] {}).join();
    m_nThreads = ThreadCount();
  }
  void TearDown() override {
    SdkSettings.ReadMode = 1;
    EXPECT_EQ(ThreadCount(), m_nThreads) << "a worker outlived its accessor";
  }
  CComBSTR Path(const std::string& name) const { return CComBSTR(m_dir.wpath(name).c_str()); }

  TempDir m_dir;
  int m_nThreads = 0;
};

// Ring sizes around the worker's transfer (1.5 MiB) and far below it, with
// request sizes up to and beyond the ring: every request must complete.
const int kRingSizes[] = {4096, 1000000, 1572864, 1572864 + 4096, 3 * kMiB, 10 * kMiB};

TEST_F(AsyncAccessTest, ReadAheadDeliversTheFileForAnyRequestAndRingSize) {
  const size_t kSize = 7 * kMiB + 333;
  ASSERT_TRUE(WritePatternFile(m_dir.file("in.bin"), kSize));
  std::mt19937 rng(7);
  for (int ring : kRingSizes) {
    SCOPED_TRACE("ring " + std::to_string(ring));
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(1, ring), 1);  // before the open: starts with it
    ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
    std::string got;
    std::vector<char> buf(12 * kMiB);
    size_t pos = 0;
    while (pos < kSize) {
      // Sizes near the ring and the worker's transfer, small ones, skips.
      int choice = static_cast<int>(rng() % 6);
      int n = choice == 0   ? ring
              : choice == 1 ? ring - 1 + static_cast<int>(rng() % 3)
              : choice == 2 ? 1572864 + static_cast<int>(rng() % 5000)
              : choice == 3 ? static_cast<int>(rng() % 5000) + 1
                            : static_cast<int>(rng() % (3 * kMiB)) + 1;
      n = std::max(1, std::min(n, 11 * kMiB));
      bool skip = rng() % 8 == 0;
      int r = f.Read(skip ? nullptr : reinterpret_cast<BYTE*>(buf.data()), n);
      ASSERT_EQ(r, static_cast<int>(std::min<size_t>(n, kSize - pos)));
      if (!skip) {
        ASSERT_TRUE(std::string(buf.data(), r) == Pattern(pos, r)) << "at " << pos;
      }
      pos += r;
      ASSERT_EQ(f.GetPosition(), static_cast<__int64>(pos));
    }
    EXPECT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), 10), 0);  // end of file
    EXPECT_EQ(f.CloseFile(), 1);
  }
}

TEST_F(AsyncAccessTest, WriteBehindWritesEveryByteForAnyPieceAndRingSize) {
  std::mt19937 rng(11);
  for (int ring : kRingSizes) {
    SCOPED_TRACE("ring " + std::to_string(ring));
    std::string expected;
    {
      KxFileAccessLocal f;
      ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
      ASSERT_EQ(f.EnableAsyncWrite(1, ring), 1);  // with the file open: at once
      size_t total = 0;
      while (total < 6u * kMiB) {
        // A small piece followed by a large one is what used to stall.
        int n = rng() % 2 ? static_cast<int>(rng() % 1000) + 1 : ring - static_cast<int>(rng() % 3);
        n = std::max(1, std::min(n, 4 * kMiB));
        std::string piece = Pattern(total, n);
        ASSERT_EQ(f.Write(reinterpret_cast<const BYTE*>(piece.data()), n), n);
        expected += piece;
        total += n;
      }
      EXPECT_EQ(f.CloseFile(), 1);  // returns once the worker wrote it all
    }
    EXPECT_TRUE(ReadWholeFile(m_dir.file("out.bin")) == expected);
  }
}

TEST_F(AsyncAccessTest, CloseInTheMiddleOfATransferEndsTheWorker) {
  ASSERT_TRUE(WritePatternFile(m_dir.file("in.bin"), 24 * kMiB));
  const struct {
    const char* name;
    int ring;
  } cases[] = {{"small ring", 64 * 1024}, {"default ring", 10 * kMiB}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(1, c.ring), 1);
    ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
    BYTE b[100];
    ASSERT_EQ(f.Read(b, 100), 100);  // the worker is reading ahead now
    EXPECT_EQ(f.CloseFile(), 1);     // read-ahead dropped, worker joined
    EXPECT_EQ(ThreadCount(), m_nThreads);

    // Write-behind: close straight after queueing far more than the ring.
    std::string data = Pattern(0, 20 * kMiB);
    ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
    ASSERT_EQ(f.EnableAsyncWrite(1, c.ring), 1);
    ASSERT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 20 * kMiB), 20 * kMiB);
    EXPECT_EQ(f.CloseFile(), 1);
    EXPECT_EQ(ThreadCount(), m_nThreads);
    EXPECT_TRUE(ReadWholeFile(m_dir.file("out.bin")) == data);
  }
  // Enabled, never opened, destroyed: the waiting worker ends too.
  {
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncWrite(1, kMiB), 1);
  }
  {
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(1, kMiB), 1);
  }
}

TEST_F(AsyncAccessTest, SeeksAndModeChangesKeepTheByteStreamExact) {
  const size_t kSize = 5 * kMiB;
  ASSERT_TRUE(WritePatternFile(m_dir.file("in.bin"), kSize));
  KxFileAccessLocal f;
  ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
  ASSERT_EQ(f.EnableAsyncRead(1, kMiB), 1);
  std::vector<char> buf(kMiB);
  auto expectRead = [&](int n, size_t at) {
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), n), n);
    EXPECT_TRUE(std::string(buf.data(), n) == Pattern(at, n)) << "at " << at;
  };
  expectRead(100, 0);
  expectRead(250, 100);
  EXPECT_EQ(f.GetPosition(), 350);
  ASSERT_EQ(f.SetPosition(3000001), 1);  // forward, unaligned
  EXPECT_EQ(f.GetPosition(), 3000001);
  expectRead(5000, 3000001);
  ASSERT_EQ(f.SetPosition(17), 1);  // backwards
  expectRead(70000, 17);
  // Turning read-ahead off continues synchronously where the caller was.
  ASSERT_EQ(f.EnableAsyncRead(0, kMiB), 1);
  expectRead(1000, 70017);
  EXPECT_EQ(f.GetPosition(), 71017);
  // And on again, mid-file.
  ASSERT_EQ(f.EnableAsyncRead(1, 3 * kMiB), 1);
  expectRead(kMiB, 71017);
  EXPECT_EQ(f.CloseFile(), 1);
}

TEST_F(AsyncAccessTest, EnablingRulesAndReopens) {
  ASSERT_TRUE(WritePatternFile(m_dir.file("in.bin"), 100000));
  KxFileAccessLocal f;
  EXPECT_EQ(f.EnableAsyncWrite(1, 0), 0);
  EXPECT_EQ(f.EnableAsyncRead(1, -5), 0);
  ASSERT_EQ(f.EnableAsyncRead(1, 64 * 1024), 1);
  // A failed open with read-ahead on, then a good one: no stale ring.
  EXPECT_EQ(f.OpenFile(Path("missing.bin"), 1), 0);
  BYTE b[1000];
  EXPECT_EQ(f.Read(b, 1000), 0);
  ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
  ASSERT_EQ(f.Read(b, 1000), 1000);
  EXPECT_TRUE(std::string(reinterpret_cast<char*>(b), 1000) == Pattern(0, 1000));
  // The other direction does not suit the open file; the ring stays.
  EXPECT_EQ(f.EnableAsyncWrite(1, kMiB), 0);
  EXPECT_EQ(f.Write(b, 10), 0);  // a read-ahead ring takes no writes
  EXPECT_EQ(f.Read(b, -1), 0);   // negative count
  EXPECT_EQ(f.Read(nullptr, -1), 0);
  ASSERT_EQ(f.Read(b, 1000), 1000);
  EXPECT_EQ(f.GetPosition(), 2000);
  EXPECT_EQ(f.CloseFile(), 1);
  // The mode survives the close: a reopen for writing gets write-behind.
  ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
  ASSERT_EQ(f.Write(b, 1000), 1000);
  EXPECT_EQ(f.CloseFile(), 1);
  EXPECT_EQ(ReadWholeFile(m_dir.file("out.bin")), std::string(reinterpret_cast<char*>(b), 1000));
}

TEST_F(AsyncAccessTest, FailedWritesBehindFailTheCloseWithoutAHang) {
  KxFileAccessLocal f;
  ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
  ASSERT_EQ(f.EnableAsyncWrite(1, kMiB), 1);
  std::string data = Pattern(0, 8 * kMiB);
  {
    qlt::fault::Rule rule;
    rule.ops = qlt::fault::kWrite;
    rule.pathPattern = L"*out.bin";
    rule.times = -1;
    qlt::fault::ScopedFault fault(rule);
    // Queued at once: the worker's failures never block the caller.
    ASSERT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 8 * kMiB), 8 * kMiB);
    EXPECT_EQ(f.CloseFile(), 0);
    EXPECT_GE(fault.Fired(), 1);
  }
}

}  // namespace
