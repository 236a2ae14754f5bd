// The write timing log: which writes are logged, the shared log's life and
// lines from several threads.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "companions/logbook/logbook_api.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/write_timing_log.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

class TimingLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QLTFS_LOG_ROOT", m_logRoot.path().c_str(), 1);
    SdkSettings.IOWriteTimeOn = 1;
    AcquireWriteTimingLog();
    ASSERT_NE(CurrentWriteTimingLog(), nullptr);
    m_strLogPath = CurrentWriteTimingLog()->FilePath();
    m_hFile = CreateFileW(m_dir.wpath("slow.dat").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(m_hFile, INVALID_HANDLE_VALUE);
    m_fault.ops = qlt::fault::kWrite;
    m_fault.pathPattern = L"*slow.dat";
  }
  void TearDown() override {
    CloseHandle(m_hFile);
    ReleaseWriteTimingLog();
    SdkSettings.IOWriteTimeOn = 0;
    SdkSettings.IOWriteBlockTimeTh = 100;
    unsetenv("QLTFS_LOG_ROOT");
  }
  BOOL Write(int nBuffered = 1) {
    DWORD written = 0;
    return TimedWriteFile(m_hFile, "0123456789", 10, &written, nullptr, 4096, nBuffered, 1234);
  }
  std::vector<std::string> TimingLines() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadWholeFile(m_strLogPath));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  TempDir m_dir, m_logRoot;
  std::string m_strLogPath;
  HANDLE m_hFile = INVALID_HANDLE_VALUE;
  qlt::fault::Rule m_fault;  // matches writes to slow.dat
};

TEST_F(TimingLogTest, OnlyWritesSlowerThanThresholdAreLogged) {
  EXPECT_TRUE(Write());  // fast: no line
  m_fault.action = qlt::fault::Action::kDelay;
  m_fault.delayMs = 150;
  {
    qlt::fault::ScopedFault fault(m_fault);
    EXPECT_TRUE(Write());
  }
  std::vector<std::string> lines = TimingLines();
  ASSERT_EQ(lines.size(), 1u);
  std::smatch m;
  const std::regex kLine(R"(.*this: 1234 <BufferWriteFile> Offset = 4096 Length = 10 CostTime\(ms\): ([0-9.e+]+))");
  ASSERT_TRUE(std::regex_match(lines[0], m, kLine)) << lines[0];
  EXPECT_GE(std::stod(m[1]), 150.0);
  EXPECT_EQ(ReadWholeFile(m_dir.file("slow.dat")), "01234567890123456789");
}

TEST_F(TimingLogTest, NegativeThresholdLogsEveryWriteAndResultsStayThePlatforms) {
  SdkSettings.IOWriteBlockTimeTh = -1;
  EXPECT_TRUE(Write(0));
  m_fault.error = ERROR_DISK_FULL;
  {
    qlt::fault::ScopedFault fault(m_fault);
    EXPECT_FALSE(Write());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));  // the write's own error
  }
  m_fault.error = ERROR_IO_PENDING;
  {
    qlt::fault::ScopedFault fault(m_fault);  // a pending overlapped write counts as success
    OVERLAPPED overlapped{};
    DWORD written = 0;
    EXPECT_TRUE(TimedWriteFile(m_hFile, "x", 1, &written, &overlapped, 0, 1, 1));
  }
  std::vector<std::string> lines = TimingLines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("<NoBufferWriteFile> Offset = "), std::string::npos);
  EXPECT_NE(lines[1].find("<BufferWriteFile> Offset = "), std::string::npos);
  SdkSettings.IOWriteTimeOn = 0;  // the switch off: nothing timed
  EXPECT_TRUE(Write());
  EXPECT_EQ(TimingLines().size(), 3u);
}

TEST_F(TimingLogTest, OneSharedLogForFirstToLastHolder) {
  QLT_LogBookU* pFirst = CurrentWriteTimingLog();  // the fixture holds one reference
  AcquireWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), pFirst);
  ReleaseWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), pFirst);
  ReleaseWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), nullptr);
  ReleaseWriteTimingLog();  // unbalanced: ignored
  EXPECT_EQ(WriteTimingLogHolders(), 0);
  EXPECT_TRUE(Write());     // no holder: the write still works, unlogged
  AcquireWriteTimingLog();  // the fixture's reference again, on a new log
  EXPECT_NE(CurrentWriteTimingLog(), nullptr);
}

TEST_F(TimingLogTest, LinesFromSeveralThreadsStayWhole) {
  SdkSettings.IOWriteBlockTimeTh = -1;
  std::vector<std::thread> threads;
  for (DWORD owner = 0; owner < 4; ++owner) {
    threads.emplace_back([this, owner] {
      HANDLE h = CreateFileW(m_dir.wpath("w" + std::to_string(owner)).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                             0, nullptr);
      char block[64] = {};
      DWORD written = 0;
      for (int i = 0; i < 50; ++i) TimedWriteFile(h, block, sizeof(block), &written, nullptr, i * 64, 1, owner);
      CloseHandle(h);
    });
  }
  for (auto& thread : threads) thread.join();
  // 50 whole lines of each owner, with offsets as its writes gave them.
  const std::regex kLine(R"(.*this: ([0-3]) <BufferWriteFile> Offset = (\d+) Length = 64 CostTime\(ms\): [0-9.e+-]+)");
  std::vector<std::string> lines = TimingLines();
  ASSERT_EQ(lines.size(), 200u);
  int perOwner[4] = {};
  for (const std::string& line : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, kLine)) << line;
    ASSERT_EQ(std::stoi(m[2]) % 64, 0) << line;
    ++perOwner[std::stoi(m[1])];
  }
  for (int n : perOwner) EXPECT_EQ(n, 50);
}

}  // namespace
