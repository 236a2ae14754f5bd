// The local back-end: block-cached reads, skips, seeks, large offsets, the
// write path, access-mode rules and injected platform failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "access/kx_file_access_local.h"
#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "platform/faults.h"
#include "tests/access/access_fixture.h"

namespace {

constexpr size_t kFileSize = 1000000;

// One read or skip (null buffer) and what it must deliver.
struct Step {
  __int64 seekTo;  // -1: no SetPosition before the read
  int count;
  bool skip;
  int expected;       // result
  __int64 expectPos;  // GetPosition afterwards
};

class LocalAccessTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    m_nOldBlock = SdkSettings.ReadBufSize;
    m_nOldMode = SdkSettings.ReadMode;
    SdkSettings.ReadMode = GetParam();  // buffered and unbuffered opens
    ASSERT_TRUE(WritePatternFile(m_dir.file("data.bin"), kFileSize));
  }
  void TearDown() override {
    SdkSettings.ReadBufSize = m_nOldBlock;
    SdkSettings.ReadMode = m_nOldMode;
  }
  CComBSTR Path(const std::string& name = "data.bin") const { return CComBSTR(m_dir.wpath(name).c_str()); }

  // Runs the steps on a fresh open and checks every delivered byte.
  void RunSteps(int block, const std::vector<Step>& steps) {
    SdkSettings.ReadBufSize = block;
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(Path(), 1), 1);
    EXPECT_EQ(f.GetLength(), kFileSize);
    __int64 pos = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
      const Step& s = steps[i];
      SCOPED_TRACE("block " + std::to_string(block) + " step " + std::to_string(i));
      if (s.seekTo >= 0) {
        ASSERT_EQ(f.SetPosition(s.seekTo), 1);
        pos = s.seekTo;
      }
      std::string buf(s.count > 0 ? s.count : 0, '\0');
      int n = f.Read(s.skip ? nullptr : reinterpret_cast<BYTE*>(buf.data()), s.count);
      EXPECT_EQ(n, s.expected);
      if (!s.skip && n > 0) {
        EXPECT_TRUE(buf.substr(0, n) == Pattern(pos, n)) << "bytes differ";
      }
      pos = s.expectPos;
      EXPECT_EQ(f.GetPosition(), s.expectPos);
    }
    EXPECT_EQ(f.CloseFile(), 1);
  }

  TempDir m_dir;
  int m_nOldBlock = 0;
  int m_nOldMode = 0;
};

TEST_P(LocalAccessTest, ReadsAroundTheCacheBlockDeliverTheFileBytes) {
  const int B = 65536;
  RunSteps(B, {
                  {-1, 100, false, 100, 100},                          // first fill
                  {-1, 100, false, 100, 200},                          // from the cache
                  {-1, B - 150, false, B - 150, B + 50},               // straddles the block end
                  {-1, 3 * B + 7, false, 3 * B + 7, 4 * B + 57},       // exceeds the block
                  {5000, 100, false, 100, 5100},                       // seek back, unaligned
                  {B - 1, 2, false, 2, B + 1},                         // one byte either side
                  {0, 1, false, 1, 1},                                 // back to the start
                  {kFileSize - 10, 5000, false, 10, kFileSize},        // end of file
                  {-1, 100, false, 0, kFileSize},                      // past the end
                  {kFileSize + 5000, 10, false, 0, kFileSize + 5000},  // seek past the end
                  {123456, 1, false, 1, 123457},
              });
}

TEST_P(LocalAccessTest, OddBlockSizesAndManySmallReadsStayExact) {
  for (int block : {4096, 1000, 262144}) {
    std::vector<Step> steps;
    __int64 pos = 0;
    for (int count : {1, 4095, 4097, 333, 70000, 1, 12345}) {
      steps.push_back({-1, count, false, count, pos + count});
      pos += count;
    }
    RunSteps(block, steps);
  }
}

TEST_P(LocalAccessTest, NullBufferSkipsForwardAndBackward) {
  RunSteps(65536, {
                      {1000, -300, true, 300, 700},        // backwards: positive result
                      {-1, 10, false, 10, 710},            // cache emptied: right bytes
                      {-1, 200000, true, 200000, 200710},  // forwards, past the cache
                      {-1, 50, false, 50, 200760},
                      {-1, -200760, true, 200760, 0},  // to the very start
                      {-1, 20, false, 20, 20},
                  });
}

TEST_P(LocalAccessTest, SecondOpenNeverServesTheFirstFilesCache) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("other.bin"), std::string(5000, 'x')));
  KxFileAccessLocal f;
  char buf[100];
  ASSERT_EQ(f.OpenFile(Path(), 1), 1);
  ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 100), 100);
  ASSERT_EQ(f.OpenFile(Path("other.bin"), 1), 1);
  ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 100), 100);
  EXPECT_EQ(std::string(buf, 100), std::string(100, 'x'));
}

