// The SDK library as a host sees it: attached at load, reporting what it
// loaded, and finding its companion libraries by name.
#include <gtest/gtest.h>

#include <string>

#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(SdkAttachTest, ReportsWhatStartUpLoaded) {
  QLT_SDKINFO_ST info{};
  ASSERT_EQ(QLT_GetSdkInfo(&info), 1);
  // The library's own directory is where libqltfsdk.so lies.
  std::string dir = QltNativePath(info.bstrModuleDir);
  EXPECT_TRUE(FileExists(dir + "/libqltfsdk.so")) << dir;
  // The build tree has no qltfsdk.ini; the loaded default read mode differs
  // from the record's initial value, so 0 shows the settings were read.
  EXPECT_TRUE(SysStringLen(info.bstrIniPath) != 0 || info.nReadMode == 0);
  EXPECT_EQ(SysStringLen(info.bstrCacheDriveRoot) == 0, SysStringLen(info.bstrCacheDriveDir) == 0);
  QLT_FreeSdkInfo(&info);
  EXPECT_EQ(info.bstrModuleDir, nullptr);
  EXPECT_EQ(QLT_GetSdkInfo(nullptr), 0);
}

// Both companions load by name from beside the platform library.
TEST(SdkAttachTest, CompanionsFoundByName) {
  for (const wchar_t* name : {L"qltUtilBase.dll", L"QltLogBookU.dll"}) {
    HMODULE h = LoadLibraryW(name);
    EXPECT_NE(h, nullptr);
    if (h) FreeLibrary(h);
  }
}

}  // namespace
