// The ring and the FIFO manager, used directly.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "fifo/data_fifo_man.h"
#include "fifo/ring_memory.h"
#include "fifo/ring_stream.h"
#include "tests/fifo/fifo_test_util.h"
#include "tests/support/temp_dir.h"

namespace {

class RingStreamTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(m_ring.InitStream(10), S_OK); }
  void TearDown() override { m_ring.UninitStream(); }

  LONG Write(const std::string& s) {
    LONG n = static_cast<LONG>(s.size());
    EXPECT_EQ(m_ring.WriteData(s.data(), n), TRUE);
    return n;
  }
  std::string Read(LONG n, bool* pMore = nullptr) {
    std::string out(static_cast<size_t>(n), '\0');
    bool bMore = m_ring.ReadData(out.data(), n);
    if (pMore) *pMore = bMore;
    out.resize(static_cast<size_t>(n));
    return out;
  }

  CRingStream m_ring{L"test"};
};

// Ending and closing release a side that waits, with nothing more written;
// Close also survives ResetStream, and only InitStream reopens the ring.
// Capacities beyond the signed range are refused without touching the ring.
TEST_F(RingStreamTest, EndAndCloseReleaseWaitersCloseStaysInForceAndHugeCapacitiesAreRefused) {
  for (bool bClose : {false, true}) {
    SCOPED_TRACE(bClose ? "Close" : "SetEndOfStream");
    ASSERT_EQ(m_ring.InitStream(10), S_OK);
    auto end = [&] { bClose ? m_ring.Close() : m_ring.SetEndOfStream(); };
    Write("0123456789");
    LONG n = 1;
    EXPECT_TRUE(fifotest::BlocksUntil([&] { m_ring.WriteData("X", n); }, end, end));
    EXPECT_EQ(n, 0);              // released with nothing written
    EXPECT_EQ(Write("late"), 0);  // and every later write alike
    bool bMore = true;
    EXPECT_EQ(Read(20, &bMore), "0123456789");
    EXPECT_FALSE(bMore);

    m_ring.ResetStream();
    EXPECT_EQ(m_ring.IsClosed(), bClose);
    EXPECT_EQ(m_ring.IsEndOfStream(), bClose);
    EXPECT_EQ(Write("ab"), bClose ? 0 : 2);
    if (!bClose) {  // a reader waits for the whole length and gets what is left at the end
      std::string got;
      EXPECT_TRUE(fifotest::BlocksUntil([&] { got = Read(4, &bMore); }, end, end));
      EXPECT_EQ(got, "ab");
      EXPECT_FALSE(bMore);
    }
    EXPECT_EQ(Read(4, &bMore), "");  // a closed or drained ring answers at once
    EXPECT_FALSE(bMore);
  }
  ASSERT_EQ(m_ring.InitStream(10), S_OK);  // reopens the closed ring
  EXPECT_FALSE(m_ring.IsClosed());
  EXPECT_EQ(Write("again"), 5);
  for (DWORD nHuge : {0x80000000u, 0xFFFFFFFFu}) EXPECT_EQ(m_ring.InitStream(nHuge), E_INVALIDARG);
  EXPECT_EQ(m_ring.GetBufferSize(), 10u);  // the old buffer and its data stay
  EXPECT_EQ(Read(5), "again");
}

// The end is marked from a third thread while the producer copies blocks:
// every byte a write reports as written is read before the reader sees the
// drained end, and nothing appears after it.
TEST_F(RingStreamTest, EndMarkedDuringAWriteIsFinalOnceAReaderHasSeenTheRingDrained) {
  const LONG kBlock = 256 << 10;
  ASSERT_EQ(m_ring.InitStream(4 * kBlock), S_OK);
  const std::vector<char> block(kBlock, 'w');
  auto close = [&] { m_ring.Close(); };
  for (int round = 0; round < 300; ++round) {
    m_ring.ResetStream();
    long long nWritten = 0, nRead = 0;
    bool bLeftover = false;
    {
      fifotest::Background writer(
          [&] {
            for (LONG n = kBlock; n == kBlock; nWritten += n) m_ring.WriteData(block.data(), n = kBlock);
          },
          close);
      fifotest::Background reader(
          [&] {
            for (bool bMore = true; bMore;) {
              LONG n = kBlock / 2 + round % 7;
              bMore = m_ring.ReadData(nullptr, n, true);  // no copy: the ring stays near empty
              nRead += n;
              // Part-way through, end the stream from this side: the writer
              // is usually inside a copy at this moment.
              if (nRead >= 2 * kBlock + round * 97 && !m_ring.IsEndOfStream()) m_ring.SetEndOfStream();
            }
            bLeftover = m_ring.HasData();
          },
          close);
      ASSERT_TRUE(reader.Done());
      ASSERT_TRUE(writer.Done());
    }
    ASSERT_FALSE(bLeftover) << round;
    ASSERT_FALSE(m_ring.HasData()) << round;
    ASSERT_EQ(nRead, nWritten) << round;
  }
}