INSTANTIATE_TEST_SUITE_P(ReadModes, LocalAccessTest, ::testing::Values(0, 1),
                         [](const auto& info) { return info.param ? "Unbuffered" : "Buffered"; });

TEST(LocalAccessLargeTest, PositionsAboveFourGiBInASparseFile) {
  TempDir dir;
  const __int64 kMarkAt = (5LL << 30) + 12345;
  {
    int fd = ::open(dir.file("sparse.bin").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    std::string mark = Pattern(kMarkAt, 100);
    ASSERT_EQ(::pwrite(fd, mark.data(), mark.size(), kMarkAt), 100);
    ::close(fd);
  }
  for (int mode : {0, 1}) {
    SdkSettings.ReadMode = mode;
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(CComBSTR(dir.wpath("sparse.bin").c_str()), 1), 1);
    EXPECT_EQ(f.GetLength(), static_cast<ULONGLONG>(kMarkAt + 100));
    char buf[200];
    ASSERT_EQ(f.SetPosition(kMarkAt - 50), 1);
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 200), 150);  // 50 zeros, the mark, the end
    EXPECT_EQ(std::string(buf, 50), std::string(50, '\0'));
    EXPECT_TRUE(std::string(buf + 50, 100) == Pattern(kMarkAt, 100));
    // A skip across the 4 GiB line from the start lands on the mark too.
    ASSERT_EQ(f.SetPosition(0), 1);
    ASSERT_EQ(f.Read(nullptr, static_cast<int>(1LL << 30)), 1 << 30);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(f.Read(nullptr, 1 << 30), 1 << 30);
    ASSERT_EQ(f.Read(nullptr, 12345), 12345);
    EXPECT_EQ(f.GetPosition(), kMarkAt);
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 10), 10);
    EXPECT_TRUE(std::string(buf, 10) == Pattern(kMarkAt, 10));
  }
  SdkSettings.ReadMode = 1;
}

TEST(LocalAccessWriteTest, WriteModeEmptiesSeeksExactlyAndReportsPositions) {
  TempDir dir;
  ASSERT_TRUE(WriteWholeFile(dir.file("out.bin"), std::string(9000, 'o')));
  KxFileAccessLocal f;
  CComBSTR path(dir.wpath("out.bin").c_str());
  ASSERT_EQ(f.OpenFile(path, 2), 1);
  EXPECT_EQ(f.GetLength(), 0u);
  std::string data = Pattern(0, 10000);
  EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 10000), 10000);
  EXPECT_EQ(f.GetPosition(), 0);  // writes do not move the read position
  EXPECT_EQ(f.GetLength(), 0u);   // recorded at the open
  // An unaligned seek: the next write lands exactly there, nothing before it
  // is overwritten.
  ASSERT_EQ(f.SetPosition(5001), 1);
  EXPECT_EQ(f.GetPosition(), 5001);
  EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>("ZZ"), 2), 2);
  EXPECT_EQ(f.CloseFile(), 1);
  data.replace(5001, 2, "ZZ");
  EXPECT_TRUE(ReadWholeFile(dir.file("out.bin")) == data);
}

TEST(LocalAccessRulesTest, ModesBadArgumentsAndClosedFilesFailWithZero) {
  TempDir dir;
  ASSERT_TRUE(WritePatternFile(dir.file("in.bin"), 5000));
  CComBSTR path(dir.wpath("in.bin").c_str());
  KxFileAccessLocal f;
  DWORD mode = 7;
  EXPECT_EQ(f.GetAccessMode(mode), 0);
  EXPECT_EQ(mode, 0xFFFFFFFFu);

  const struct {
    DWORD mode;
    const char* file;
    int open;
    int accessResult;  // GetAccessMode after the open
  } opens[] = {
      {1, "in.bin", 1, 1}, {2, "new.bin", 1, 1},     {3, "in.bin", 0, 0},
      {0, "in.bin", 0, 0}, {1, "missing.bin", 0, 1},  // a failed open keeps its mode
  };
  for (const auto& c : opens) {
    SCOPED_TRACE(std::string(c.file) + " mode " + std::to_string(c.mode));
    EXPECT_EQ(f.OpenFile(CComBSTR(dir.wpath(c.file).c_str()), c.mode), c.open);
    EXPECT_EQ(f.GetAccessMode(mode), c.accessResult);
    if (c.accessResult) {
      EXPECT_EQ(mode, c.mode);
    }
  }
  EXPECT_EQ(f.OpenFile(CComBSTR(L""), 1), 0);

  // With a file open: bad arguments; after CloseFile: everything.
  ASSERT_EQ(f.OpenFile(path, 1), 1);
  BYTE buf[16];
  EXPECT_EQ(f.Read(buf, -5), 0);
  EXPECT_EQ(f.Write(nullptr, 5), 0);
  EXPECT_EQ(f.Write(buf, -5), 0);
  EXPECT_EQ(f.SetReadBufferSize(0), 0);
  EXPECT_EQ(f.CloseFile(), 1);
  EXPECT_EQ(f.CloseFile(), 0);
  EXPECT_EQ(f.Read(buf, 16), 0);
  EXPECT_EQ(f.Read(nullptr, 16), 0);
  EXPECT_EQ(f.Write(buf, 16), 0);
  EXPECT_EQ(f.SetPosition(10), 0);
  EXPECT_EQ(f.GetPosition(), 0);
  EXPECT_EQ(f.LogInHost(CComBSTR(L"h"), CComBSTR(L"u"), CComBSTR(L"p"), 21), 0);
}

