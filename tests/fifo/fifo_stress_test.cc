// Many records of random sizes through the pool and through the manager in
// disk mode: none lost, repeated or reordered, and no thread left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "fifo/data_fifo_man.h"
#include "qltfsdk/datafifopool.h"
#include "tests/fifo/fifo_test_util.h"
#include "tests/support/temp_dir.h"

using fifotest::Background;

namespace {

constexpr size_t kMaxRecord = 3 << 20;

// Record count: QLTFS_STRESS_RECORDS, else a million (fewer in sanitizer
// builds, where every copy is instrumented).
uint64_t RecordCount() {
  if (const char* s = std::getenv("QLTFS_STRESS_RECORDS"))
    if (*s) return std::strtoull(s, nullptr, 10);
#ifdef QLT_SANITIZED_BUILD
  return 150000;
#else
  return 1000000;
#endif
}

// Mostly small payloads (log-uniform over 0..64 KiB), one of 1-3 MiB every
// 50,000 records.
size_t RecordSize(uint64_t seq) {
  uint64_t r = fifotest::Mix(seq ^ 0xABCDEF);
  if (seq % 50000 == 49999) return (1 << 20) + r % (2 << 20);
  unsigned bits = static_cast<unsigned>(r % 17);
  return static_cast<size_t>((r >> 8) % (uint64_t{1} << bits));
}

// Carries nRecords records from a producer thread to a consumer thread
// through fifo (the pool or the manager: the same calls) and checks that each
// arrives once, whole and in order. The hooks run after each write and before
// each read.
template <class Fifo>
void ExpectCarriedIntact(Fifo& fifo, uint64_t nRecords, const std::function<void(uint64_t nWritten)>& afterWrite,
                         const std::function<void(uint64_t nReceived)>& beforeRead) {
  uint64_t nRefused = 0, nReceived = 0, nBad = 0;  // bad: wrong length or contents
  int nLast = 0;
  {
    Background producer(
        [&] {
          for (uint64_t i = 0; i < nRecords; afterWrite(++i)) {
            std::string r = fifotest::MakeRecord(i, RecordSize(i));
            nRefused += fifo.WriteBuffer(r.data(), static_cast<int>(r.size())) != 1;
          }
          fifo.WriteBuffer(nullptr, 0);
        },
        [&] { fifo.StopFifo(); });
    Background consumer(
        [&] {
          std::vector<char> buf(kMaxRecord);
          for (;; ++nReceived) {
            beforeRead(nReceived);
            fifo.ReadBuffer(buf.data(), nLast);
            if (nLast < 0) break;
            std::string want = fifotest::MakeRecord(nReceived, RecordSize(nReceived));
            nBad += want.size() != static_cast<size_t>(nLast) || std::memcmp(want.data(), buf.data(), want.size()) != 0;
          }
        },
        [&] { fifo.StopFifo(); });
    ASSERT_TRUE(producer.Done(std::chrono::minutes(5)));
    ASSERT_TRUE(consumer.Done(std::chrono::minutes(5)));
  }
  EXPECT_EQ(nRefused, 0u);
  EXPECT_EQ(nLast, -1);
  EXPECT_EQ(nReceived, nRecords);
  EXPECT_EQ(nBad, 0u);
}

TEST(FifoStressTest, PoolCarriesEveryRecordOnceAndInOrder) {
  const int before = fifotest::BaselineThreadCount();
  QLCT_DataFifoPool pool;
  ASSERT_EQ(pool.Initialize(), 1);
  pool.SetWriteCacheSize(4 << 20);
  pool.SetMemoryPoolSize(8 << 20);
  ASSERT_EQ(pool.StartFifo(), 1);
  ExpectCarriedIntact(
      pool, RecordCount(), [](uint64_t) {}, [](uint64_t) {});
  EXPECT_EQ(pool.StopFifo(), 1);
  EXPECT_EQ(fifotest::ThreadCountSettling(before), before);
}

TEST(FifoStressTest, ManagerInDiskModeCarriesEveryRecordOnceAndInOrder) {
  const uint64_t nRecords = RecordCount();
  const int before = fifotest::BaselineThreadCount();
  TempDir dir;
  CDataFifoMan man;
  ASSERT_TRUE(man.SetDiskPath(dir.wpath("spill")));
  man.SetMemoryPoolSize(7 << 20);  // just above the size a move needs
  ASSERT_TRUE(man.SetBufferingMode(1));
  ASSERT_TRUE(man.StartFifo());

  // The consumer holds back now and then until the producer is well ahead,
  // so the ring overflows to disk again and again.
  std::mutex m;
  std::condition_variable cv;
  uint64_t nWritten = 0;  // guarded by m
  const uint64_t nLead = std::max<uint64_t>(nRecords / 20, 2000);
  size_t nMaxFiles = 0;  // overflow files seen at once while the consumer held back
  auto afterWrite = [&](uint64_t n) {
    if (n % 256 != 0 && n != nRecords) return;
    std::lock_guard<std::mutex> g(m);
    nWritten = n;
    cv.notify_all();
  };
  auto beforeRead = [&](uint64_t nGot) {
    if (nGot % (nLead * 4) != 0) return;
    {
      std::unique_lock<std::mutex> g(m);
      cv.wait_for(g, fifotest::kLongWait, [&] { return nWritten >= std::min(nRecords, nGot + nLead); });
    }
    nMaxFiles = std::max(nMaxFiles, fifotest::DirEntries(dir.file("spill")).size());
  };
  ExpectCarriedIntact(man, nRecords, afterWrite, beforeRead);
  man.StopFifo();
  EXPECT_EQ(fifotest::ThreadCountSettling(before), before);
  EXPECT_GT(nMaxFiles, 0u);
  EXPECT_TRUE(fifotest::DirEntries(dir.file("spill")).empty());
}

}  // namespace
