#include "fifo/ring_stream.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fifo/fifo_test_util.h"

using fifotest::Background;
using fifotest::kShortWait;

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

TEST_F(RingStreamTest, ExactFitWritesAtOnceOneByteOverWaitsAndBytesSurviveTheWrap) {
  EXPECT_EQ(Write("0123456789"), 10);
  EXPECT_EQ(Read(3), "012");
  EXPECT_EQ(Write("abc"), 3);  // exactly the freed space, from offset 0 again
  LONG n = 1;
  {
    Background writer([&] { m_ring.WriteData("X", n); }, [&] { m_ring.StopWriting(); });
    EXPECT_FALSE(writer.Done(kShortWait));
    EXPECT_EQ(Read(1), "3");
    ASSERT_TRUE(writer.Done());
  }
  EXPECT_EQ(n, 1);
  n = 4;
  EXPECT_TRUE(m_ring.ReadData(nullptr, n, true));  // discards "4567"
  EXPECT_EQ(m_ring.FreeSpace(), 4);
  Write("defg");
  EXPECT_EQ(Read(10), "89abcXdefg");  // the read crosses the end of the buffer
  Write("hijk");                      // and so does this write
  EXPECT_EQ(Read(4), "hijk");
}

TEST_F(RingStreamTest, ReaderWaitsForTheWholeLengthAndGetsWhatIsLeftAtTheEnd) {
  Write("ab");
  std::string got;
  Background reader([&] { got = Read(4); }, [&] { m_ring.SetEndOfStream(); });
  EXPECT_FALSE(reader.Done(kShortWait));
  Write("cd");
  ASSERT_TRUE(reader.Done());
  EXPECT_EQ(got, "abcd");
  Write("xyz");
  m_ring.SetEndOfStream();
  bool bMore = true;
  EXPECT_EQ(Read(10, &bMore), "xyz");
  EXPECT_FALSE(bMore);
  EXPECT_EQ(Read(10, &bMore), "");
  EXPECT_FALSE(bMore);
}

TEST_F(RingStreamTest, StopWritingCutsAWaitingWriteToWhatFitsOrStaysPendingForTheNext) {
  Write("1234567");
  LONG n = 5;
  {
    Background writer([&] { m_ring.WriteData("ABCDE", n); }, [&] { m_ring.StopWriting(); });
    EXPECT_FALSE(writer.Done(kShortWait));
    m_ring.StopWriting();
    ASSERT_TRUE(writer.Done());
  }
  EXPECT_EQ(n, 3);
  bool bMore = true;
  EXPECT_EQ(Read(20, &bMore), "1234567ABC");
  EXPECT_FALSE(bMore);  // the stream has ended

  m_ring.StopWriting();
  m_ring.ResetStream();         // keeps the pending signal
  EXPECT_EQ(Write("0123"), 4);  // no wait needed: not cut
  Write("456789");
  n = 4;
  Background cut([&] { m_ring.WriteData("more", n); }, [&] { m_ring.StopWriting(); });
  ASSERT_TRUE(cut.Done());  // had to wait: cut short at once by the pending signal
  EXPECT_EQ(n, 0);
  EXPECT_TRUE(m_ring.IsEndOfStream());
}

TEST_F(RingStreamTest, BadArgumentsAreRefusedWithoutTouchingTheRing) {
  Write("abc");
  LONG n = -1;
  EXPECT_EQ(m_ring.WriteData("x", n), FALSE);
  EXPECT_EQ(n, 0);
  n = 3;
  EXPECT_EQ(m_ring.WriteData(nullptr, n), FALSE);
  n = -5;
  EXPECT_FALSE(m_ring.ReadData(nullptr, n, true));
  n = 2;
  EXPECT_FALSE(m_ring.ReadData(nullptr, n, false));  // null destination without discard
  EXPECT_EQ(n, 0);
  EXPECT_EQ(Read(3), "abc");
}

