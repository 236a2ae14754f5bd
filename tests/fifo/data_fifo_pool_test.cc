// The exported pool as a host uses it, through the SDK library: waits and
// releases, bad calls, failures, and many records between two threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "qltfsdk/datafifopool.h"
#include "tests/fifo/fifo_test_util.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/temp_dir.h"

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
  std::vector<char> m_buf = std::vector<char>(64);
  std::function<void()> m_stop = [this] { m_pool.StopFifo(); };
};

// The pool keeps its records in memory whatever the buffering mode: with two
// 64-byte rings the sixth 20-byte record waits, and StopFifo releases the
// producer and the cache thread, both waiting on full rings. A waiting
// consumer is released by the end of data or by StopFifo.
TEST_F(DataFifoPoolTest, FullRingsHoldTheProducerEvenInDiskModeAndStopOrTheEndReleasesEitherSide) {
  TempDir dir;
  EXPECT_EQ(m_pool.SetBufferingMode(1), 1);
  EXPECT_EQ(m_pool.SetDiskPoolProps(CComBSTR(dir.wpath().c_str()), 12345), 1);
  m_pool.SetWriteCacheSize(64);
  m_pool.SetMemoryPoolSize(64);
  ASSERT_EQ(m_pool.StartFifo(), 1);
  std::atomic<int> written{0};
  int lastResult = 1;
  {
    fifotest::Background producer(
        [&] {
          for (int i = 0; (lastResult = Write(std::string(20, static_cast<char>('a' + i)))) == 1; ++i) ++written;
        },
        m_stop);
    ASSERT_TRUE(fifotest::Eventually([&] { return written.load() >= 5; }));
    EXPECT_FALSE(producer.Done(fifotest::kShortWait));  // the sixth record waits
    EXPECT_EQ(written.load(), 5);
    EXPECT_EQ(Read(), std::string(20, 'a'));
    EXPECT_TRUE(fifotest::Eventually([&] { return written.load() >= 6; }));  // and goes in once a record is out
    EXPECT_EQ(m_pool.StopFifo(), 1);
    ASSERT_TRUE(producer.Done());
  }
  EXPECT_EQ(lastResult, 0);
  EXPECT_EQ(Write("late"), 0);
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_TRUE(fifotest::DirEntries(dir.path()).empty());
  for (bool bStop : {false, true}) {
    ASSERT_EQ(m_pool.StartFifo(), 1);
    std::string got;
    auto end = [&] { bStop ? m_pool.StopFifo() : m_pool.WriteBuffer(nullptr, 0); };
    EXPECT_TRUE(fifotest::BlocksUntil([&] { got = Read(); }, end, m_stop));
    EXPECT_EQ(got, "<-1>");
  }
}