// An in-place read shows the bytes where they lie: in two pieces when they
// wrap round the buffer's end. They are consumed only once the visit has
// returned, and one that throws leaves them unread.
TEST_F(RingStreamTest, InPlaceReadsShowWrappedBytesInTwoPiecesAndConsumeThemAfterTheVisit) {
  Write("0123456");
  EXPECT_EQ(Read(5), "01234");
  Write("789ab");  // "56789ab" now runs from position 5 round to position 2
  std::vector<std::string> pieces;
  auto collect = [&](const BYTE* p1, DWORD n1, const BYTE* p2, DWORD n2) {
    pieces = {std::string(reinterpret_cast<const char*>(p1), n1), std::string(reinterpret_cast<const char*>(p2), n2)};
  };
  LONG n = 7;
  EXPECT_THROW(m_ring.ReadInPlace(n, [](const BYTE*, DWORD, const BYTE*, DWORD) { throw std::runtime_error("x"); }),
               std::runtime_error);
  EXPECT_TRUE(m_ring.ReadInPlace(n, collect));
  EXPECT_EQ(n, 7);
  EXPECT_EQ(pieces, (std::vector<std::string>{"56789", "ab"}));
  Write("cd");
  n = 2;
  m_ring.ReadInPlace(n, collect);
  EXPECT_EQ(pieces, (std::vector<std::string>{"cd", ""}));  // contiguous: one piece
  m_ring.SetEndOfStream();
  n = 4;
  pieces.clear();
  EXPECT_FALSE(m_ring.ReadInPlace(n, collect));  // ended and empty: no visit
  EXPECT_EQ(n, 0);
  EXPECT_TRUE(pieces.empty());
}

// Held bytes count as free for the writer but stay readable where they are:
// with a 10-byte ring and 4 bytes of hold room, 4 held bytes let the writer
// put 10 more in, and the next read still starts with the held ones.
TEST_F(RingStreamTest, HeldBytesMakeRoomForTheWriterAndAreStillReadFirst) {
  ASSERT_EQ(m_ring.InitStream(10, 4), S_OK);
  EXPECT_EQ(m_ring.GetBufferSize(), 10u);
  Write("held");
  LONG n = 5;
  EXPECT_FALSE(m_ring.HoldData(n));  // more than the hold room
  EXPECT_EQ(n, 0);
  n = 4;
  ASSERT_TRUE(m_ring.HoldData(n));
  n = 1;
  EXPECT_FALSE(m_ring.HoldData(n));  // one hold at a time
  EXPECT_EQ(m_ring.FreeSpace(), 10);
  EXPECT_EQ(Write("0123456789"), 10);
  n = 1;
  auto release = [&] {
    EXPECT_EQ(Read(4), "held");  // their room was given already
    EXPECT_EQ(m_ring.FreeSpace(), 0);
    EXPECT_EQ(Read(1), "0");
  };
  EXPECT_TRUE(fifotest::BlocksUntil([&] { m_ring.WriteData("X", n); }, release, [&] { m_ring.Close(); }));
  EXPECT_EQ(n, 1);
  EXPECT_EQ(Read(10), "123456789X");
  EXPECT_EQ(m_ring.InitStream(0x7FFFFFF0u, 0x10u), E_INVALIDARG);  // together beyond what a ring counts
}

