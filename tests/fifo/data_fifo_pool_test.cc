// The exported pool as a host uses it: through the SDK library.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "qltfsdk/datafifopool.h"
#include "tests/fifo/fifo_test_util.h"
#include "tests/support/temp_dir.h"

using fifotest::Background;
using fifotest::kShortWait;

namespace {

class DataFifoPoolTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(m_pool.Initialize(), 1); }

  std::string Read() {
    int n = 0;
    EXPECT_EQ(m_pool.ReadBuffer(m_buf.data(), n), 1);
    return n < 0 ? "<" + std::to_string(n) + ">" : std::string(m_buf.data(), static_cast<size_t>(n));
  }
  int Write(const std::string& s) { return m_pool.WriteBuffer(s.data(), static_cast<int>(s.size())); }

  QLCT_DataFifoPool m_pool;
  std::vector<char> m_buf = std::vector<char>(4 << 20);
};

TEST_F(DataFifoPoolTest, RecordsOfMixedSizesComeOutWholeAndInOrder) {
  ASSERT_EQ(m_pool.StartFifo(), 1);
  const std::string records[] = {"A", fifotest::MakeRecord(1, 2 << 20), "12345", "", "after"};
  for (const std::string& r : records) EXPECT_EQ(Write(r), 1);  // an empty record neither ends nor stalls the flow
  EXPECT_EQ(m_pool.WriteBuffer(nullptr, 0), 1);
  for (const std::string& r : records) EXPECT_TRUE(Read() == r) << r.size();
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_EQ(m_pool.StopFifo(), 1);
}

TEST_F(DataFifoPoolTest, SixthRecordWaitsOnFullTinyRingsEvenInDiskModeAndStopReleasesEveryThread) {
  const int before = fifotest::BaselineThreadCount();
  TempDir dir;
  EXPECT_EQ(m_pool.SetFifoOpMode(7), 1);
  EXPECT_EQ(m_pool.SetBufferingMode(1), 1);  // accepted, but the pool keeps its records in memory
  EXPECT_EQ(m_pool.SetDiskPoolProps(CComBSTR(dir.wpath("one").append(L"\\two").c_str()), 12345), 1);
  EXPECT_TRUE(FileExists(dir.file("one/two")));
  m_pool.SetWriteCacheSize(64);
  m_pool.SetMemoryPoolSize(64);
  ASSERT_EQ(m_pool.StartFifo(), 1);
  EXPECT_EQ(fifotest::ThreadCount(), before + 1);  // the cache thread: a manager in mode 0 runs no mover
  std::atomic<int> written{0};
  int lastResult = 1;
  auto writtenOnceAtLeast = [&](int n) {
    auto deadline = std::chrono::steady_clock::now() + fifotest::kLongWait;
    while (written.load() < n && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return written.load();
  };
  {
    Background producer(
        [&] {
          for (int i = 0; (lastResult = Write(std::string(20, static_cast<char>('a' + i)))) == 1; ++i) ++written;
        },
        [&] { m_pool.StopFifo(); });
    ASSERT_EQ(writtenOnceAtLeast(5), 5);
    EXPECT_FALSE(producer.Done(kShortWait));  // the sixth record waits
    EXPECT_EQ(written.load(), 5);
    EXPECT_EQ(Read(), std::string(20, 'a'));
    EXPECT_GE(writtenOnceAtLeast(6), 6);  // and goes in once a record is out
    EXPECT_EQ(m_pool.StopFifo(), 1);      // releases the producer and the cache thread, both on full rings
    ASSERT_TRUE(producer.Done());
  }
  EXPECT_EQ(lastResult, 0);
  EXPECT_EQ(fifotest::ThreadCountSettling(before), before);
  EXPECT_EQ(Write("late"), 0);
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_TRUE(fifotest::DirEntries(dir.file("one/two")).empty());
}

TEST_F(DataFifoPoolTest, EndOfDataOrStopReleasesAWaitingConsumerAtOnce) {
  for (bool bStop : {false, true}) {
    ASSERT_EQ(m_pool.StartFifo(), 1);
    std::string got;
    Background consumer([&] { got = Read(); }, [&] { m_pool.StopFifo(); });
    EXPECT_FALSE(consumer.Done(kShortWait));
    if (bStop)
      m_pool.StopFifo();
    else
      m_pool.WriteBuffer(nullptr, 0);
    // The 300 ms re-signal of the end of data is a fallback only: the first
    // signal goes out at once.
    EXPECT_TRUE(consumer.Done(std::chrono::milliseconds(300))) << bStop;
    ASSERT_TRUE(consumer.Done());
    EXPECT_EQ(got, "<-1>");
  }
}

TEST_F(DataFifoPoolTest, BadCallsGetClearResults) {
  EXPECT_EQ(Write("early"), 0);  // before StartFifo
  EXPECT_EQ(Read(), "<-1>");
  m_pool.SetWriteCacheSize(2);  // too small for a record's length
  EXPECT_EQ(m_pool.StartFifo(), 0);
  EXPECT_EQ(m_pool.StopFifo(), 1);
  m_pool.SetWriteCacheSize(64);
  m_pool.SetMemoryPoolSize(128);
  ASSERT_EQ(m_pool.StartFifo(), 1);  // a new run after the failed start
  EXPECT_EQ(m_pool.WriteBuffer("x", -3), 0);
  EXPECT_EQ(Write(std::string(65, 'x')), 0);  // longer than the write cache: refused at once
  EXPECT_EQ(Write(std::string(64, 'y')), 1);  // exactly the capacity is fine
  int n = 0;
  EXPECT_EQ(m_pool.ReadBuffer(nullptr, n), 0);
  EXPECT_EQ(n, -1);
  EXPECT_EQ(Read(), std::string(64, 'y'));  // the null read consumed nothing
  EXPECT_EQ(m_pool.WriteBuffer(nullptr, 0), 1);
  EXPECT_EQ(Write("after end"), 0);

  QLCT_DataFifoPool bare;  // never initialised
  EXPECT_EQ(bare.StartFifo(), 0);
  EXPECT_EQ(bare.WriteBuffer("x", 1), 0);
  EXPECT_EQ(bare.ReadBuffer(m_buf.data(), n), 0);
}

}  // namespace
