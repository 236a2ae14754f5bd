// The write timing log: which writes are logged, the shared log's life and
// lines from several threads.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "diagnostics/logbook_api.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/write_timing_log.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

using qlt::fault::Action;
using qlt::fault::Rule;
using qlt::fault::ScopedFault;

// One full timing line as the logging library joins its items.
const char* const kLinePattern =
    R"(.*this: (\d+) <(No)?BufferWriteFile> Offset = (-?\d+) Length = (\d+) CostTime\(ms\): ([0-9.e+-]+))";

std::vector<std::string> TimingLines(const std::string& path) {
  std::vector<std::string> lines;
  std::string text = ReadWholeFile(path);
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (line.find("this:") != std::string::npos) lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

class TimingLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QLTFS_LOG_ROOT", m_logRoot.path().c_str(), 1);
    SdkSettings.IOWriteTimeOn = 1;
    SdkSettings.IOWriteBlockTimeTh = 100;
    AcquireWriteTimingLog();
    ASSERT_NE(CurrentWriteTimingLog(), nullptr);
    m_strLogPath = CurrentWriteTimingLog()->FilePath();
    m_hFile = CreateFileW(m_dir.wpath("slow.dat").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(m_hFile, INVALID_HANDLE_VALUE);
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

  TempDir m_dir, m_logRoot;
  std::string m_strLogPath;
  HANDLE m_hFile = INVALID_HANDLE_VALUE;
};

TEST_F(TimingLogTest, OnlyWritesSlowerThanThresholdAreLogged) {
  EXPECT_TRUE(Write());  // fast: no line
  {
    Rule delay;
    delay.ops = qlt::fault::kWrite;
    delay.pathPattern = L"*slow.dat";
    delay.action = Action::kDelay;
    delay.delayMs = 150;
    ScopedFault fault(delay);
    EXPECT_TRUE(Write());
  }
  std::vector<std::string> lines = TimingLines(m_strLogPath);
  ASSERT_EQ(lines.size(), 1u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, std::regex(kLinePattern))) << lines[0];
  EXPECT_EQ(m[1], "1234");
  EXPECT_FALSE(m[2].matched);
  EXPECT_EQ(m[3], "4096");
  EXPECT_EQ(m[4], "10");
  EXPECT_GE(std::stod(m[5]), 150.0);
  EXPECT_EQ(ReadWholeFile(m_dir.file("slow.dat")), "01234567890123456789");
}

TEST_F(TimingLogTest, NegativeThresholdLogsEveryWriteIncludingFailures) {
  SdkSettings.IOWriteBlockTimeTh = -1;
  EXPECT_TRUE(Write(0));
  {
    Rule fail;
    fail.ops = qlt::fault::kWrite;
    fail.pathPattern = L"*slow.dat";
    fail.error = ERROR_DISK_FULL;
    ScopedFault fault(fail);
    EXPECT_FALSE(Write());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));  // the write's own error
  }
  std::vector<std::string> lines = TimingLines(m_strLogPath);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("<NoBufferWriteFile> Offset = "), std::string::npos);
  EXPECT_NE(lines[1].find("<BufferWriteFile> Offset = "), std::string::npos);

  SdkSettings.IOWriteTimeOn = 0;  // the switch off: nothing timed
  EXPECT_TRUE(Write());
  EXPECT_EQ(TimingLines(m_strLogPath).size(), 2u);
}

TEST_F(TimingLogTest, PendingOverlappedWriteCountsAsSuccess) {
  Rule pending;
  pending.ops = qlt::fault::kWrite;
  pending.pathPattern = L"*slow.dat";
  pending.error = ERROR_IO_PENDING;
  ScopedFault fault(pending);
  OVERLAPPED overlapped{};
  DWORD written = 0;
  EXPECT_TRUE(TimedWriteFile(m_hFile, "x", 1, &written, &overlapped, 0, 1, 1));
}

TEST_F(TimingLogTest, OneSharedLogForFirstToLastHolder) {
  QLT_LogBookU* pFirst = CurrentWriteTimingLog();  // the fixture holds one reference
  EXPECT_EQ(WriteTimingLogHolders(), 1);
  AcquireWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), pFirst);
  EXPECT_EQ(WriteTimingLogHolders(), 2);
  ReleaseWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), pFirst);
  ReleaseWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), nullptr);
  EXPECT_EQ(WriteTimingLogHolders(), 0);
  ReleaseWriteTimingLog();  // unbalanced: ignored
  EXPECT_EQ(WriteTimingLogHolders(), 0);
  EXPECT_TRUE(Write());     // no holder: the write still works, unlogged
  AcquireWriteTimingLog();  // the fixture's reference again, on a new log
  EXPECT_NE(CurrentWriteTimingLog(), nullptr);
}

struct ThreadJob {
  std::wstring strPath;
  DWORD nOwner;
};

DWORD WINAPI TimedWrites(LPVOID param) {
  auto* job = static_cast<ThreadJob*>(param);
  HANDLE h = CreateFileW(job->strPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return 1;
  char block[64] = {};
  for (int i = 0; i < 50; ++i) {
    DWORD written = 0;
    TimedWriteFile(h, block, sizeof(block), &written, nullptr, static_cast<__int64>(i) * 64, 1, job->nOwner);
  }
  CloseHandle(h);
  return 0;
}

TEST_F(TimingLogTest, LinesFromSeveralThreadsStayWhole) {
  SdkSettings.IOWriteBlockTimeTh = -1;
  std::vector<ThreadJob> jobs;
  for (DWORD i = 0; i < 4; ++i) jobs.push_back({m_dir.wpath("w" + std::to_string(i) + ".dat"), 100 + i});
  std::vector<HANDLE> threads;
  for (ThreadJob& job : jobs) {
    HANDLE h = CreateThread(nullptr, 0, TimedWrites, &job, 0, nullptr);
    EXPECT_NE(h, nullptr);
    if (h) threads.push_back(h);
  }
  for (HANDLE h : threads) {
    EXPECT_EQ(WaitForSingleObject(h, 30000), WAIT_OBJECT_0);
    DWORD code = 1;
    GetExitCodeThread(h, &code);
    EXPECT_EQ(code, 0u);
    CloseHandle(h);
  }
  std::vector<std::string> lines = TimingLines(m_strLogPath);
  ASSERT_EQ(lines.size(), 200u);
  int perOwner[4] = {};
  for (const std::string& line : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, std::regex(kLinePattern))) << line;
    int owner = std::stoi(m[1]) - 100;
    ASSERT_TRUE(owner >= 0 && owner < 4) << line;
    EXPECT_EQ(std::stoll(m[3]) % 64, 0);
    ++perOwner[owner];
  }
  for (int n : perOwner) EXPECT_EQ(n, 50);
}

}  // namespace
