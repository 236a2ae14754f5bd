// Settings, config directory choice, cache drive choice and attach.
#include <gtest/gtest.h>

#include <string>

#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/startup.h"
#include "platform/platform.h"
#include "qltfsdk/writeroption.h"
#include "tests/support/temp_dir.h"

namespace {

struct Values {
  int nRead, nWrite, nReadMode, nWriteMode, nRetryCount, nRetryTime, nLog, nTimeOn, nTimeTh;
};

Values Current() {
  return {SdkSettings.ReadBufSize, SdkSettings.WriteBufSize,    SdkSettings.ReadMode,
          SdkSettings.WriteMode,   SdkSettings.WriteRetryCount, SdkSettings.WriteRetryTime,
          SdkSettings.LogFileOn,   SdkSettings.IOWriteTimeOn,   SdkSettings.IOWriteBlockTimeTh};
}

void ExpectDefaults() {
  Values v = Current();
  EXPECT_EQ(v.nRead, 262144);
  EXPECT_EQ(v.nWrite, 524288);
  EXPECT_EQ(v.nReadMode, 0);
  EXPECT_EQ(v.nWriteMode, 0);
  EXPECT_EQ(v.nRetryCount, 0);
  EXPECT_EQ(v.nRetryTime, 0);
  EXPECT_EQ(v.nLog, 0);
  EXPECT_EQ(v.nTimeOn, 0);
  EXPECT_EQ(v.nTimeTh, 100);
}

class SettingsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    LoadSdkSettingsFrom(L"");
    SetModuleDirectoryOverride(L"");
    QltResetDriveMap();
    SetCacheDriveRoot(L"");
  }
  // Writes text as qltfsdk.ini in the temp dir and loads it.
  void Load(const std::string& text) {
    ASSERT_TRUE(WriteWholeFile(m_dir.file("qltfsdk.ini"), text));
    EXPECT_EQ(LoadSdkSettingsFrom(m_dir.wpath("qltfsdk.ini")), 1);
  }
  TempDir m_dir;
};

TEST_F(SettingsTest, MissingFileGivesDefaults) {
  SdkSettings.ReadBufSize = 7;
  SdkSettings.LogFileOn = 1;
  EXPECT_EQ(LoadSdkSettingsFrom(m_dir.wpath("qltfsdk.ini")), 1);
  ExpectDefaults();
}

TEST_F(SettingsTest, ReadsAllNineKeysWithUnits) {
  Load(
      "[FILERW]\nReadBufSize=512\nWriteBufSize=1024\nReadMode=7\nWriteMode=-1\n"
      "WriteRetryCount=3\nWriteRetryTime=250\n[LOG]\nLogFileOn=1\nIOWriteTimeOn=2\nIOWriteBlockTimeTh=-5\n");
  Values v = Current();
  EXPECT_EQ(v.nRead, 524288);
  EXPECT_EQ(v.nWrite, 1048576);
  EXPECT_EQ(v.nReadMode, 1);
  EXPECT_EQ(v.nWriteMode, 1);
  EXPECT_EQ(v.nRetryCount, 3);
  EXPECT_EQ(v.nRetryTime, 250);
  EXPECT_EQ(v.nLog, 1);
  EXPECT_EQ(v.nTimeOn, 2);
  EXPECT_EQ(v.nTimeTh, -5);
}

TEST_F(SettingsTest, SizesBelowOneOrTooLargeGiveBuiltInSizes) {
  Load("[FILERW]\nReadBufSize=128\n");  // WriteBufSize missing
  EXPECT_EQ(SdkSettings.ReadBufSize, 131072);
  EXPECT_EQ(SdkSettings.WriteBufSize, 524288);
  for (const char* bad : {"0", "-3", "-1", "2097152", "99999999999999999999"}) {
    Load(std::string("[FILERW]\nReadBufSize=") + bad + "\nWriteBufSize=" + bad + "\n");
    EXPECT_EQ(SdkSettings.ReadBufSize, 262144) << bad;
    EXPECT_EQ(SdkSettings.WriteBufSize, 524288) << bad;
  }
  Load("[FILERW]\nReadBufSize=2097151\n");  // the largest that fits in 32 bits
  EXPECT_EQ(SdkSettings.ReadBufSize, 2097151 * 1024);
}

TEST_F(SettingsTest, LogKeysAreReadOnlyFromLogSection) {
  Load("[FILERW]\nLogFileOn=1\nIOWriteTimeOn=1\nIOWriteBlockTimeTh=5\n[LOG]\nReadBufSize=4\n");
  ExpectDefaults();
  Load("[log]\nlogfileon=1\n");  // names match without regard to case
  EXPECT_EQ(SdkSettings.LogFileOn, 1);
}