// Injected platform failures: the call's result and the error-log entry.
class LocalAccessFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetModuleDirectoryOverride(m_root.wpath());
    std::filesystem::create_directories(m_root.path() + "/sdk-log/ErrorLog");
    SdkSettings.LogFileOn = 1;
    SdkSettings.ReadMode = 0;
    ASSERT_TRUE(WritePatternFile(m_root.file("in.bin"), 300000));
  }
  void TearDown() override {
    SdkSettings.LogFileOn = 0;
    SdkSettings.ReadMode = 1;
    SetModuleDirectoryOverride(L"");
  }
  std::string Log() const { return ReadWholeFile(m_root.path() + "/sdk-log/ErrorLog/ErrorLogFileForTarnwell.txt"); }
  CComBSTR Path(const char* name) const { return CComBSTR(m_root.wpath(name).c_str()); }
  static qlt::fault::Rule RuleFor(unsigned ops, qlt::fault::Action action = qlt::fault::Action::kFail) {
    qlt::fault::Rule rule;
    rule.ops = ops;
    rule.pathPattern = L"*.bin";
    rule.action = action;
    return rule;
  }
  TempDir m_root;
};

TEST_F(LocalAccessFaultTest, FailedReadIsLoggedAndTheNextReadRetries) {
  // A small read (through the cache) and a large one (whole blocks straight
  // into the caller's buffer) fail alike and leave nothing stale behind.
  for (int count : {100, 2 * 262144 + 10}) {
    SCOPED_TRACE(count);
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
    std::string buf(count, '\0');
    {
      qlt::fault::ScopedFault fault(RuleFor(qlt::fault::kRead));
      EXPECT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), count), 0);
      EXPECT_EQ(fault.Fired(), 1);
    }
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), count), std::min(count, 300000));
    int n = std::min(count, 300000);
    EXPECT_TRUE(buf.substr(0, n) == Pattern(0, n));
  }
  EXPECT_NE(Log().find("    read file  :   To read bytes :262144   readed bytes 0: "), std::string::npos) << Log();
}

TEST_F(LocalAccessFaultTest, FailedAndShortWritesFailTheWriteAndTheClose) {
  const struct {
    qlt::fault::Action action;
    int expectedWrite;
  } cases[] = {{qlt::fault::Action::kFail, 0}, {qlt::fault::Action::kShort, 10}};
  for (const auto& c : cases) {
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
    std::string data(1000, 'w');
    auto rule = RuleFor(qlt::fault::kWrite, c.action);
    rule.shortBytes = 10;
    {
      qlt::fault::ScopedFault fault(rule);
      EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 1000), c.expectedWrite);
    }
    EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 1000), 1000);
    EXPECT_EQ(f.CloseFile(), 0);  // one write came up short since the open
  }
  EXPECT_NE(Log().find("    write file  :   To write bytes :1000   written bytes 0: "), std::string::npos) << Log();
}

TEST_F(LocalAccessFaultTest, FailedSeeksAndSkipsAreLogged) {
  KxFileAccessLocal f;
  ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
  {
    qlt::fault::ScopedFault fault(RuleFor(qlt::fault::kSeek));
    EXPECT_EQ(f.SetPosition(5000), 0);
    EXPECT_EQ(f.GetPosition(), 5000);  // the requested position stays
  }
  {
    qlt::fault::ScopedFault fault(RuleFor(qlt::fault::kSeek));
    EXPECT_EQ(f.Read(nullptr, 100), 0);
  }
  EXPECT_EQ(f.Read(nullptr, -100000), 0);  // before the start
  std::string log = Log();
  EXPECT_NE(log.find("    seek file pos :   Mov pos :4096   new pos 0: "), std::string::npos) << log;
  EXPECT_NE(log.find("    seek file pos when read:   Mov pos :5100   new pos 0: "), std::string::npos) << log;
}

}  // namespace