// Ending and closing release a side that waits, with nothing more written;
// Close also survives ResetStream, and only InitStream reopens the ring.
TEST_F(RingStreamTest, EndAndCloseReleaseWaitersAndCloseStaysInForceUntilInitStream) {
  for (bool bClose : {false, true}) {
    SCOPED_TRACE(bClose ? "Close" : "SetEndOfStream");
    ASSERT_EQ(m_ring.InitStream(10), S_OK);
    auto end = [&] { bClose ? m_ring.Close() : m_ring.SetEndOfStream(); };
    Write("0123456789");
    LONG n = 1;
    {
      Background writer([&] { m_ring.WriteData("X", n); }, end);
      EXPECT_FALSE(writer.Done(kShortWait));
      end();
      ASSERT_TRUE(writer.Done());
    }
    EXPECT_EQ(n, 0);              // released with nothing written
    EXPECT_EQ(Write("late"), 0);  // and every later write alike
    bool bMore = true;
    EXPECT_EQ(Read(20, &bMore), "0123456789");
    EXPECT_FALSE(bMore);

    m_ring.ResetStream();
    EXPECT_EQ(m_ring.IsClosed(), bClose);
    EXPECT_EQ(m_ring.IsEndOfStream(), bClose);
    EXPECT_EQ(Write("ab"), bClose ? 0 : 2);
    if (!bClose) {
      std::string got;
      Background reader([&] { got = Read(4, &bMore); }, end);  // waits for 2 more bytes
      EXPECT_FALSE(reader.Done(kShortWait));
      end();
      ASSERT_TRUE(reader.Done());
      EXPECT_EQ(got, "ab");
      EXPECT_FALSE(bMore);
    }
    EXPECT_EQ(Read(4, &bMore), "");  // a closed or drained ring answers at once
    EXPECT_FALSE(bMore);
  }
  ASSERT_EQ(m_ring.InitStream(10), S_OK);  // reopens the closed ring
  EXPECT_FALSE(m_ring.IsClosed());
  EXPECT_EQ(Write("again"), 5);
  EXPECT_EQ(Read(5), "again");
}

// The end is marked from a third thread while the producer copies blocks:
// every byte a write reports as written is read before the reader sees the
// drained end, and nothing appears after it.
TEST_F(RingStreamTest, EndMarkedDuringAWriteIsFinalOnceAReaderHasSeenTheRingDrained) {
  const LONG kBlock = 256 << 10;
  ASSERT_EQ(m_ring.InitStream(4 * kBlock), S_OK);
  const std::vector<char> block(kBlock, 'w');
  for (int round = 0; round < 300; ++round) {
    m_ring.ResetStream();
    long long nWritten = 0, nRead = 0;
    bool bLeftover = false;
    {
      Background writer(
          [&] {
            for (LONG n = kBlock; n == kBlock; nWritten += n) {
              n = kBlock;
              m_ring.WriteData(block.data(), n);
            }
          },
          [&] { m_ring.Close(); });
      Background reader(
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
          [&] { m_ring.Close(); });
      ASSERT_TRUE(reader.Done());
      ASSERT_TRUE(writer.Done());
    }
    ASSERT_FALSE(bLeftover) << round;
    ASSERT_FALSE(m_ring.HasData()) << round;
    ASSERT_EQ(nRead, nWritten) << round;
  }
}

TEST_F(RingStreamTest, CapacitiesBeyondTheSignedRangeAreRefusedBeforeAnythingChanges) {
  Write("keep");
  EXPECT_EQ(m_ring.InitStream(0x80000000u), E_INVALIDARG);
  EXPECT_EQ(m_ring.InitStream(0xFFFFFFFFu), E_INVALIDARG);
  EXPECT_EQ(m_ring.GetBufferSize(), 10u);  // the old buffer and its data stay
  EXPECT_EQ(Read(4), "keep");
}

}  // namespace
