// The exported pool as a host uses it: through the SDK library.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "qltfsdk/datafifopool.h"
#include "tests/fifo/alloc_fault.h"
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
  // The cache thread only: a manager in mode 0 runs no mover. (Settling:
  // threads of the earlier run may still be leaving.)
  EXPECT_EQ(fifotest::ThreadCountSettling(before + 1), before + 1);
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

TEST_F(DataFifoPoolTest, EndOfDataOrStopReleasesAWaitingConsumer) {
  for (bool bStop : {false, true}) {
    ASSERT_EQ(m_pool.StartFifo(), 1);
    std::string got;
    Background consumer([&] { got = Read(); }, [&] { m_pool.StopFifo(); });
    EXPECT_FALSE(consumer.Done(kShortWait));
    if (bStop)
      m_pool.StopFifo();
    else
      m_pool.WriteBuffer(nullptr, 0);
    ASSERT_TRUE(consumer.Done()) << bStop;
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
  for (DWORD nHuge : {0x80000000u, 0xFFFFFFFFu}) {  // more than a ring can count: refused, sizes kept
    EXPECT_EQ(m_pool.SetWriteCacheSize(nHuge), 0);
    EXPECT_EQ(m_pool.SetMemoryPoolSize(nHuge), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  }
  ASSERT_EQ(m_pool.StartFifo(), 1);  // a new run after the failed start, with 64 and 128 bytes
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

TEST_F(DataFifoPoolTest, ACacheThreadThatCannotStartLeavesThePoolStoppedAndRestartable) {
  const int before = fifotest::BaselineThreadCount();
  {
    qlt::fault::ScopedFault fault(fifotest::ThreadStartFault());
    SetLastError(0);
    EXPECT_EQ(m_pool.StartFifo(), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(fault.Fired(), 1);
  }
  EXPECT_EQ(fifotest::ThreadCountSettling(before), before);
  EXPECT_EQ(Write("early"), 0);  // stopped
  ASSERT_EQ(m_pool.StartFifo(), 1);
  EXPECT_EQ(Write("x"), 1);
  EXPECT_EQ(Read(), "x");
}

// Each allocation of an operation fails in turn: the operation returns its
// failure result with ERROR_NOT_ENOUGH_MEMORY or copes, nothing is thrown at
// the caller, nothing leaks, and the pool starts and carries records
// afterwards.
TEST_F(DataFifoPoolTest, EachAllocationFailingInTurnGivesAFailureResultAndLeavesThePoolUsable) {
  using fifotest::ArmAllocationFault;
  using fifotest::DisarmAllocationFault;
  TempDir dir;
  const std::wstring folder = dir.wpath("a\\b");
  struct Case {
    const char* name;
    std::function<int(QLCT_DataFifoPool&)> op;
    bool bInitFirst;  // the operation needs an initialised pool
  } const cases[] = {
      {"Initialize", [](QLCT_DataFifoPool& p) { return p.Initialize(); }, false},
      {"SetDiskPoolProps", [&](QLCT_DataFifoPool& p) { return p.SetDiskPoolProps(CComBSTR(folder.c_str()), 0); }, true},
      {"StartFifo", [](QLCT_DataFifoPool& p) { return p.StartFifo(); }, true},
  };
  for (const Case& c : cases) {
    int nAllocs = 0;
    for (int n = 0; n == 0 || n <= nAllocs; ++n) {  // n = 0: count them
      QLCT_DataFifoPool pool;
      if (c.bInitFirst) {
        ASSERT_EQ(pool.Initialize(), 1);
      }
      SetLastError(0);
      ArmAllocationFault(n);
      const int nResult = c.op(pool);  // an exception here fails the test
      const int nSeen = DisarmAllocationFault();
      if (n == 0) {
        ASSERT_EQ(nResult, 1) << c.name;
        nAllocs = nSeen;
        ASSERT_GT(nAllocs, 0) << c.name;
        continue;
      }
      if (nResult == 0) {
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY)) << c.name << " " << n;
      }
      ASSERT_EQ(pool.Initialize(), 1) << c.name << " " << n;
      ASSERT_EQ(pool.StartFifo(), 1) << c.name << " " << n;
      std::vector<char> buf(8);
      int nLen = 0;
      EXPECT_EQ(pool.WriteBuffer("ok", 2), 1);
      EXPECT_EQ(pool.ReadBuffer(buf.data(), nLen), 1);
      EXPECT_EQ(nLen, 2) << c.name << " " << n;
      EXPECT_EQ(pool.StopFifo(), 1);
    }
  }
}

}  // namespace