// Ring memory of a region's size comes back from the store, newest first,
// when a ring of the same size is made again; the store holds a bounded
// number of regions, and fresh memory is zero-filled, so a byte marked
// before release tells reused from fresh.
TEST(RingMemoryTest, ReleasedRegionsAreReusedForTheSameSizeWithinTheStoreBounds) {
  qlt::fifo::ReleaseKeptRingMemory();
  const size_t kSize = qlt::fifo::kRegionFrom;
  const size_t kMany = qlt::fifo::kKeptRegions + 1;
  for (size_t i = 0; i < kMany; ++i) {
    BYTE* p = qlt::fifo::AllocRingMemory(kSize);
    ASSERT_NE(p, nullptr);
    p[0] = static_cast<BYTE>(i + 1);
    p[kSize - 1] = 1;  // writable to the end
    qlt::fifo::FreeRingMemory(p, kSize);
  }
  std::vector<BYTE*> held;
  std::vector<int> marks;
  for (size_t i = 0; i < 2; ++i) {  // the first allocations take kept regions
    held.push_back(qlt::fifo::AllocRingMemory(kSize));
    marks.push_back(held.back()[0]);
  }
  // Every release above went into the store and each next allocation of the
  // size took the region just released, so one region went round.
  EXPECT_EQ(marks, (std::vector<int>{static_cast<int>(kMany), 0}));
  for (BYTE* p : held) qlt::fifo::FreeRingMemory(p, kSize);
  held.clear();
  marks.clear();
  BYTE* pOther = qlt::fifo::AllocRingMemory(2 * kSize);  // another size: fresh memory
  EXPECT_EQ(pOther[0], 0);
  qlt::fifo::FreeRingMemory(pOther, 2 * kSize);
  for (size_t i = 0; i < kMany; ++i) {
    held.push_back(qlt::fifo::AllocRingMemory(kSize));
    held.back()[0] = 9;
  }
  for (BYTE* p : held) qlt::fifo::FreeRingMemory(p, kSize);  // more than the store holds
  for (size_t i = 0; i < kMany; ++i) {
    held[i] = qlt::fifo::AllocRingMemory(kSize);
    marks.push_back(held[i][0]);
  }
  EXPECT_EQ(std::count(marks.begin(), marks.end(), 9), static_cast<long>(qlt::fifo::kKeptRegions));
  for (BYTE* p : held) qlt::fifo::FreeRingMemory(p, kSize);
  BYTE* pSmall = qlt::fifo::AllocRingMemory(64);  // from the heap
  ASSERT_NE(pSmall, nullptr);
  qlt::fifo::FreeRingMemory(pSmall, 64);
  qlt::fifo::ReleaseKeptRingMemory();
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

// A record that does not fit the ring goes to a named overflow file in a
// folder made on demand. The mover moves the last overflow file into a ring
// that is then left with less than the low-water room and deletes the file;
// the consumer drains the ring and waits; only then does the producer write
// again. Every record must arrive without a stop.
TEST_F(DataFifoManTest, RecordsWrittenWhileTheConsumerWaitsAfterTheLastMoveArriveWithoutAStop) {
  TempDir dir;
  const std::string folder = dir.file("a/b");
  ASSERT_TRUE(m_man.SetDiskPath(dir.wpath("a") + L"\\b"));
  m_man.SetMemoryPoolSize(8 << 20);
  ASSERT_TRUE(m_man.SetBufferingMode(1) && m_man.StartFifo());
  const std::string a(7 << 20, 'a'), b((13 << 20) / 2, 'b'), c("c"), d(b.size(), 'd');
  Write(a);  // memory
  Write(b);  // does not fit beside a: overflow file
  const std::vector<std::string> files = fifotest::DirEntries(folder);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].find_first_not_of("0123456789abcdef"), 32u) << files[0];
  EXPECT_EQ(files[0].substr(32), ".dat");
  EXPECT_EQ(Read(), a);
  EXPECT_EQ(Read(), b);  // moved back; the ring now has under the low-water room free
  // The mover deletes the file it has moved back.
  ASSERT_TRUE(fifotest::Eventually([&] { return fifotest::DirEntries(folder).empty(); }));

  std::string got[3];
  fifotest::Background consumer(
      [&] {
        for (std::string& r : got) r = Read();
      },
      [&] { m_man.StopFifo(); });
  ASSERT_TRUE(fifotest::Eventually([&] { return m_man.IsConsumerWaiting(); }));
  Write(c);
  Write(d);
  m_man.WriteBuffer(nullptr, 0);
  ASSERT_TRUE(consumer.Done());
  EXPECT_EQ(got[0], c);
  EXPECT_TRUE(got[1] == d) << got[1].size();
  EXPECT_EQ(got[2], "<-1>");
}