TEST_F(SettingsTest, MalformedFilesNeverCrashAndKeepDefaults) {
  Load("this is not an ini file\n=====\n[[[\n]]]\n");
  ExpectDefaults();
  std::string binary;
  for (int i = 0; i < 4096; ++i) binary.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
  Load(binary);
  ExpectDefaults();
  Load("[FILERW]\nReadBufSize=abc\nWriteRetryCount=99999999999999999999\nWriteRetryTime=12ms\n");
  EXPECT_EQ(SdkSettings.ReadBufSize, 262144);  // no digits reads as 0
  EXPECT_EQ(SdkSettings.WriteRetryCount, 2147483647);
  EXPECT_EQ(SdkSettings.WriteRetryTime, 12);
  Load("[FILERW]\nWriteRetryCount=4\nWriteRetryCount=8\n[FILERW]\nWriteRetryCount=9\n");
  EXPECT_EQ(SdkSettings.WriteRetryCount, 4);  // the first occurrence wins
}

TEST_F(SettingsTest, FileBesideExecutableWinsOverOneBesideLibrary) {
  TempDir exeDir, moduleDir;
  std::wstring exe = QltWindowsPath(exeDir.path()), module = QltWindowsPath(moduleDir.path());
  EXPECT_EQ(ChooseConfigDirectory(exe, module), module);  // neither has one
  ASSERT_TRUE(WriteWholeFile(moduleDir.file("qltfsdk.ini"), "[FILERW]\nWriteRetryCount=1\n"));
  EXPECT_EQ(ChooseConfigDirectory(exe, module), module);
  ASSERT_TRUE(WriteWholeFile(exeDir.file("qltfsdk.ini"), "[FILERW]\nWriteRetryCount=2\n"));
  EXPECT_EQ(ChooseConfigDirectory(exe, module), exe);
  EXPECT_EQ(ChooseConfigDirectory(L"", module), module);
}

// Attach reads the drive map and settings from the library's directory,
// picks the cache drive and hands the block size to the utility library.
TEST_F(SettingsTest, AttachLoadsDrivesSettingsAndDefaultBlockSize) {
  TempDir c, e;
  ASSERT_TRUE(WriteWholeFile(m_dir.file("qltfsdk.ini"),
                             "[FILERW]\nWriteBufSize=64\n[DRIVES]\nC=" + c.path() + "\nE=" + e.path() + "\n"));
  SetModuleDirectoryOverride(m_dir.wpath());
  SetCacheDriveRoot(L"");
  EXPECT_EQ(QltSdkDllMain(nullptr, DLL_PROCESS_ATTACH), TRUE);
  EXPECT_EQ(SdkSettings.WriteBufSize, 65536);
  EXPECT_EQ(std::wstring(CacheDriveRoot), L"E:\\");
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"no-entry.dat")), 65536);
  QLT_WriterOption::SetDefaultWriteBlockSize(524288);
}

class DriveChoiceTest : public ::testing::Test {
 protected:
  void TearDown() override { QltResetDriveMap(); }
  TempDir m_c, m_d, m_e, m_f;
};

TEST_F(DriveChoiceTest, SecondFixedDriveIsChosen) {
  QltSetDrive(L'C', QltWindowsPath(m_c.path()).c_str(), DRIVE_FIXED);
  QltSetDrive(L'D', QltWindowsPath(m_d.path()).c_str(), DRIVE_REMOVABLE);
  QltSetDrive(L'E', QltWindowsPath(m_e.path()).c_str(), DRIVE_FIXED);
  QltSetDrive(L'F', QltWindowsPath(m_f.path()).c_str(), DRIVE_FIXED);
  std::wstring root = L"junk";
  EXPECT_EQ(SelectCacheDrive(root), 1);
  EXPECT_EQ(root, L"E:\\");
}

TEST_F(DriveChoiceTest, OnlyFixedDriveOrNone) {
  QltSetDrive(L'C', QltWindowsPath(m_c.path()).c_str(), DRIVE_FIXED);
  QltSetDrive(L'D', QltWindowsPath(m_d.path()).c_str(), DRIVE_REMOVABLE);
  std::wstring root;
  SelectCacheDrive(root);
  EXPECT_EQ(root, L"C:\\");
  QltSetDrive(L'C', L"", DRIVE_UNKNOWN);
  SelectCacheDrive(root);
  EXPECT_EQ(root, L"");
}

}  // namespace
