// The easy-file reader over real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "companions/utilbase/utilbase_api.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

using qlt::fault::Rule;
using qlt::fault::ScopedFault;

class CompanionEasyFile : public ::testing::Test {
 protected:
  void SetUp() override {
    std::mt19937 rng(12345);
    for (auto& c : m_strData) c = static_cast<char>(rng());
    ASSERT_TRUE(WriteWholeFile(m_dir.file("data.bin"), m_strData));
    m_file.Initialize(false);
    ASSERT_NE(m_file.Open(CComBSTR(m_dir.wpath("data.bin").c_str())), 0);
  }

  // Reads nCount bytes and checks them against the data at nPos.
  void ExpectReadAt(__int64 nPos, int nCount) {
    std::vector<unsigned char> buf(static_cast<size_t>(nCount) + 1, 0xEE);
    int nExpected = static_cast<int>(std::clamp<__int64>(m_nSize - nPos, 0, nCount));
    ASSERT_EQ(m_file.Read(buf.data(), nCount, 1), nExpected) << "at " << nPos << " count " << nCount;
    ASSERT_EQ(0, memcmp(buf.data(), m_strData.data() + nPos, static_cast<size_t>(nExpected))) << "at " << nPos;
    EXPECT_EQ(buf[static_cast<size_t>(nExpected)], 0xEE) << "wrote past the bytes it reported";
    EXPECT_EQ(m_file.GetPos(), nPos + nExpected);
  }

  TempDir m_dir;
  std::string m_strData = std::string(100003, '\0');  // not a multiple of any block size used
  const __int64 m_nSize = 100003;
  QLT_EasyFile m_file;
};

TEST_F(CompanionEasyFile, SequentialAndSeekingReadsGiveTheBytesThere) {
  ASSERT_EQ(m_file.SetReadBlockSize(4096), 1);
  EXPECT_EQ(m_file.GetFileSize(false), m_nSize);
  // Odd sizes, some smaller and some larger than a block, up to the end.
  const int kSizes[] = {1, 333, 4095, 4097, 10000, 8192, 7};
  for (size_t i = 0; m_file.GetPos() < m_nSize; ++i) ExpectReadAt(m_file.GetPos(), kSizes[i % 7]);
  ExpectReadAt(m_nSize, 1);
  std::mt19937 rng(7);
  for (int i = 0; i < 300; ++i) {
    __int64 nPos = static_cast<__int64>(rng() % m_nSize);
    ASSERT_EQ(m_file.SetPos(nPos, 0), 1);
    ExpectReadAt(nPos, 1 + static_cast<int>(rng() % 9000));
  }
  // Backwards inside the block just read, relative moves and from the end.
  ASSERT_EQ(m_file.SetPos(5000, 0), 1);
  ExpectReadAt(5000, 100);
  ASSERT_EQ(m_file.SetPos(-50, 1), 1);
  ExpectReadAt(5050, 10);
  ASSERT_EQ(m_file.SetPos(-10, 2), 1);
  ExpectReadAt(m_nSize - 10, 100);
  ASSERT_EQ(m_file.SetPos(m_nSize + 4096, 0), 1);  // beyond the end: nothing to read
  ExpectReadAt(m_nSize + 4096, 10);
  // Negative results and unknown origins are refused and leave the position.
  EXPECT_EQ(m_file.SetPos(-1, 0), 0);
  EXPECT_EQ(m_file.SetPos(-1000000, 2), 0);
  EXPECT_EQ(m_file.SetPos(0, 3), 0);
  EXPECT_EQ(m_file.GetPos(), m_nSize + 4096);
}

TEST_F(CompanionEasyFile, ShortAndFailedPlatformReadsKeepTheDataRight) {
  ASSERT_EQ(m_file.SetReadBlockSize(4096), 1);
  Rule rule;
  rule.ops = qlt::fault::kRead;
  {
    Rule shortReads = rule;
    shortReads.action = qlt::fault::Action::kShort;
    shortReads.shortBytes = 100;
    shortReads.times = -1;
    ScopedFault fault(shortReads);
    ExpectReadAt(0, 5000);
    ExpectReadAt(5000, 9000);
    EXPECT_GT(fault.Fired(), 1);
  }
  {
    rule.error = ERROR_READ_FAULT;
    ScopedFault fault(rule);
    ASSERT_EQ(m_file.SetPos(60000, 0), 1);
    unsigned char buf[10];
    EXPECT_EQ(m_file.Read(buf, sizeof(buf), 1), -1);
    EXPECT_EQ(m_file.GetPos(), 60000);
  }
  ExpectReadAt(60000, 5000);  // the same read works once the fault is gone
}

TEST_F(CompanionEasyFile, BadCallsFailCleanlyAndReopenStartsAfresh) {
  unsigned char buf[100];
  EXPECT_EQ(m_file.Read(nullptr, 16, 1), -1);
  EXPECT_EQ(m_file.Read(buf, -1, 1), -1);
  EXPECT_EQ(m_file.SetReadBlockSize(0), 0);
  ExpectReadAt(0, 777);
  // Another file opened on the same object: its own bytes from its start.
  std::string other(50, static_cast<char>(~m_strData[0]));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("other.bin"), other));
  ASSERT_NE(m_file.Open(CComBSTR(m_dir.wpath("other.bin").c_str())), 0);
  EXPECT_EQ(m_file.GetPos(), 0);
  ASSERT_EQ(m_file.Read(buf, sizeof(buf), 1), 50);
  EXPECT_EQ(0, memcmp(buf, other.data(), 50));
  EXPECT_EQ(m_file.Close(), 1);
  EXPECT_EQ(m_file.Read(buf, 16, 1), -1);
  EXPECT_EQ(m_file.SetPos(0, 0), 0);
  EXPECT_EQ(m_file.GetFileSize(false), -1);
  EXPECT_EQ(m_file.Open(CComBSTR(m_dir.wpath("absent.bin").c_str())), 0);
  EXPECT_EQ(m_file.Open(CComBSTR()), 0);
  EXPECT_EQ(m_file.Read(buf, 16, 1), -1);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("empty.bin"), ""));
  ASSERT_NE(m_file.Open(CComBSTR(m_dir.wpath("empty.bin").c_str())), 0);
  EXPECT_EQ(m_file.GetFileSize(false), 0);
  EXPECT_EQ(m_file.Read(buf, 16, 1), 0);
}

}  // namespace
