#include "fifo/data_fifo_man.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "tests/fifo/fifo_test_util.h"
#include "tests/support/temp_dir.h"

using fifotest::Background;
using fifotest::kShortWait;

namespace {

// Names of the overflow files in a folder; empty when none is left.
std::vector<std::string> DiskFiles(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

class DataFifoManTest : public ::testing::Test {
 protected:
  // Reads one record; its payload as text, or "<L>" for a negative outcome.
  std::string Read() {
    LONG n = 0;
    EXPECT_EQ(m_man.ReadBuffer(m_buf.data(), n), TRUE);
    return n < 0 ? "<" + std::to_string(n) + ">" : std::string(m_buf.data(), static_cast<size_t>(n));
  }
  void Write(const std::string& s) { EXPECT_EQ(m_man.WriteBuffer(s.data(), static_cast<LONG>(s.size())), TRUE); }

  CDataFifoMan m_man;
  std::vector<char> m_buf = std::vector<char>(8 << 20);
};

TEST_F(DataFifoManTest, ModeZeroProducerWaitsForTheConsumerWhenTheRingIsFull) {
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  std::string r1(20, '1'), r2(20, '2'), r3(20, '3');
  Write(r1);
  Write(r2);
  Background producer([&] { Write(r3); }, [&] { m_man.StopFifo(); });
  EXPECT_FALSE(producer.Done(kShortWait));
  EXPECT_EQ(Read(), r1);
  ASSERT_TRUE(producer.Done());
  EXPECT_EQ(Read(), r2);
  EXPECT_EQ(Read(), r3);
}

TEST_F(DataFifoManTest, EndOfDataComesAfterTheBufferedRecords) {
  ASSERT_TRUE(m_man.StartFifo());
  Write("first");
  Write("");
  Write("third");
  EXPECT_EQ(m_man.WriteBuffer(nullptr, 0), TRUE);
  EXPECT_EQ(Read(), "first");
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(Read(), "third");
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_EQ(Read(), "<-1>");
}

TEST_F(DataFifoManTest, EndOfDataReleasesAWaitingConsumer) {
  ASSERT_TRUE(m_man.StartFifo());
  std::string got;
  Background consumer([&] { got = Read(); }, [&] { m_man.StopFifo(); });
  EXPECT_FALSE(consumer.Done(kShortWait));
  m_man.WriteBuffer(nullptr, 0);
  ASSERT_TRUE(consumer.Done());
  EXPECT_EQ(got, "<-1>");
}

TEST_F(DataFifoManTest, StopReleasesAWaitingConsumerAndLaterReadsEndAtOnce) {
  ASSERT_TRUE(m_man.StartFifo());
  std::string got;
  Background consumer([&] { got = Read(); });
  EXPECT_FALSE(consumer.Done(kShortWait));
  m_man.StopFifo();
  ASSERT_TRUE(consumer.Done());
  EXPECT_EQ(got, "<-1>");
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_EQ(m_man.WriteBuffer("x", 1), FALSE);
}

TEST_F(DataFifoManTest, StopReleasesAProducerWaitingForRoom) {
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  std::string r(50, 'r');
  Write(r);
  BOOL bResult = TRUE;
  Background producer([&] { bResult = m_man.WriteBuffer(r.data(), 50); });
  EXPECT_FALSE(producer.Done(kShortWait));
  m_man.StopFifo();
  ASSERT_TRUE(producer.Done());
}

TEST_F(DataFifoManTest, BadCallsGetClearResults) {
  EXPECT_EQ(m_man.WriteBuffer("x", 1), FALSE);  // not started
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_EQ(m_man.SetBufferingMode(2), FALSE);
  EXPECT_EQ(m_man.SetBufferingMode(-1), FALSE);
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  EXPECT_EQ(m_man.WriteBuffer("x", -1), FALSE);
  std::string big(65, 'b');
  EXPECT_EQ(m_man.WriteBuffer(big.data(), 65), FALSE);  // could never fit: refused, not a hang
  EXPECT_EQ(m_man.SetBufferingMode(1), FALSE);          // ring too small to move files back
  LONG n = 0;
  EXPECT_EQ(m_man.ReadBuffer(nullptr, n), FALSE);
  EXPECT_EQ(n, -1);
  Write("ok");
  EXPECT_EQ(Read(), "ok");
  m_man.SetMemoryPoolSize(2);
  EXPECT_FALSE(m_man.StartFifo());  // failed start leaves a stoppable, restartable state
  m_man.StopFifo();
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  Write("again");
  EXPECT_EQ(Read(), "again");
}

TEST_F(DataFifoManTest, ModeOneSpillsToNamedFilesAndDeletesEachOnceMoved) {
  TempDir dir;
  ASSERT_TRUE(m_man.SetDiskPath(dir.wpath("spill")));
  m_man.SetMemoryPoolSize(8 << 20);
  ASSERT_TRUE(m_man.SetBufferingMode(1));
  ASSERT_TRUE(m_man.StartFifo());
  constexpr int kRecords = 24;
  std::vector<std::vector<char>> records;
  for (int i = 0; i < kRecords; ++i) {
    size_t len = i % 5 == 4 ? 0 : (1 << 20) - 1000 + static_cast<size_t>(i);
    std::vector<char> r(len);
    fifotest::FillRecord(static_cast<uint64_t>(i), r.data(), len);
    records.push_back(r);
    // An empty vector's data() may be null, which would mean the end of data.
    ASSERT_EQ(m_man.WriteBuffer(len ? r.data() : "", static_cast<LONG>(len)), TRUE);  // never waits in mode 1
  }
  std::vector<std::string> files = DiskFiles(dir.file("spill"));
  ASSERT_GE(files.size(), 2u);
  for (const std::string& f : files) EXPECT_TRUE(fifotest::IsHexName(f, ".dat")) << f;
  m_man.WriteBuffer(nullptr, 0);

  Background consumer(
      [&] {
        for (int i = 0; i < kRecords; ++i) {
          LONG n = 0;
          m_man.ReadBuffer(m_buf.data(), n);
          ASSERT_EQ(n, static_cast<LONG>(records[i].size())) << "record " << i;
          ASSERT_TRUE(std::equal(records[i].begin(), records[i].end(), m_buf.begin())) << "record " << i;
        }
        EXPECT_EQ(Read(), "<-1>");
      },
      [&] { m_man.StopFifo(); });
  ASSERT_TRUE(consumer.Done());
  EXPECT_TRUE(DiskFiles(dir.file("spill")).empty());
}

TEST_F(DataFifoManTest, ModeOneGivesARecordOverTheFileLimitAFileOfItsOwn) {
  TempDir dir;
  ASSERT_TRUE(m_man.SetDiskPath(dir.wpath()));
  m_man.SetMemoryPoolSize(8 << 20);
  ASSERT_TRUE(m_man.SetBufferingMode(1));
  ASSERT_TRUE(m_man.StartFifo());
  std::vector<char> fill(7 << 20, 'f'), huge(5 << 20, 'h');
  Write(std::string(fill.begin(), fill.end()));                                 // memory
  Write("small");                                                               // memory
  ASSERT_TRUE(m_man.WriteBuffer(huge.data(), static_cast<LONG>(huge.size())));  // disk, file 1
  Write("tail");                                                                // does not fit beside it: file 2
  std::vector<std::string> files = DiskFiles(dir.path());
  ASSERT_EQ(files.size(), 2u);
  size_t a = ReadWholeFile(dir.file(files[0])).size(), b = ReadWholeFile(dir.file(files[1])).size();
  EXPECT_EQ(std::min(a, b), 8u);
  EXPECT_EQ(std::max(a, b), huge.size() + 4);
  m_man.WriteBuffer(nullptr, 0);
  EXPECT_EQ(Read().size(), fill.size());
  EXPECT_EQ(Read(), "small");
  EXPECT_EQ(Read(), std::string(huge.begin(), huge.end()));
  EXPECT_EQ(Read(), "tail");
  EXPECT_EQ(Read(), "<-1>");
  EXPECT_TRUE(DiskFiles(dir.path()).empty());
}

TEST(DataFifoManPath, SetDiskPathCreatesNestedFoldersAndRefusesAMissingDrive) {
  TempDir dir;
  CDataFifoMan man;
  EXPECT_EQ(man.SetDiskPath(dir.wpath("a") + L"\\b\\c"), TRUE);
  EXPECT_TRUE(FileExists(dir.file("a/b/c")));
  EXPECT_EQ(man.SetDiskPath(L"Q:\\x\\y"), FALSE);
}

}  // namespace