// The default overflow folder (C:\Temp) inside a temporary directory, for
// the lifetime of the object.
class TempDefaultDrive {
 public:
  TempDefaultDrive() { QltSetDrive(L'C', m_dir.wpath().c_str(), DRIVE_FIXED); }
  ~TempDefaultDrive() { QltResetDriveMap(); }
  TempDefaultDrive(const TempDefaultDrive&) = delete;
  TempDefaultDrive& operator=(const TempDefaultDrive&) = delete;
  const TempDir& Dir() const { return m_dir; }

 private:
  TempDir m_dir;
};

// Bad settings, sizes a ring cannot count and records that could never fit
// are refused, and a refused start leaves a manager that starts again.
TEST_F(DataFifoManTest, BadSettingsAndRecordsThatCouldNeverFitAreRefused) {
  EXPECT_EQ(m_man.SetBufferingMode(2), FALSE);
  EXPECT_EQ(m_man.SetDiskPath(L"Q:\\x\\y"), FALSE);  // no such drive
  for (DWORD nHuge : {0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(m_man.SetMemoryPoolSize(nHuge), FALSE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  }
  EXPECT_EQ(m_man.GetMemoryPoolSize(), CDataFifoMan::kDefaultMemoryPoolSize);
  m_man.SetMemoryPoolSize(2);
  EXPECT_FALSE(m_man.StartFifo());  // no record length fits
  m_man.StopFifo();                 // a failed start can be stopped and started again
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  EXPECT_EQ(m_man.SetBufferingMode(1), FALSE);                           // ring too small to move files back
  EXPECT_EQ(m_man.WriteBuffer(std::string(65, 'b').data(), 65), FALSE);  // refused, not a hang
  EXPECT_EQ(m_man.WriteBufferPieces("x", 1, nullptr, 60), FALSE);
  EXPECT_EQ(m_man.WriteBufferPieces(nullptr, 0, "x", 1), FALSE);  // never the end of data
  Write("ok");
  EXPECT_EQ(Read(), "ok");
}

// A manager kept in memory mode, as the exported pool keeps its own, starts
// no mover and creates no folder, and still carries records, one of them
// written in two pieces.
TEST_F(DataFifoManTest, MemoryModeStartsNoMoverAndCreatesNoFolder) {
  TempDefaultDrive drive;
  m_man.SetMemoryPoolSize(64);
  ASSERT_TRUE(m_man.StartFifo());
  EXPECT_FALSE(m_man.IsMoverRunning());
  Write("ok");
  EXPECT_EQ(Read(), "ok");
  EXPECT_EQ(m_man.WriteBufferPieces("pie", 3, "ces", 3), TRUE);  // one record from two pieces
  EXPECT_EQ(Read(), "pieces");
  m_man.StopFifo();
  EXPECT_TRUE(fifotest::DirEntries(drive.Dir().path()).empty());
}

// Switching a running manager to disk mode starts the mover then, in the
// default folder; when the mover cannot start, the switch, or a start in
// disk mode, fails cleanly with nothing running.
TEST_F(DataFifoManTest, DiskModeStartsTheMoverOrFailsCleanlyWhenItCannot) {
  TempDefaultDrive drive;
  m_man.SetMemoryPoolSize(8 << 20);
  ASSERT_TRUE(m_man.StartFifo());
  {
    qlt::fault::ScopedFault fault(fifotest::ThreadStartFault());
    EXPECT_EQ(m_man.SetBufferingMode(1), FALSE);  // no mover, no disk mode
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_FALSE(m_man.IsMoverRunning());
  }
  ASSERT_TRUE(m_man.SetBufferingMode(1));
  EXPECT_TRUE(m_man.IsMoverRunning());
  EXPECT_TRUE(FileExists(drive.Dir().file("Temp")));
  m_man.StopFifo();
  EXPECT_FALSE(m_man.IsMoverRunning());
  qlt::fault::ScopedFault fault(fifotest::ThreadStartFault());
  EXPECT_EQ(m_man.StartFifo(), FALSE);          // disk mode needs the mover
  EXPECT_EQ(m_man.WriteBuffer("x", 1), FALSE);  // and nothing runs
}

}  // namespace
