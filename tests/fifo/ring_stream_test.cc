#include "fifo/ring_stream.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
