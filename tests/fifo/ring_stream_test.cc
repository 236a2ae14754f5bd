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

TEST_F(RingStreamTest, ExactFitWritesAtOnceAndOneByteOverWaitsForTheReader) {
  EXPECT_EQ(Write("0123456789"), 10);
  EXPECT_EQ(m_ring.FreeSpace(), 0);
  EXPECT_EQ(Read(3), "012");
  EXPECT_EQ(Write("abc"), 3);  // exactly the freed space
  LONG n = 1;
  Background writer([&] { m_ring.WriteData("X", n); }, [&] { m_ring.StopWriting(); });
  EXPECT_FALSE(writer.Done(kShortWait));
  EXPECT_EQ(Read(1), "3");
  ASSERT_TRUE(writer.Done());
  EXPECT_EQ(n, 1);
  EXPECT_EQ(Read(10), "456789abcX");
}

TEST_F(RingStreamTest, WritesAcrossTheEndReadBackUnchanged) {
  EXPECT_EQ(Write("abcdef"), 6);
  EXPECT_EQ(Read(6), "abcdef");
  EXPECT_EQ(Write("ghij"), 4);    // ends exactly at the end of the buffer
  EXPECT_EQ(Write("klmnop"), 6);  // starts again at offset 0
  EXPECT_EQ(Read(5), "ghijk");
  EXPECT_EQ(Write("qrstu"), 5);       // crosses the end: two copies
  EXPECT_EQ(Read(10), "lmnopqrstu");  // the read crosses the end too
  EXPECT_FALSE(m_ring.HasData());
}

TEST_F(RingStreamTest, ShortReadWaitsUntilTheWholeLengthIsThere) {
  Write("ab");
  std::string got;
  Background reader([&] { got = Read(4); }, [&] { m_ring.SetEndOfStream(); });
  EXPECT_FALSE(reader.Done(kShortWait));
  Write("cd");
  ASSERT_TRUE(reader.Done());
  EXPECT_EQ(got, "abcd");
}

TEST_F(RingStreamTest, EndOfStreamReturnsWhatIsLeftThenNothing) {
  Write("xyz");
  m_ring.SetEndOfStream();
  EXPECT_TRUE(m_ring.IsEndOfStream());
  bool bMore = true;
  EXPECT_EQ(Read(10, &bMore), "xyz");
  EXPECT_FALSE(bMore);
  EXPECT_EQ(Read(10, &bMore), "");
  EXPECT_FALSE(bMore);
}

TEST_F(RingStreamTest, EndMarkReleasesAWaitingReaderWithNothing) {
  bool bMore = true;
  std::string got = "unset";
  Background reader([&] { got = Read(4, &bMore); }, [&] { m_ring.SetEndOfStream(); });
  EXPECT_FALSE(reader.Done(kShortWait));
  m_ring.SetEndOfStream();
  ASSERT_TRUE(reader.Done());
  EXPECT_EQ(got, "");
  EXPECT_FALSE(bMore);
}

TEST_F(RingStreamTest, StopWritingReleasesAWriterWithWhatFitsAndEndsTheStream) {
  Write("1234567");
  LONG n = 5;
  Background writer([&] { m_ring.WriteData("ABCDE", n); }, [&] { m_ring.StopWriting(); });
  EXPECT_FALSE(writer.Done(kShortWait));
  m_ring.StopWriting();
  ASSERT_TRUE(writer.Done());
  EXPECT_EQ(n, 3);
  EXPECT_TRUE(m_ring.IsEndOfStream());
  bool bMore = true;
  EXPECT_EQ(Read(20, &bMore), "1234567ABC");
  EXPECT_FALSE(bMore);
}

TEST_F(RingStreamTest, StopWritingGivenEarlyCutsTheNextWaitingWriteEvenAfterReset) {
  m_ring.StopWriting();
  EXPECT_EQ(Write("0123"), 4);  // no wait: the signal stays pending
  m_ring.ResetStream();
  EXPECT_FALSE(m_ring.HasData());
  Write("0123456789");
  EXPECT_EQ(Write("more"), 0);  // had to wait: cut short at once
  EXPECT_TRUE(m_ring.IsEndOfStream());
}

TEST_F(RingStreamTest, WriteLongerThanTheCapacityWaitsUntilStopWriting) {
  std::string big(11, 'b');
  LONG n = 11;
  Background writer([&] { m_ring.WriteData(big.data(), n); }, [&] { m_ring.StopWriting(); });
  EXPECT_FALSE(writer.Done(kShortWait));
  m_ring.StopWriting();
  ASSERT_TRUE(writer.Done());
  EXPECT_EQ(n, 10);
}

TEST_F(RingStreamTest, DiscardingReadConsumesAndFreesSpace) {
  Write("0123456789");
  LONG n = 6;
  EXPECT_TRUE(m_ring.ReadData(nullptr, n, true));
  EXPECT_EQ(n, 6);
  EXPECT_EQ(m_ring.FreeSpace(), 6);
  EXPECT_EQ(Read(4), "6789");
  Write("0123456789");
  n = 10;
  EXPECT_TRUE(m_ring.ReadData(nullptr, n, true));  // the whole capacity at once
  EXPECT_EQ(m_ring.FreeSpace(), 10);
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
  EXPECT_EQ(n, 0);
  n = 2;
  EXPECT_FALSE(m_ring.ReadData(nullptr, n, false));  // null destination without discard
  EXPECT_EQ(n, 0);
  EXPECT_EQ(Read(3), "abc");
}

TEST(RingStreamStream, RandomChunksCrossTheRingIntactBetweenTwoThreads) {
  CRingStream ring(L"stream");
  // Odd size, so every offset gets used; a write and a read together never
  // ask for more than the capacity (else both sides could wait for ever).
  ASSERT_EQ(ring.InitStream(4099), S_OK);
  constexpr int kTotal = 4 << 20;
  std::vector<char> src(kTotal), dst(kTotal);
  fifotest::FillRecord(7, src.data(), src.size());
  Background producer(
      [&] {
        for (int pos = 0, i = 0; pos < kTotal; ++i) {
          LONG n = std::min<LONG>(kTotal - pos, static_cast<LONG>(fifotest::Mix(i) % 2099) + 1);
          ring.WriteData(src.data() + pos, n);
          pos += n;
        }
        ring.SetEndOfStream();
      },
      [&] { ring.StopWriting(); });
  int got = 0;
  for (int i = 0;; ++i) {
    LONG n = static_cast<LONG>(fifotest::Mix(i + 99) % 2000) + 1;
    n = std::min<LONG>(n, kTotal - got + 1);
    bool bMore = ring.ReadData(dst.data() + got, n);
    got += n;
    if (!bMore) break;
  }
  ASSERT_TRUE(producer.Done());
  EXPECT_EQ(got, kTotal);
  EXPECT_TRUE(src == dst);
  ring.UninitStream();
}

}  // namespace
