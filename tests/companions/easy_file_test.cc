// The easy-file reader over real files.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "diagnostics/utilbase_api.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

using qlt::fault::Action;
using qlt::fault::Rule;
using qlt::fault::ScopedFault;

std::string MakeData(size_t nSize) {
  std::string data(nSize, '\0');
  uint32_t x = 12345;
  for (auto& c : data) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return data;
}

class CompanionEasyFile : public ::testing::Test {
 protected:
  void SetUp() override {
    m_strData = MakeData(100003);  // not a multiple of any block size used
    ASSERT_TRUE(WriteWholeFile(m_dir.file("data.bin"), m_strData));
    m_pFile = std::make_unique<QLT_EasyFile>();
    m_pFile->Initialize(false);
    ASSERT_NE(m_pFile->Open(CComBSTR(m_dir.wpath("data.bin").c_str())), 0);
  }

  // Reads nCount bytes and checks them against the data at nPos.
  void ExpectReadAt(__int64 nPos, int nCount) {
    std::vector<unsigned char> buf(static_cast<size_t>(nCount) + 1, 0xEE);
    int nExpected = static_cast<int>(std::min<__int64>(nCount, static_cast<__int64>(m_strData.size()) - nPos));
    if (nExpected < 0) nExpected = 0;
    ASSERT_EQ(m_pFile->Read(buf.data(), nCount, 1), nExpected) << "at " << nPos << " count " << nCount;
    ASSERT_EQ(0, memcmp(buf.data(), m_strData.data() + nPos, static_cast<size_t>(nExpected))) << "at " << nPos;
    EXPECT_EQ(buf[static_cast<size_t>(nExpected)], 0xEE) << "wrote past the bytes it reported";
    EXPECT_EQ(m_pFile->GetPos(), nPos + nExpected);
  }

  TempDir m_dir;
  std::string m_strData;
  std::unique_ptr<QLT_EasyFile> m_pFile;
};

TEST_F(CompanionEasyFile, SequentialReadsCrossBlockBoundaries) {
  ASSERT_EQ(m_pFile->SetReadBlockSize(4096), 1);
  EXPECT_EQ(m_pFile->GetFileSize(false), static_cast<__int64>(m_strData.size()));
  // Odd sizes, some smaller and some larger than a block, then past the end.
  const int kSizes[] = {1, 333, 4095, 4097, 10000, 8192, 7};
  __int64 nPos = 0;
  size_t i = 0;
  while (nPos < static_cast<__int64>(m_strData.size())) {
    int nCount = kSizes[i++ % (sizeof(kSizes) / sizeof(kSizes[0]))];
    ExpectReadAt(nPos, nCount);
    nPos = m_pFile->GetPos();
  }
  unsigned char byte = 0;
  EXPECT_EQ(m_pFile->Read(&byte, 1, 1), 0);
  EXPECT_EQ(m_pFile->Read(&byte, 0, 1), 0);
}

TEST_F(CompanionEasyFile, SetPosThenReadGivesTheBytesThere) {
  ASSERT_EQ(m_pFile->SetReadBlockSize(1000), 1);
  std::mt19937 rng(7);
  std::uniform_int_distribution<__int64> pos(0, static_cast<__int64>(m_strData.size()) - 1);
  std::uniform_int_distribution<int> len(1, 3000);
  for (int i = 0; i < 300; ++i) {
    __int64 nPos = pos(rng);
    ASSERT_EQ(m_pFile->SetPos(nPos, 0), 1);
    ExpectReadAt(nPos, len(rng));
  }
  // Backwards inside the block just read, relative moves and from the end.
  ASSERT_EQ(m_pFile->SetPos(5000, 0), 1);
  ExpectReadAt(5000, 100);
  ASSERT_EQ(m_pFile->SetPos(-50, 1), 1);
  ExpectReadAt(5050, 10);
  ASSERT_EQ(m_pFile->SetPos(-10, 2), 1);
  ExpectReadAt(static_cast<__int64>(m_strData.size()) - 10, 100);
  // Beyond the end is a valid position with nothing to read.
  ASSERT_EQ(m_pFile->SetPos(static_cast<__int64>(m_strData.size()) + 4096, 0), 1);
  ExpectReadAt(static_cast<__int64>(m_strData.size()) + 4096, 10);
  // Negative results and unknown origins are refused and leave the position.
  EXPECT_EQ(m_pFile->SetPos(-1, 0), 0);
  EXPECT_EQ(m_pFile->SetPos(-1000000, 2), 0);
  EXPECT_EQ(m_pFile->SetPos(0, 3), 0);
  EXPECT_EQ(m_pFile->GetPos(), static_cast<__int64>(m_strData.size()) + 4096);
}