TEST_F(DataFifoPoolTest, BadCallsGetClearResults) {
  for (DWORD nHuge : {0x80000000u, 0xFFFFFFFFu}) {  // more than a ring can count
    EXPECT_EQ(m_pool.SetWriteCacheSize(nHuge), 0);
    EXPECT_EQ(m_pool.SetMemoryPoolSize(nHuge), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  }
  // Rings with no room for a record's length and a byte cannot work.
  for (bool bCache : {true, false}) {
    for (DWORD nTiny : {0u, 3u, 4u}) {
      EXPECT_EQ(bCache ? m_pool.SetWriteCacheSize(nTiny) : m_pool.SetMemoryPoolSize(nTiny), 1);
      SetLastError(NO_ERROR);
      EXPECT_EQ(m_pool.StartFifo(), 0) << nTiny;
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
      EXPECT_EQ(m_pool.WriteBuffer("x", 1), 0);
    }
    bCache ? m_pool.SetWriteCacheSize(64) : m_pool.SetMemoryPoolSize(1u << 20);
  }
  ASSERT_EQ(m_pool.StartFifo(), 1);
  EXPECT_EQ(m_pool.WriteBuffer("x", -3), 0);
  EXPECT_EQ(Write(std::string(65, 'x')), 0);  // longer than the write cache: refused at once
  EXPECT_EQ(Write(std::string(64, 'y')), 1);  // exactly the capacity is fine
  int n = 0;
  EXPECT_EQ(m_pool.ReadBuffer(nullptr, n), 0);
  EXPECT_EQ(n, -1);
  EXPECT_EQ(Read(), std::string(64, 'y'));  // the null read consumed nothing
  QLCT_DataFifoPool bare;                   // never initialised
  EXPECT_EQ(bare.StartFifo(), 0);
  EXPECT_EQ(bare.WriteBuffer("x", 1), 0);
}

// A cache thread that cannot start, or each allocation of an operation
// failing in turn: the operation returns its failure result with
// ERROR_NOT_ENOUGH_MEMORY (or copes), nothing is thrown at the caller, and
// the pool starts and carries records afterwards.
TEST_F(DataFifoPoolTest, ThreadStartOrAllocationFailureLeavesThePoolStoppedAndRestartable) {
  auto expectUsable = [](QLCT_DataFifoPool& pool) {
    char buf[8];
    int nLen = 0;
    ASSERT_EQ(pool.Initialize(), 1);
    ASSERT_EQ(pool.StartFifo(), 1);
    EXPECT_EQ(pool.WriteBuffer("ok", 2) + pool.ReadBuffer(buf, nLen) + pool.StopFifo(), 3);  // each gives 1
    EXPECT_EQ(nLen, 2);
  };
  {
    qlt::fault::ScopedFault fault(fifotest::ThreadStartFault());
    SetLastError(0);
    EXPECT_EQ(m_pool.StartFifo(), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(fault.Fired(), 1);
  }
  EXPECT_EQ(Write("early"), 0);  // stopped
  expectUsable(m_pool);

  TempDir dir;
  const CComBSTR folder(dir.wpath("a\\b").c_str());
  const std::pair<const char*, std::function<int(QLCT_DataFifoPool&)>> cases[] = {
      {"Initialize", [](QLCT_DataFifoPool& p) { return p.Initialize(); }},
      {"SetDiskPoolProps", [&](QLCT_DataFifoPool& p) { return p.SetDiskPoolProps(folder, 0); }},
      {"StartFifo", [](QLCT_DataFifoPool& p) { return p.StartFifo(); }},
  };
  for (const auto& [name, op] : cases) {
    int n = 1;
    for (bool bFired = true; bFired; ++n) {
      SCOPED_TRACE(std::string(name) + " allocation " + std::to_string(n));
      QLCT_DataFifoPool pool;
      ASSERT_TRUE(std::string(name) == "Initialize" || pool.Initialize() == 1);  // the others need an initialised pool
      SetLastError(0);
      int nResult;
      {
        ScopedAllocFailure fault(n);
        nResult = op(pool);  // an exception here fails the test
        bFired = fault.Fired();
      }
      EXPECT_TRUE(nResult == 1 || GetLastError() == ERROR_NOT_ENOUGH_MEMORY) << nResult << " " << GetLastError();
      EXPECT_TRUE(bFired || nResult == 1);
      expectUsable(pool);
    }
    EXPECT_GT(n, 2) << name;  // the operation allocates at all
  }
}

// len bytes in a pattern that depends on the record number and on every
// position, so a lost, repeated, reordered or torn record shows.
uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}
std::string MakeRecord(uint64_t seq, size_t len) {
  std::string r(len, '\0');
  uint64_t v = Mix(seq);
  size_t i = 0;
  for (; i + 8 <= len; i += 8, v += 0x632BE59BD9B4E019ull) std::memcpy(&r[i], &v, 8);
  if (i < len) std::memcpy(&r[i], &v, len - i);
  return r;
}

// Mostly small payloads (log-uniform over 0..64 KiB, empty ones among them),
// one of 1-3 MiB every 50,000 records.
size_t RecordSize(uint64_t seq) {
  uint64_t r = Mix(seq ^ 0xABCDEF);
  if (seq % 50000 == 49999) return (1 << 20) + r % (2 << 20);
  unsigned bits = static_cast<unsigned>(r % 17);
  return static_cast<size_t>((r >> 8) % (uint64_t{1} << bits));
}

TEST_F(DataFifoPoolTest, StressEveryRecordComesOutOnceWholeAndInOrder) {
  const char* pszCount = std::getenv("QLTFS_STRESS_RECORDS");
  const uint64_t nRecords =
      pszCount && *pszCount ? std::strtoull(pszCount, nullptr, 10) : QLT_STRESS_RECORDS;  // fewer in sanitizer builds
  m_pool.SetWriteCacheSize(4 << 20);
  m_pool.SetMemoryPoolSize(8 << 20);
  ASSERT_EQ(m_pool.StartFifo(), 1);
  uint64_t nRefused = 0, nReceived = 0, nBad = 0;  // bad: wrong length or contents
  int nLast = 0;
  {
    fifotest::Background producer(
        [&] {
          for (uint64_t i = 0; i < nRecords; ++i) {
            std::string r = MakeRecord(i, RecordSize(i));
            nRefused += m_pool.WriteBuffer(r.data(), static_cast<int>(r.size())) != 1;
          }
          m_pool.WriteBuffer(nullptr, 0);
        },
        m_stop);
    fifotest::Background consumer(
        [&] {
          std::vector<char> buf(3 << 20);
          for (; m_pool.ReadBuffer(buf.data(), nLast), nLast >= 0; ++nReceived) {
            std::string want = MakeRecord(nReceived, RecordSize(nReceived));
            nBad += want.size() != static_cast<size_t>(nLast) || std::memcmp(want.data(), buf.data(), want.size()) != 0;
          }
        },
        m_stop);
    ASSERT_TRUE(producer.Done(std::chrono::minutes(5)));
    ASSERT_TRUE(consumer.Done(std::chrono::minutes(5)));
  }
  EXPECT_EQ(m_pool.StopFifo(), 1);
  EXPECT_EQ(nRefused, 0u);
  EXPECT_EQ(nLast, -1);
  EXPECT_EQ(nReceived, nRecords);
  EXPECT_EQ(nBad, 0u);
}

}  // namespace
