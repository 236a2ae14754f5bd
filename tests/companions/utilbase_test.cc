// The utility library's writer-option table and easy-file reader, as the
// writer and hosts use them, failed reads and allocation failures included.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "companions/utilbase/utilbase_api.h"
#include "platform/platform.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr int kDefaultBlock = 524288;

int BlockOf(const wchar_t* name) { return QLT_WriterOption::GetWriteBlockSize(CComBSTR(name)); }

// The preset size registered for name, or -1 when there is none.
long long PresetOf(const wchar_t* name) {
  ULONGLONG nSize = 77;
  if (QLT_WriterOption2::GetPresetFileSize(CComBSTR(name), nSize) > 0) return static_cast<long long>(nSize);
  EXPECT_EQ(nSize, 77u);  // nothing written when there is no preset
  return -1;
}

TEST(CompanionWriterOption, NamesMatchLooselyBadValuesAreRefusedAndFailuresKeepTheTable) {
  const CComBSTR name(L"C:\\Data\\Case.DAT");
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(name, 0), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(name, -4096), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(L""), 4096), 0);
  EXPECT_EQ(QLT_WriterOption2::SetPresetFileSize(CComBSTR(), 4096), 0);
  EXPECT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(0), 0);
  for (const wchar_t* bad : {static_cast<const wchar_t*>(name), L"", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(BlockOf(bad), kDefaultBlock);
    EXPECT_EQ(PresetOf(bad), -1);
  }
  // Without case or separator style, never by a prefix; clearing takes both, once.
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(name, 1 << 20), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(name, 5ull << 30), 1);
  EXPECT_EQ(BlockOf(L"C:/DATA/case.dat"), 1 << 20);
  EXPECT_EQ(PresetOf(L"c:\\DATA\\case.Dat"), 5ll << 30);
  EXPECT_EQ(BlockOf(L"C:\\Data\\Case.DAT2"), kDefaultBlock);
  EXPECT_EQ(QLT_WriterOption::ClearItem(CComBSTR(L"c:/data/CASE.DAT")), 1);
  EXPECT_EQ(BlockOf(name), kDefaultBlock);
  EXPECT_EQ(PresetOf(name), -1);
  EXPECT_EQ(QLT_WriterOption::ClearItem(name), 0);
  // A zero preset removes only the preset.
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(name, 8192), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(name, 123456789), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(name, 0), 1);
  EXPECT_EQ(PresetOf(name), -1);
  EXPECT_EQ(BlockOf(name), 8192);
  EXPECT_EQ(QLT_WriterOption::ClearItem(name), 1);
  // Out of memory at each allocation point: a setting is kept whole or not
  // at all.
  int nResult = 0;
  DWORD nError = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int) {
                  nResult = QLT_WriterOption::SetWriteBlockSize(name, 4096);
                  nError = GetLastError();
                },
                [&](int n, bool) {
                  EXPECT_TRUE(nResult == 1 || (nResult == 0 && nError == ERROR_NOT_ENOUGH_MEMORY)) << n;
                  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(name), nResult == 1 ? 4096 : kDefaultBlock);
                  QLT_WriterOption::ClearItem(name);
                }),
            1);
}

class CompanionEasyFile : public ::testing::Test {
 protected:
  void SetUp() override {
    std::mt19937 rng(12345);
    for (auto& c : m_strData) c = static_cast<char>(rng());
    ASSERT_TRUE(WriteWholeFile(m_dir.file("data.bin"), m_strData));
    m_file.Initialize(false);
    ASSERT_NE(m_file.Open(CComBSTR(m_dir.wpath("data.bin").c_str())), 0);
    ASSERT_EQ(m_file.SetReadBlockSize(4096), 1);
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
  // Backwards inside the block just read.
  ASSERT_EQ(m_file.SetPos(5000, 0), 1);
  ExpectReadAt(5000, 100);
  ASSERT_EQ(m_file.SetPos(-50, 1), 1);
  ExpectReadAt(5050, 10);
  // Negative results and unknown origins are refused and leave the position.
  EXPECT_EQ(m_file.SetPos(-1000000, 2), 0);
  EXPECT_EQ(m_file.SetPos(0, 3), 0);
  EXPECT_EQ(m_file.GetPos(), 5060);
}

TEST_F(CompanionEasyFile, FailedReadsAndBadCallsLeaveTheReaderUsable) {
  qlt::fault::Rule rule;
  rule.ops = qlt::fault::kRead;
  rule.action = qlt::fault::Action::kShort;
  rule.shortBytes = 100;
  rule.times = -1;
  {
    qlt::fault::ScopedFault fault(rule);
    ExpectReadAt(0, 5000);
    ExpectReadAt(5000, 9000);
    EXPECT_GT(fault.Fired(), 1);
  }
  unsigned char buf[100];
  rule.action = qlt::fault::Action::kFail;
  rule.times = 1;
  rule.error = ERROR_READ_FAULT;
  {
    qlt::fault::ScopedFault fault(rule);
    ASSERT_EQ(m_file.SetPos(60000, 0), 1);
    EXPECT_EQ(m_file.Read(buf, 10, 1), -1);
    EXPECT_EQ(m_file.GetPos(), 60000);
  }
  ExpectReadAt(60000, 5000);  // the same read works once the fault is gone
  EXPECT_EQ(m_file.Read(nullptr, 16, 1), -1);
  EXPECT_EQ(m_file.Read(buf, -1, 1), -1);
  // Another file opened on the same object: its own bytes from its start.
  ASSERT_TRUE(WriteWholeFile(m_dir.file("other.bin"), std::string(50, static_cast<char>(~m_strData[0]))));
  ASSERT_NE(m_file.Open(CComBSTR(m_dir.wpath("other.bin").c_str())), 0);
  ASSERT_EQ(m_file.Read(buf, sizeof(buf), 1), 50);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 50), ReadWholeFile(m_dir.file("other.bin")));
  EXPECT_EQ(m_file.Close(), 1);
  EXPECT_EQ(m_file.Open(CComBSTR(m_dir.wpath("absent.bin").c_str())), 0);
  EXPECT_EQ(m_file.Read(buf, 16, 1), -1);
}

// Out of memory at each allocation point of open and read: the call fails
// and says why, or reads the bytes; no exception leaves it.
TEST_F(CompanionEasyFile, ReadFailsCleanlyWhenMemoryRunsOut) {
  const CComBSTR path(m_dir.wpath("data.bin").c_str());
  int nResult = 0;
  DWORD nError = 0;
  int nRefusedRuns = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int) {
                  QLT_EasyFile file;
                  nResult = file.Initialize(false) && file.Open(path) ? 0 : -2;
                  unsigned char buffer[1000];
                  if (nResult == 0) nResult = file.Read(buffer, sizeof buffer, 0);
                  nError = GetLastError();
                  file.Close();
                },
                [&](int n, bool bFired) {
                  EXPECT_TRUE(bFired || nResult == 1000) << n;
                  EXPECT_TRUE(nResult >= 0 || nError == ERROR_NOT_ENOUGH_MEMORY) << n;
                  nRefusedRuns += nResult < 0;
                }),
            1);
  EXPECT_GT(nRefusedRuns, 0) << "a refused allocation made the open or the read fail";
}

}  // namespace
