#include "fifo/data_fifo_man.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/fifo/fifo_test_util.h"
#include "tests/support/temp_dir.h"

using fifotest::Background;
using fifotest::DirEntries;

namespace {

class DataFifoManTest : public ::testing::Test {
 protected:
  // Reads one record; its payload as text, or "<L>" for a negative outcome.
  std::string Read() {
    LONG n = 0;
    EXPECT_EQ(m_man.ReadBuffer(m_buf.data(), n), TRUE);
    return n < 0 ? "<" + std::to_string(n) + ">" : std::string(m_buf.data(), static_cast<size_t>(n));
  }
  void Write(const std::string& s) { EXPECT_EQ(m_man.WriteBuffer(s.data(), static_cast<LONG>(s.size())), TRUE); }
  void StartDiskMode(const std::wstring& folder) {
    ASSERT_TRUE(m_man.SetDiskPath(folder));
    m_man.SetMemoryPoolSize(8 << 20);
    ASSERT_TRUE(m_man.SetBufferingMode(1));
    ASSERT_TRUE(m_man.StartFifo());
  }

  CDataFifoMan m_man;
  std::vector<char> m_buf = std::vector<char>(8 << 20);
};

TEST_F(DataFifoManTest, MemoryModeProducerWaitsOnAFullRingAndTheEndComesAfterBufferedRecords) {
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  std::string r1(20, '1'), r2(20, '2'), r3(20, '3');
  Write(r1);
  Write(r2);
  Background producer([&] { Write(r3); }, [&] { m_man.StopFifo(); });
  EXPECT_FALSE(producer.Done(fifotest::kShortWait));
  EXPECT_EQ(Read(), r1);
  ASSERT_TRUE(producer.Done());
  EXPECT_EQ(m_man.WriteBuffer(nullptr, 0), TRUE);
  EXPECT_EQ(Read(), r2);
  EXPECT_EQ(Read(), r3);
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_EQ(Read(), "<-1>");
}

TEST_F(DataFifoManTest, BadSettingsAndRecordsThatCouldNeverFitAreRefused) {
  EXPECT_EQ(m_man.SetBufferingMode(2), FALSE);
  EXPECT_EQ(m_man.SetDiskPath(L"Q:\\x\\y"), FALSE);  // no such drive
  for (DWORD nHuge : {0x80000000u, 0xFFFFFFFFu}) {   // beyond what a ring can count: refused, nothing allocated
    EXPECT_EQ(m_man.SetMemoryPoolSize(nHuge), FALSE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  }
  EXPECT_EQ(m_man.GetMemoryPoolSize(), CDataFifoMan::kDefaultMemoryPoolSize);
  m_man.SetMemoryPoolSize(2);
  EXPECT_FALSE(m_man.StartFifo());  // no record length fits
  m_man.StopFifo();                 // a failed start can be stopped and started again
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  EXPECT_EQ(m_man.SetBufferingMode(1), FALSE);  // ring too small to move files back
  std::string big(65, 'b');
  EXPECT_EQ(m_man.WriteBuffer(big.data(), 65), FALSE);  // refused, not a hang
  Write("ok");
  EXPECT_EQ(Read(), "ok");
}

TEST_F(DataFifoManTest, DiskModeSpillsToNamedFilesInANewNestedFolderAndDeletesEachOnceMoved) {
  TempDir dir;
  StartDiskMode(dir.wpath("a") + L"\\b\\c");
  std::vector<std::string> records;
  for (int i = 0; i < 24; ++i) {
    records.push_back(fifotest::MakeRecord(i, i % 5 == 4 ? 0 : (1 << 20) - 1000 + i));
    Write(records.back());  // never waits in disk mode
  }
  std::vector<std::string> files = DirEntries(dir.file("a/b/c"));
  ASSERT_GE(files.size(), 2u);
  for (const std::string& f : files)
    EXPECT_TRUE(f.size() == 36 && f.find_first_not_of("0123456789abcdef") == 32 && f.compare(32, 4, ".dat") == 0) << f;
  m_man.WriteBuffer(nullptr, 0);
  Background consumer(
      [&] {
        for (const std::string& r : records) ASSERT_TRUE(Read() == r) << r.size();
        EXPECT_EQ(Read(), "<-1>");
      },
      [&] { m_man.StopFifo(); });
  ASSERT_TRUE(consumer.Done());
  EXPECT_TRUE(DirEntries(dir.file("a/b/c")).empty());
}

TEST_F(DataFifoManTest, DiskModeGivesARecordOverTheFileLimitAFileOfItsOwnAndStopDeletesFilesLeft) {
  TempDir dir;
  std::string fill(7 << 20, 'f'), huge(5 << 20, 'h');
  StartDiskMode(dir.wpath());
  Write(fill);    // memory, and too full for a file to move back
  Write(huge);    // disk, file 1
  Write("tail");  // does not fit beside it: file 2
  std::vector<std::string> files = DirEntries(dir.path());
  ASSERT_EQ(files.size(), 2u);
  size_t a = ReadWholeFile(dir.file(files[0])).size(), b = ReadWholeFile(dir.file(files[1])).size();
  EXPECT_EQ(std::min(a, b), 8u);
  EXPECT_EQ(std::max(a, b), huge.size() + 4);
  m_man.StopFifo();
  EXPECT_TRUE(DirEntries(dir.path()).empty());

  ASSERT_TRUE(m_man.StartFifo());  // the same again, read back this time
  for (const std::string& r : {fill, huge, std::string("tail")}) Write(r);
  m_man.WriteBuffer(nullptr, 0);
  EXPECT_EQ(Read(), fill);
  EXPECT_EQ(Read(), huge);
  EXPECT_EQ(Read(), "tail");
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_TRUE(DirEntries(dir.path()).empty());
}

// The mover moves the last overflow file into a ring that is then left with
// less than the low-water room; the consumer drains it and waits; only then
// does the producer write again. Every record must arrive without a stop.
TEST_F(DataFifoManTest, RecordsWrittenWhileTheConsumerWaitsAfterTheLastMoveArriveWithoutAStop) {
  TempDir dir;
  StartDiskMode(dir.wpath());  // 8 MiB ring
  const std::string a(7 << 20, 'a'), b((13 << 20) / 2, 'b'), c("c"), d(b.size(), 'd');
  Write(a);  // memory
  Write(b);  // does not fit beside a: overflow file
  ASSERT_EQ(DirEntries(dir.path()).size(), 1u);
  EXPECT_EQ(Read(), a);
  EXPECT_EQ(Read(), b);  // moved back; the ring now has under the low-water room free
  auto until = [](const std::function<bool()>& done) {
    auto deadline = std::chrono::steady_clock::now() + fifotest::kLongWait;
    while (!done() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
  };
  ASSERT_TRUE(until([&] { return DirEntries(dir.path()).empty(); }));  // the mover has dropped the file

  std::string got[3];
  Background consumer(
      [&] {
        for (std::string& r : got) r = Read();
      },
      [&] { m_man.StopFifo(); });
  ASSERT_TRUE(until([&] { return m_man.IsConsumerWaiting(); }));
  Write(c);
  Write(d);
  m_man.WriteBuffer(nullptr, 0);
  ASSERT_TRUE(consumer.Done());
  EXPECT_EQ(got[0], c);
  EXPECT_TRUE(got[1] == d) << got[1].size();
  EXPECT_EQ(got[2], "<-1>");
}

// A manager kept in memory mode, as the exported pool keeps its own, starts
// no mover, creates no folder and still carries records; switching a running
// manager to disk mode starts the mover then.
TEST_F(DataFifoManTest, MemoryModeRunsNoMoverAndMakesNoFolderUntilDiskModeIsSwitchedOn) {
  TempDir drive;
  QltSetDrive(L'C', drive.wpath().c_str(), DRIVE_FIXED);
  struct Restore {
    ~Restore() { QltResetDriveMap(); }
  } restore;
  {
    CDataFifoMan man;  // default folder C:\Temp
    man.SetMemoryPoolSize(8 << 20);
    ASSERT_TRUE(man.StartFifo());
    EXPECT_FALSE(man.IsMoverRunning());
    std::string r(1000, 'r');
    EXPECT_EQ(man.WriteBuffer(r.data(), 1000), TRUE);
    LONG n = 0;
    EXPECT_EQ(man.ReadBuffer(m_buf.data(), n), TRUE);
    EXPECT_EQ(n, 1000);
    EXPECT_TRUE(DirEntries(drive.path()).empty());

    {
      qlt::fault::ScopedFault fault(fifotest::ThreadStartFault());
      EXPECT_EQ(man.SetBufferingMode(1), FALSE);  // no mover, no disk mode
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
      EXPECT_FALSE(man.IsMoverRunning());
    }
    ASSERT_TRUE(man.SetBufferingMode(1));
    EXPECT_TRUE(man.IsMoverRunning());
    EXPECT_TRUE(FileExists(drive.file("Temp")));
    man.StopFifo();
    EXPECT_FALSE(man.IsMoverRunning());
    qlt::fault::ScopedFault fault(fifotest::ThreadStartFault());
    EXPECT_EQ(man.StartFifo(), FALSE);          // disk mode needs the mover
    EXPECT_EQ(man.WriteBuffer("x", 1), FALSE);  // and nothing runs
  }
}

}  // namespace
