// CLogFileWriter2 on its own: open modes, flushing, contained failures and
// several threads on one writer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnostics/log_file_writer2.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

using qlt::fault::Action;
using qlt::fault::Rule;
using qlt::fault::ScopedFault;

class LogFileWriterTest : public ::testing::Test {
 protected:
  TempDir m_dir;
  CLogFileWriter2 m_log;
};

TEST_F(LogFileWriterTest, GathersWritesUntilFlushIntervalAndStoresCrLf) {
  LogFileOptions options;
  options.nFlushInterval = 2;
  m_log.SetOptions(options);
  ASSERT_GT(m_log.Open(m_dir.wpath("a.txt")), 0);
  EXPECT_EQ(m_log.Write(L"one\n", false), 1);
  EXPECT_EQ(m_log.Write("two\n", false), 1);
  EXPECT_EQ(ReadWholeFile(m_dir.file("a.txt")), "");
  EXPECT_EQ(m_log.Write(L"\u00e9\n", false), 1);  // the third write flushes
  EXPECT_EQ(ReadWholeFile(m_dir.file("a.txt")), "one\r\ntwo\r\n\xC3\xA9\r\n");
  m_log.Write(L"tail", false);
  EXPECT_EQ(m_log.Close(), 1);  // closing writes what is pending
  EXPECT_EQ(ReadWholeFile(m_dir.file("a.txt")), "one\r\ntwo\r\n\xC3\xA9\r\ntail");
  EXPECT_EQ(m_log.Write(L"closed", true), 1);  // a closed writer writes nothing
  EXPECT_EQ(ReadWholeFile(m_dir.file("a.txt")), "one\r\ntwo\r\n\xC3\xA9\r\ntail");
}

TEST_F(LogFileWriterTest, OverwriteModeCreatesOneFolderLevelAndEmptiesFile) {
  LogFileOptions options;
  options.bOverwrite = true;
  m_log.SetOptions(options);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("old.txt"), "old contents"));
  ASSERT_GT(m_log.Open(m_dir.wpath("old.txt")), 0);
  m_log.Write(L"new", true);
  m_log.Close();
  EXPECT_EQ(ReadWholeFile(m_dir.file("old.txt")), "new");

  ASSERT_GT(m_log.Open(m_dir.wpath("sub") + L"\\log.txt"), 0);
  EXPECT_EQ(m_log.CurrentPath(), m_dir.wpath("sub") + L"\\log.txt");
  EXPECT_TRUE(FileExists(m_dir.file("sub/log.txt")));
  EXPECT_EQ(m_log.Open(m_dir.wpath("x") + L"\\y\\log.txt"), 0);  // two levels missing
  EXPECT_EQ(m_log.CurrentPath(), L"");
}

TEST_F(LogFileWriterTest, SizeLimitInOverwriteModeStartsFileAgain) {
  LogFileOptions options;
  options.bOverwrite = true;
  options.nSizeLimit = 10;
  m_log.SetOptions(options);
  ASSERT_GT(m_log.Open(m_dir.wpath("r.txt")), 0);
  EXPECT_GT(m_log.Write(L"0123456789ab", true), 0);  // reached the limit: reopened empty
  m_log.Write(L"cd", true);
  m_log.Close();
  EXPECT_EQ(ReadWholeFile(m_dir.file("r.txt")), "cd");
}

TEST_F(LogFileWriterTest, DisabledWriterDoesNothing) {
  EXPECT_FALSE(m_log.SetEnable(false));
  EXPECT_EQ(m_log.Open(m_dir.wpath("d.txt")), 0);
  EXPECT_EQ(m_log.Write(L"x", true), 0);
  EXPECT_EQ(m_log.SetOptions(LogFileOptions()), 0);
  EXPECT_EQ(m_log.Close(), 0);
  EXPECT_FALSE(FileExists(m_dir.file("d.txt")));
}

TEST_F(LogFileWriterTest, PlatformFailuresAreContained) {
  ASSERT_GT(m_log.Open(m_dir.wpath("f.txt")), 0);
  {
    Rule rule;
    rule.ops = qlt::fault::kWrite;
    rule.pathPattern = L"*f.txt";
    ScopedFault fault(rule);
    EXPECT_EQ(m_log.Write(L"lost\n", true), 1);  // the write failed inside; the caller sees 1
    EXPECT_EQ(fault.Fired(), 1);
  }
  EXPECT_EQ(m_log.Write(L"kept\n", true), 1);
  m_log.Close();
  EXPECT_EQ(ReadWholeFile(m_dir.file("f.txt")), "kept\r\n");

  Rule seek;
  seek.ops = qlt::fault::kSeek;
  seek.pathPattern = L"*f.txt";
  ScopedFault fault(seek);
  EXPECT_EQ(m_log.Open(m_dir.wpath("f.txt")), -128);  // appending needs a seek to the end
  EXPECT_EQ(m_log.CurrentPath(), L"");
}

DWORD WINAPI WriteLines(LPVOID param) {
  auto* log = static_cast<CLogFileWriter2*>(param);
  std::wstring line = L"thread " + std::to_wstring(GetCurrentThreadId()) + L" line of fixed text\n";
  for (int i = 0; i < 200; ++i) log->Write(line.c_str(), i % 7 == 0);
  return 0;
}

TEST_F(LogFileWriterTest, LinesFromSeveralThreadsStayWhole) {
  ASSERT_GT(m_log.Open(m_dir.wpath("t.txt")), 0);
  std::vector<HANDLE> threads;
  for (int i = 0; i < 4; ++i) {
    HANDLE h = CreateThread(nullptr, 0, WriteLines, &m_log, 0, nullptr);
    EXPECT_NE(h, nullptr);
    if (h) threads.push_back(h);
  }
  for (HANDLE h : threads) {
    EXPECT_EQ(WaitForSingleObject(h, 30000), WAIT_OBJECT_0);
    CloseHandle(h);
  }
  m_log.Close();
  // Every line whole: 800 of them, each exactly one thread's text.
  std::string text = ReadWholeFile(m_dir.file("t.txt"));
  const std::string tail = " line of fixed text";
  size_t nLines = 0;
  for (size_t start = 0, end; start < text.size(); start = end + 2, ++nLines) {
    end = text.find("\r\n", start);
    ASSERT_NE(end, std::string::npos);
    std::string line = text.substr(start, end - start);
    ASSERT_EQ(line.rfind("thread ", 0), 0u) << line;
    ASSERT_EQ(line.find(tail), line.size() - tail.size()) << line;
  }
  EXPECT_EQ(nLines, 800u);
}

}  // namespace
