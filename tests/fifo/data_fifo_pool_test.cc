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
  std::string big(2 << 20, '\0');
  fifotest::FillRecord(1, big.data(), big.size());
  EXPECT_EQ(Write("A"), 1);
  EXPECT_EQ(Write(big), 1);
  EXPECT_EQ(Write("12345"), 1);
  EXPECT_EQ(Write(""), 1);  // an empty record neither ends nor stalls the flow
  EXPECT_EQ(Write("after"), 1);
  EXPECT_EQ(m_pool.WriteBuffer(nullptr, 0), 1);
  EXPECT_EQ(Read(), "A");
  EXPECT_TRUE(Read() == big);
  EXPECT_EQ(Read(), "12345");
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(Read(), "after");
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_EQ(m_pool.StopFifo(), 1);
}

TEST_F(DataFifoPoolTest, SixthRecordWaitsWhenBothTinyRingsAreFullAndResumesOnRead) {
  m_pool.SetWriteCacheSize(64);
  m_pool.SetMemoryPoolSize(64);
  ASSERT_EQ(m_pool.StartFifo(), 1);
  std::atomic<int> written{0};
  Background producer(
      [&] {
        for (int i = 0; i < 8; ++i) {
          std::string r(20, static_cast<char>('a' + i));
          if (Write(r) != 1) return;
          written.fetch_add(1);
        }
      },
      [&] { m_pool.StopFifo(); });
  auto deadline = std::chrono::steady_clock::now() + fifotest::kLongWait;
  while (written.load() < 5 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(written.load(), 5);
  EXPECT_FALSE(producer.Done(kShortWait));  // the sixth record's payload waits
  EXPECT_EQ(written.load(), 5);
  EXPECT_EQ(Read(), std::string(20, 'a'));
  for (int i = 1; i < 8; ++i) EXPECT_EQ(Read(), std::string(20, static_cast<char>('a' + i)));
  ASSERT_TRUE(producer.Done());
  EXPECT_EQ(written.load(), 8);
}

TEST_F(DataFifoPoolTest, StopWithFullRingsReleasesEveryThreadItStarted) {
  const int before = fifotest::BaselineThreadCount();
  m_pool.SetWriteCacheSize(64);
  m_pool.SetMemoryPoolSize(64);
  ASSERT_EQ(m_pool.StartFifo(), 1);
  EXPECT_EQ(fifotest::ThreadCount(), before + 2);
  int lastResult = 1;
  {
    Background producer([&] {
      std::string r(20, 'x');
      while ((lastResult = Write(r)) == 1) {
      }
    });
    EXPECT_FALSE(producer.Done(kShortWait));  // blocked: nobody reads
    EXPECT_EQ(m_pool.StopFifo(), 1);          // releases the cache thread and the producer
    ASSERT_TRUE(producer.Done());
  }
  EXPECT_EQ(lastResult, 0);
  EXPECT_EQ(fifotest::ThreadCountSettling(before), before);
  EXPECT_EQ(Write("late"), 0);
  EXPECT_EQ(Read(), "<-1>");
}

TEST_F(DataFifoPoolTest, StopReleasesAWaitingConsumer) {
  ASSERT_EQ(m_pool.StartFifo(), 1);
  std::string got;
  Background consumer([&] { got = Read(); });
  EXPECT_FALSE(consumer.Done(kShortWait));
  m_pool.StopFifo();
  ASSERT_TRUE(consumer.Done());
  EXPECT_EQ(got, "<-1>");
}

TEST_F(DataFifoPoolTest, EndOfDataReleasesAWaitingConsumerWithoutThePoll) {
  ASSERT_EQ(m_pool.StartFifo(), 1);
  std::string got;
  std::chrono::steady_clock::time_point released;
  Background consumer(
      [&] {
        got = Read();
        released = std::chrono::steady_clock::now();
      },
      [&] { m_pool.StopFifo(); });
  EXPECT_FALSE(consumer.Done(kShortWait));
  auto sent = std::chrono::steady_clock::now();
  m_pool.WriteBuffer(nullptr, 0);
  ASSERT_TRUE(consumer.Done());
  EXPECT_EQ(got, "<-1>");
  // The 300 ms re-signal is a fallback only: the first signal goes out at once.
  EXPECT_LT(released - sent, std::chrono::milliseconds(300));
}

TEST_F(DataFifoPoolTest, BadCallsGetClearResults) {
  EXPECT_EQ(Write("early"), 0);  // before StartFifo
  EXPECT_EQ(Read(), "<-1>");
  m_pool.SetWriteCacheSize(64);
  m_pool.SetMemoryPoolSize(128);
  ASSERT_EQ(m_pool.StartFifo(), 1);
  EXPECT_EQ(m_pool.WriteBuffer("x", -3), 0);
  EXPECT_EQ(Write(std::string(65, 'x')), 0);  // longer than the write cache: refused at once
  EXPECT_EQ(Write(std::string(64, 'y')), 1);  // exactly the capacity is fine
  int n = 0;
  EXPECT_EQ(m_pool.ReadBuffer(nullptr, n), 0);
  EXPECT_EQ(n, -1);
  EXPECT_EQ(Read(), std::string(64, 'y'));
  EXPECT_EQ(m_pool.WriteBuffer(nullptr, 0), 1);
  EXPECT_EQ(Write("after end"), 0);
  EXPECT_EQ(Read(), "<-1>");
  m_pool.StopFifo();
  EXPECT_EQ(Write("stopped"), 0);

  m_pool.SetWriteCacheSize(2);  // too small for a record's length
  EXPECT_EQ(m_pool.StartFifo(), 0);
  EXPECT_EQ(m_pool.StopFifo(), 1);
  m_pool.SetWriteCacheSize(1 << 20);
  ASSERT_EQ(m_pool.StartFifo(), 1);  // a new run after the failed start
  EXPECT_EQ(Write("fresh"), 1);
  EXPECT_EQ(Read(), "fresh");

  QLCT_DataFifoPool bare;  // never initialised
  EXPECT_EQ(bare.StartFifo(), 0);
  EXPECT_EQ(bare.WriteBuffer("x", 1), 0);
  n = 0;
  EXPECT_EQ(bare.ReadBuffer(m_buf.data(), n), 0);
  EXPECT_EQ(n, -1);
}

TEST_F(DataFifoPoolTest, ModeSettersAreAcceptedAndNothingIsWrittenToDisk) {
  TempDir dir;
  EXPECT_EQ(m_pool.SetFifoOpMode(7), 1);
  EXPECT_EQ(m_pool.SetBufferingMode(1), 1);
  CComBSTR folder(dir.wpath("one").append(L"\\two").c_str());
  EXPECT_EQ(m_pool.SetDiskPoolProps(folder, 12345), 1);
  EXPECT_TRUE(FileExists(dir.file("one/two")));
  m_pool.SetWriteCacheSize(64);
  m_pool.SetMemoryPoolSize(64);
  ASSERT_EQ(m_pool.StartFifo(), 1);
  std::atomic<int> written{0};
  Background producer(
      [&] {
        for (int i = 0; i < 6; ++i)
          if (Write(std::string(20, 'm')) == 1) written.fetch_add(1);
      },
      [&] { m_pool.StopFifo(); });
  EXPECT_FALSE(producer.Done(kShortWait));  // a full memory ring makes the producer wait
  EXPECT_EQ(Read(), std::string(20, 'm'));
  ASSERT_TRUE(producer.Done());
  EXPECT_EQ(written.load(), 6);
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.file("one/two").c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  EXPECT_TRUE(names.empty());
}

}  // namespace
