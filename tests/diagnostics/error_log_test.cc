// Error-log entries: their text, which file of the family they go to, and
// that logging never touches anything when it is off or cannot be done.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "diagnostics/error_log.h"
#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/utils.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

const char* const kSeekTitle = "\n    seek file pos :   ";
const wchar_t* const kSeekDetail = L"Mov pos :4096   new pos 0: \n";

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
  std::string LogDir() const { return m_root.path() + "/sdk-log/ErrorLog"; }
  std::string LogFile(const std::string& name = "ErrorLogFileForTarnwell.txt") const { return LogDir() + "/" + name; }
  void MakeLogDir() const {
    ASSERT_EQ(::mkdir((m_root.path() + "/sdk-log").c_str(), 0700), 0);
    ASSERT_EQ(::mkdir(LogDir().c_str(), 0700), 0);
  }
  void WriteSeekEntry() {
    SetLastError(87);
    WriteErrorLogEntry(m_log, L"C:\\data\\big.dat", kSeekTitle, kSeekDetail);
  }

  TempDir m_root;
  CLogFileWriter2 m_log;
};

const char* const kSeekEntry = R"(C:\\data\\big\.dat\d+-\d+-\d+ [ \d]\d:[ \d]\d:[ \d]\d:[ \d]{2}\d\r\n)"
                               R"(    seek file pos :   Mov pos :4096   new pos 0: \r\n)"
                               R"(GetLastError :  87\r\n)";

TEST_F(ErrorLogTest, EntryIsThreeLinesAndKeepsLastError) {
  MakeLogDir();
  WriteSeekEntry();
  EXPECT_EQ(GetLastError(), 87u);
  std::string text = ReadWholeFile(LogFile());
  EXPECT_TRUE(std::regex_match(text, std::regex(kSeekEntry))) << text;
  EXPECT_EQ(m_log.CurrentPath(), L"");  // closed between entries

  SetLastError(5);
  WriteErrorLogEntry(m_log, L"x.dat", "\n    open file :   ", nullptr);
  text = ReadWholeFile(LogFile());
  EXPECT_NE(text.find("\r\n    open file :   GetLastError :  5\r\n"), std::string::npos) << text;
}

TEST_F(ErrorLogTest, AppendsToHighestNumberedFileOfFamily) {
  MakeLogDir();
  ASSERT_TRUE(WriteWholeFile(LogFile(), "base\r\n"));
  ASSERT_TRUE(WriteWholeFile(LogFile("ErrorLogFileForTarnwell[3].txt"), "three\r\n"));
  ASSERT_TRUE(WriteWholeFile(LogFile("ErrorLogFileForTarnwell[12].txt"), "twelve\r\n"));
  ASSERT_TRUE(WriteWholeFile(LogFile("ErrorLogFileForTarnwell[2].txt"), "two\r\n"));
  WriteSeekEntry();
  EXPECT_EQ(ReadWholeFile(LogFile()), "base\r\n");
  EXPECT_EQ(ReadWholeFile(LogFile("ErrorLogFileForTarnwell[3].txt")), "three\r\n");
  std::string twelve = ReadWholeFile(LogFile("ErrorLogFileForTarnwell[12].txt"));
  EXPECT_TRUE(std::regex_match(twelve, std::regex(std::string("twelve\r\n") + kSeekEntry))) << twelve;
}

TEST_F(ErrorLogTest, AppendsToLoneFileAndCreatesMissingOne) {
  MakeLogDir();
  WriteSeekEntry();  // empty folder: the file is created
  WriteSeekEntry();  // and appended to, never emptied
  std::string text = ReadWholeFile(LogFile());
  EXPECT_TRUE(std::regex_match(text, std::regex(std::string(kSeekEntry) + kSeekEntry))) << text;
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

TEST_F(ErrorLogTest, UnknownLibraryDirectoryWritesNothing) {
  SetModuleDirectoryOverride(L"");
  HMODULE hSaved = GetSdkModuleHandle();
  SetSdkModuleHandle(nullptr);
  EXPECT_EQ(ErrorLogFilePath(), L"");
  WriteSeekEntry();
  EXPECT_EQ(GetLastError(), 87u);
  SetSdkModuleHandle(hSaved);
}

TEST_F(ErrorLogTest, FileAlreadyPastSizeLimitStillGetsWholeEntry) {
  MakeLogDir();
  std::string big(300, 'x');
  ASSERT_TRUE(WriteWholeFile(LogFile(), big));
  LogFileOptions options;
  options.nSizeLimit = 100;  // every line reopens the file at its end
  ASSERT_EQ(m_log.SetOptions(options), 1);
  WriteSeekEntry();
  std::string text = ReadWholeFile(LogFile());
  EXPECT_TRUE(std::regex_match(text, std::regex(big + kSeekEntry))) << text;
}

TEST(UtilsTest, TimeTextPadsHourMinuteSecondAndMilliseconds) {
  SYSTEMTIME t{};
  t.wYear = 2024;
  t.wMonth = 3;
  t.wDay = 7;
  t.wHour = 9;
  t.wMinute = 5;
  t.wSecond = 0;
  t.wMilliseconds = 42;
  EXPECT_EQ(CUtils::FormatTime(t), L"2024-3-7  9: 5: 0: 42");
  EXPECT_TRUE(std::regex_match(QltWideToUtf8(CUtils().GetTimeText()),
                               std::regex(R"(\d{4}-\d{1,2}-\d{1,2} [ \d]\d:[ \d]\d:[ \d]\d:[ \d]{2}\d)")));
}

}  // namespace