TEST_F(CompanionEasyFile, ShortAndFailedPlatformReadsKeepTheDataRight) {
  ASSERT_EQ(m_pFile->SetReadBlockSize(4096), 1);
  {
    Rule rule;
    rule.ops = qlt::fault::kRead;
    rule.action = Action::kShort;
    rule.shortBytes = 100;
    rule.times = -1;
    ScopedFault fault(rule);
    ExpectReadAt(0, 5000);
    ExpectReadAt(5000, 9000);
    EXPECT_GT(fault.Fired(), 1);
  }
  {
    Rule rule;
    rule.ops = qlt::fault::kRead;
    rule.error = ERROR_READ_FAULT;
    ScopedFault fault(rule);
    ASSERT_EQ(m_pFile->SetPos(60000, 0), 1);
    unsigned char buf[10];
    EXPECT_EQ(m_pFile->Read(buf, sizeof(buf), 1), -1);
    EXPECT_EQ(m_pFile->GetPos(), 60000);
  }
  ExpectReadAt(60000, 5000);  // the same read works once the fault is gone
}

TEST_F(CompanionEasyFile, BadCallsFailCleanly) {
  unsigned char buf[16];
  EXPECT_EQ(m_pFile->Read(nullptr, 16, 1), -1);
  EXPECT_EQ(m_pFile->Read(buf, -1, 1), -1);
  EXPECT_EQ(m_pFile->SetReadBlockSize(0), 0);
  EXPECT_EQ(m_pFile->SetReadBlockSize(-5), 0);
  EXPECT_EQ(m_pFile->Close(), 1);
  EXPECT_EQ(m_pFile->Read(buf, 16, 1), -1);
  EXPECT_EQ(m_pFile->GetPos(), -1);
  EXPECT_EQ(m_pFile->SetPos(0, 0), 0);
  EXPECT_EQ(m_pFile->GetFileSize(false), -1);
  EXPECT_EQ(m_pFile->Close(), 1);

  QLT_EasyFile missing;
  missing.Initialize(false);
  EXPECT_EQ(missing.Open(CComBSTR(m_dir.wpath("absent.bin").c_str())), 0);
  EXPECT_EQ(missing.Open(CComBSTR()), 0);
  EXPECT_EQ(missing.Read(buf, 16, 1), -1);
  // An empty file opens and reads nothing.
  ASSERT_TRUE(WriteWholeFile(m_dir.file("empty.bin"), ""));
  ASSERT_NE(missing.Open(CComBSTR(m_dir.wpath("empty.bin").c_str())), 0);
  EXPECT_EQ(missing.GetFileSize(false), 0);
  EXPECT_EQ(missing.Read(buf, 16, 1), 0);
}

TEST_F(CompanionEasyFile, ReopenStartsAtTheNewFilesBeginning) {
  ExpectReadAt(0, 777);
  std::string other = MakeData(50);
  other[0] = static_cast<char>(~m_strData[0]);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("other.bin"), other));
  ASSERT_NE(m_pFile->Open(CComBSTR(m_dir.wpath("other.bin").c_str())), 0);
  EXPECT_EQ(m_pFile->GetPos(), 0);
  unsigned char buf[100];
  ASSERT_EQ(m_pFile->Read(buf, sizeof(buf), 1), 50);
  EXPECT_EQ(0, memcmp(buf, other.data(), 50));
}

}  // namespace
