// Error-log entries: their text, which file of the family they go to, and
// that logging never touches anything when it is off or cannot be done.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>

#include "diagnostics/error_log.h"
#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/utils.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

// The entry a seek failure (asked 4096, reached 0, last error 87) writes.
const char* const kSeekEntry = R"(C:\\data\\big\.dat\d+-\d+-\d+ [ \d]\d:[ \d]\d:[ \d]\d:[ \d]{2}\d\r\n)"
                               R"(    seek file pos :   Mov pos :4096   new pos 0: \r\n)"
                               R"(GetLastError :  87\r\n)";

class ErrorLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetModuleDirectoryOverride(m_root.wpath());
    SdkSettings.LogFileOn = 1;
  }
  void TearDown() override {
    SdkSettings.LogFileOn = 0;
    SetModuleDirectoryOverride(L"");
  }
  std::string LogFile(const std::string& suffix = "") const {
    return m_root.path() + "/sdk-log/ErrorLog/ErrorLogFileForTarnwell" + suffix + ".txt";
  }
  void MakeLogDir() const { ASSERT_TRUE(std::filesystem::create_directories(m_root.path() + "/sdk-log/ErrorLog")); }
  void WriteSeekEntry() {
    SetLastError(87);
    WriteErrorLogEntry(m_log, L"C:\\data\\big.dat", "\n    seek file pos :   ", L"Mov pos :4096   new pos 0: \n");
  }
  // Expects the file to hold prefix followed by nEntries seek entries.
  static void ExpectEntries(const std::string& path, std::string pattern, int nEntries) {
    for (int i = 0; i < nEntries; ++i) pattern += kSeekEntry;
    std::string text = ReadWholeFile(path);
    EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text;
  }

  TempDir m_root;
  CLogFileWriter2 m_log;
};

TEST_F(ErrorLogTest, EntryIsThreeLinesCreatedThenAppendedAndKeepsLastError) {
  MakeLogDir();
  WriteSeekEntry();  // empty folder: the file is created
  EXPECT_EQ(GetLastError(), 87u);
  WriteSeekEntry();  // and appended to, never emptied
  ExpectEntries(LogFile(), "", 2);
  SetLastError(5);
  WriteErrorLogEntry(m_log, L"x.dat", "\n    open file :   ", nullptr);
  EXPECT_NE(ReadWholeFile(LogFile()).find("\r\n    open file :   GetLastError :  5\r\n"), std::string::npos);
}

TEST_F(ErrorLogTest, AppendsToHighestNumberedFileOfFamily) {
  MakeLogDir();
  ASSERT_TRUE(WriteWholeFile(LogFile(), "base\r\n"));
  ASSERT_TRUE(WriteWholeFile(LogFile("[3]"), "three\r\n"));
  ASSERT_TRUE(WriteWholeFile(LogFile("[12]"), "twelve\r\n"));  // numeric, not text, order
  ASSERT_TRUE(WriteWholeFile(LogFile("[2]"), "two\r\n"));
  WriteSeekEntry();
  EXPECT_EQ(ReadWholeFile(LogFile()) + ReadWholeFile(LogFile("[3]")), "base\r\nthree\r\n");
  ExpectEntries(LogFile("[12]"), "twelve\r\n", 1);
}

TEST_F(ErrorLogTest, LogOffOrMissingFolderTouchesNothing) {
  SdkSettings.LogFileOn = 0;
  WriteSeekEntry();
  EXPECT_FALSE(FileExists(m_root.path() + "/sdk-log"));
  SdkSettings.LogFileOn = 1;
  WriteSeekEntry();  // the folder is missing: nothing written, nothing created
  EXPECT_FALSE(FileExists(m_root.path() + "/sdk-log"));
  EXPECT_EQ(GetLastError(), 87u);
  MakeLogDir();
  SdkSettings.LogFileOn = 0;
  WriteSeekEntry();
  EXPECT_FALSE(FileExists(LogFile()));
}

TEST_F(ErrorLogTest, FileAlreadyPastSizeLimitStillGetsWholeEntry) {
  MakeLogDir();
  std::string big(300, 'x');
  ASSERT_TRUE(WriteWholeFile(LogFile(), big));
  LogFileOptions options;
  options.nSizeLimit = 100;  // every line reopens the file at its end
  ASSERT_EQ(m_log.SetOptions(options), 1);
  WriteSeekEntry();
  ExpectEntries(LogFile(), big, 1);
}

TEST(UtilsTest, TimeTextPadsHourMinuteSecondAndMilliseconds) {
  SYSTEMTIME t{2024, 3, 4, 7, 9, 5, 0, 42};
  EXPECT_EQ(CUtils::FormatTime(t), L"2024-3-7  9: 5: 0: 42");
}

}  // namespace
