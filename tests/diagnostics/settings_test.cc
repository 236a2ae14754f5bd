// Settings, config directory choice, cache drive choice and attach.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/startup.h"
#include "platform/platform.h"
#include "qltfsdk/writeroption.h"
#include "tests/support/temp_dir.h"

namespace {

// ReadBufSize, WriteBufSize, ReadMode, WriteMode, WriteRetryCount,
// WriteRetryTime, LogFileOn, IOWriteTimeOn, IOWriteBlockTimeTh.
using Values = std::array<int, 9>;
const Values kDefaults = {262144, 524288, 0, 0, 0, 0, 0, 0, 100};

class SettingsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    LoadSdkSettingsFrom(L"");
    SetModuleDirectoryOverride(L"");
    QltResetDriveMap();
    SetCacheDriveRoot(L"");
  }
  // Writes text as qltfsdk.ini in the temp dir, loads it and returns the values.
  Values Load(const std::string& text) {
    EXPECT_TRUE(WriteWholeFile(m_dir.file("qltfsdk.ini"), text));
    EXPECT_EQ(LoadSdkSettingsFrom(m_dir.wpath("qltfsdk.ini")), 1);
    return Current();
  }
  static Values Current() {
    const SdkSettingsRecord& s = SdkSettings;
    return {s.ReadBufSize,    s.WriteBufSize, s.ReadMode,      s.WriteMode,         s.WriteRetryCount,
            s.WriteRetryTime, s.LogFileOn,    s.IOWriteTimeOn, s.IOWriteBlockTimeTh};
  }
  TempDir m_dir;
};

TEST_F(SettingsTest, ReadsAllNineKeysWithUnits) {
  EXPECT_EQ(Load("[FILERW]\nReadBufSize=512\nWriteBufSize=1024\nReadMode=7\nWriteMode=-1\n"
                 "WriteRetryCount=3\nWriteRetryTime=250\n[LOG]\nLogFileOn=1\nIOWriteTimeOn=2\nIOWriteBlockTimeTh=-5\n"),
            (Values{524288, 1048576, 1, 1, 3, 250, 1, 2, -5}));
  EXPECT_EQ(Load("[FILERW]\nReadBufSize=128\n")[1], 524288);  // WriteBufSize missing
  EXPECT_EQ(SdkSettings.ReadBufSize, 131072);
  EXPECT_EQ(Load("[FILERW]\nReadBufSize=2097151\n")[0], 2097151 * 1024);  // the largest that fits
}

TEST_F(SettingsTest, MissingBadOrMalformedValuesGiveDefaults) {
  SdkSettings.ReadBufSize = 7;
  SdkSettings.LogFileOn = 1;
  ASSERT_EQ(LoadSdkSettingsFrom(m_dir.wpath("absent.ini")), 1);
  EXPECT_EQ(Current(), kDefaults);
  for (const char* bad : {"0", "-3", "2097152", "99999999999999999999", "abc"})
    EXPECT_EQ(Load(std::string("[FILERW]\nReadBufSize=") + bad + "\nWriteBufSize=" + bad + "\n"), kDefaults) << bad;
  // The three log keys count only in "LOG"; names match in any case.
  EXPECT_EQ(Load("[FILERW]\nLogFileOn=1\nIOWriteTimeOn=1\nIOWriteBlockTimeTh=5\n[LOG]\nReadBufSize=4\n"), kDefaults);
  EXPECT_EQ(Load("[log]\nlogfileon=1\n")[6], 1);
  EXPECT_EQ(Load("this is not an ini file\n=====\n[[[\n]]]\n"), kDefaults);
  std::string binary;
  for (int i = 0; i < 4096; ++i) binary.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
  EXPECT_EQ(Load(binary), kDefaults);
  EXPECT_EQ(Load("[FILERW]\nWriteRetryCount=99999999999999999999\nWriteRetryTime=12ms\n")[4], 2147483647);
  EXPECT_EQ(SdkSettings.WriteRetryTime, 12);
  // Duplicate keys and sections: the first occurrence wins.
  EXPECT_EQ(Load("[FILERW]\nWriteRetryCount=4\nWriteRetryCount=8\n[FILERW]\nWriteRetryCount=9\n")[4], 4);
}

TEST_F(SettingsTest, FileBesideExecutableWinsOverOneBesideLibrary) {
  TempDir exeDir, moduleDir;
  std::wstring exe = QltWindowsPath(exeDir.path()), module = QltWindowsPath(moduleDir.path());
  EXPECT_EQ(ChooseConfigDirectory(exe, module), module);  // neither has one
  ASSERT_TRUE(WriteWholeFile(moduleDir.file("qltfsdk.ini"), "[FILERW]\nWriteRetryCount=1\n"));
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

TEST_F(SettingsTest, CacheDriveIsSecondFixedDriveOrOnlyOneOrNone) {
  TempDir dirs[4];
  const UINT kTypes[] = {DRIVE_FIXED, DRIVE_REMOVABLE, DRIVE_FIXED, DRIVE_FIXED};  // C D E F
  for (int i = 0; i < 4; ++i)
    QltSetDrive(static_cast<wchar_t>(L'C' + i), QltWindowsPath(dirs[i].path()).c_str(), kTypes[i]);
  std::wstring root = L"junk";
  EXPECT_EQ(SelectCacheDrive(root), 1);
  EXPECT_EQ(root, L"E:\\");
  QltSetDrive(L'E', L"", DRIVE_UNKNOWN);
  QltSetDrive(L'F', L"", DRIVE_UNKNOWN);
  SelectCacheDrive(root);
  EXPECT_EQ(root, L"C:\\");
  QltSetDrive(L'C', L"", DRIVE_UNKNOWN);
  SelectCacheDrive(root);
  EXPECT_EQ(root, L"");
}

}  // namespace
