// CLogFileWriter2 on its own: open modes, flushing, contained failures and
// several threads on one writer.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/log_file_writer2.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

class LogFileWriterTest : public ::testing::Test {
 protected:
  std::string Text(const std::string& name) const { return ReadWholeFile(m_dir.file(name)); }

  TempDir m_dir;
  CLogFileWriter2 m_log;
  LogFileOptions m_options;
};

TEST_F(LogFileWriterTest, GathersWritesUntilFlushIntervalAndStoresCrLf) {
  m_options.nFlushInterval = 2;
  m_log.SetOptions(m_options);
  ASSERT_GT(m_log.Open(m_dir.wpath("a.txt")), 0);
  EXPECT_EQ(m_log.Write(L"one\n", false), 1);
  EXPECT_EQ(m_log.Write("two\n", false), 1);
  EXPECT_EQ(Text("a.txt"), "");
  EXPECT_EQ(m_log.Write(L"\u00e9\n", false), 1);  // the third write flushes
  EXPECT_EQ(Text("a.txt"), "one\r\ntwo\r\n\xC3\xA9\r\n");
  m_log.Write(L"tail", false);
  EXPECT_EQ(m_log.Close(), 1);                 // closing writes what is pending
  EXPECT_EQ(m_log.Write(L"closed", true), 1);  // a closed writer writes nothing
  EXPECT_EQ(Text("a.txt"), "one\r\ntwo\r\n\xC3\xA9\r\ntail");
}

TEST_F(LogFileWriterTest, OverwriteModeEmptiesFileAndRestartsAtSizeLimit) {
  m_options.bOverwrite = true;
  m_options.nSizeLimit = 10;
  m_log.SetOptions(m_options);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("old.txt"), "old contents"));
  ASSERT_GT(m_log.Open(m_dir.wpath("old.txt")), 0);
  m_log.Write(L"new", true);
  EXPECT_EQ(Text("old.txt"), "new");
  EXPECT_GT(m_log.Write(L"0123456789ab", true), 0);  // reached the limit: reopened empty
  m_log.Write(L"cd", true);
  m_log.Close();
  EXPECT_EQ(Text("old.txt"), "cd");
  EXPECT_GT(m_log.Open(m_dir.wpath("sub") + L"\\log.txt"), 0);   // one missing folder is made
  EXPECT_EQ(m_log.Open(m_dir.wpath("x") + L"\\y\\log.txt"), 0);  // two are not
}

TEST_F(LogFileWriterTest, PlatformFailuresAreContained) {
  ASSERT_GT(m_log.Open(m_dir.wpath("f.txt")), 0);
  qlt::fault::Rule rule;
  rule.ops = qlt::fault::kWrite;
  rule.pathPattern = L"*f.txt";
  {
    qlt::fault::ScopedFault fault(rule);
    EXPECT_EQ(m_log.Write(L"lost\n", true), 1);  // the write failed inside; the caller sees 1
    EXPECT_EQ(fault.Fired(), 1);
  }
  EXPECT_EQ(m_log.Write(L"kept\n", true), 1);
  m_log.Close();
  EXPECT_EQ(Text("f.txt"), "kept\r\n");
  rule.ops = qlt::fault::kSeek;
  qlt::fault::ScopedFault fault(rule);
  EXPECT_EQ(m_log.Open(m_dir.wpath("f.txt")), -128);  // appending needs a seek to the end
  EXPECT_EQ(m_log.CurrentPath(), L"");
}

TEST_F(LogFileWriterTest, LinesFromSeveralThreadsStayWhole) {
  ASSERT_GT(m_log.Open(m_dir.wpath("t.txt")), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      std::wstring line = L"thread " + std::to_wstring(t) + L" line of fixed text\n";
      for (int i = 0; i < 200; ++i) m_log.Write(line.c_str(), i % 7 == 0);
    });
  }
  for (auto& thread : threads) thread.join();
  m_log.Close();
  // 800 lines, each exactly one thread's text.
  const std::regex whole("thread [0-3] line of fixed text\r");
  std::istringstream in(Text("t.txt"));
  int nLines = 0;
  for (std::string line; std::getline(in, line); ++nLines) ASSERT_TRUE(std::regex_match(line, whole)) << line;
  EXPECT_EQ(nLines, 800);
}

}  // namespace
