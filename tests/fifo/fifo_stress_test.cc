// Many records of random sizes through the pool and through the manager in
// disk mode: none lost, repeated or reordered, and no thread left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
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

int CountFiles(const std::string& dir) {
  int n = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

struct Tally {
  uint64_t nReceived = 0;
  uint64_t nBad = 0;  // wrong length or contents: lost, repeated, reordered or torn
  bool bEnded = false;
};

// Reads until -1, checking each record against the expected sequence.
template <class ReadFn>
Tally Consume(uint64_t nRecords, ReadFn read, const std::function<void(uint64_t)>& beforeRead = nullptr) {
  Tally t;
  std::vector<char> buf(kMaxRecord), scratch;
  for (;;) {
    if (beforeRead) beforeRead(t.nReceived);
    long n = read(buf.data());
    if (n == -1) {
      t.bEnded = true;
      break;
    }
    if (n < 0 || t.nReceived >= nRecords || static_cast<size_t>(n) != RecordSize(t.nReceived) ||
        !fifotest::CheckRecord(t.nReceived, buf.data(), static_cast<size_t>(n), scratch))
      ++t.nBad;
    ++t.nReceived;
  }
  return t;
}

TEST(FifoStressTest, PoolCarriesEveryRecordOnceAndInOrder) {
  const uint64_t nRecords = RecordCount();
  const int before = fifotest::BaselineThreadCount();
  QLCT_DataFifoPool pool;
  ASSERT_EQ(pool.Initialize(), 1);
  pool.SetWriteCacheSize(4 << 20);
  pool.SetMemoryPoolSize(8 << 20);
  ASSERT_EQ(pool.StartFifo(), 1);
  int nRefused = 0;
  Tally t;
  {
    Background producer(
        [&] {
          std::vector<char> buf(kMaxRecord);
          for (uint64_t i = 0; i < nRecords; ++i) {
            size_t len = RecordSize(i);
            fifotest::FillRecord(i, buf.data(), len);
            if (pool.WriteBuffer(buf.data(), static_cast<int>(len)) != 1) ++nRefused;
          }
          pool.WriteBuffer(nullptr, 0);
        },
        [&] { pool.StopFifo(); });
    Background consumer(
        [&] {
          t = Consume(nRecords, [&](char* p) {
            int n = 0;
            pool.ReadBuffer(p, n);
            return static_cast<long>(n);
          });
        },
        [&] { pool.StopFifo(); });
    ASSERT_TRUE(producer.Done(std::chrono::minutes(5)));
    ASSERT_TRUE(consumer.Done(std::chrono::minutes(5)));
  }
  EXPECT_EQ(pool.StopFifo(), 1);
  EXPECT_EQ(nRefused, 0);
  EXPECT_TRUE(t.bEnded);
  EXPECT_EQ(t.nReceived, nRecords);
  EXPECT_EQ(t.nBad, 0u);
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
  uint64_t nWritten = 0;
  const uint64_t nLead = std::max<uint64_t>(nRecords / 20, 2000);
  Tally t;
  int nMaxFiles = 0;  // overflow files seen at once while the consumer held back
  {
    Background producer(
        [&] {
          std::vector<char> buf(kMaxRecord);
          for (uint64_t i = 0; i < nRecords; ++i) {
            size_t len = RecordSize(i);
            fifotest::FillRecord(i, buf.data(), len);
            man.WriteBuffer(buf.data(), static_cast<LONG>(len));
            if (i % 256 == 255 || i + 1 == nRecords) {
              std::lock_guard<std::mutex> g(m);
              nWritten = i + 1;
              cv.notify_all();
            }
          }
          man.WriteBuffer(nullptr, 0);
        },
        [&] { man.StopFifo(); });
    Background consumer(
        [&] {
          t = Consume(
              nRecords,
              [&](char* p) {
                LONG n = 0;
                man.ReadBuffer(p, n);
                return static_cast<long>(n);
              },
              [&](uint64_t nGot) {
                if (nGot % (nLead * 4) != 0) return;
                {
                  std::unique_lock<std::mutex> g(m);
                  cv.wait_for(g, fifotest::kLongWait, [&] { return nWritten >= std::min(nRecords, nGot + nLead); });
                }
                nMaxFiles = std::max(nMaxFiles, CountFiles(dir.file("spill")));
              });
        },
        [&] { man.StopFifo(); });
    ASSERT_TRUE(producer.Done(std::chrono::minutes(5)));
    ASSERT_TRUE(consumer.Done(std::chrono::minutes(5)));
  }
  man.StopFifo();
  EXPECT_TRUE(t.bEnded);
  EXPECT_EQ(t.nReceived, nRecords);
  EXPECT_EQ(t.nBad, 0u);
  EXPECT_EQ(fifotest::ThreadCountSettling(before), before);
  EXPECT_GT(nMaxFiles, 0);
  EXPECT_EQ(CountFiles(dir.file("spill")), 0);
}

}  // namespace
