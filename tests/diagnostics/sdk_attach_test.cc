// The SDK library as a host sees it: attached at load, reporting what it
// loaded, and finding its companion libraries by name.
#include <gtest/gtest.h>

#include <string>

#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/temp_dir.h"

namespace {

// The build tree holds no qltfsdk.ini, so start-up must have loaded the
// built-in values, which differ from the settings record's initial ones
// (ReadMode starts at 1 and reads 0 without a file): each field shows the
// file step ran.
TEST(SdkAttachTest, ReportsWhatStartUpLoaded) {
  QLT_SDKINFO_ST info{};
  ASSERT_EQ(QLT_GetSdkInfo(&info), 1);
  // The library's own directory is where libqltfsdk.so lies.
  std::string dir = QltNativePath(info.bstrModuleDir);
  EXPECT_TRUE(FileExists(dir + "/libqltfsdk.so")) << dir;
  ASSERT_FALSE(FileExists(dir + "/qltfsdk.ini"));
  EXPECT_EQ(SysStringLen(info.bstrIniPath), 0u);
  EXPECT_EQ(info.nReadMode, 0);
  EXPECT_EQ(info.nReadBufSize, 262144);
  EXPECT_EQ(info.nWriteBufSize, 524288);
  EXPECT_EQ(info.nIOWriteBlockTimeTh, 100);
  EXPECT_EQ(SysStringLen(info.bstrCacheDriveRoot) == 0, SysStringLen(info.bstrCacheDriveDir) == 0);
  QLT_FreeSdkInfo(&info);
  EXPECT_EQ(info.bstrModuleDir, nullptr);
  EXPECT_EQ(QLT_GetSdkInfo(nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

// Both companions load by name from beside the platform library, as the SDK
// loads them; what is not there is reported missing.
TEST(SdkAttachTest, CompanionsFoundByName) {
  const struct {
    const wchar_t* name;
    int found;
  } cases[] = {{L"qltUtilBase.dll", 1}, {L"QltLogBookU.dll", 1}, {L"NoSuchCompanion.dll", 0}, {L"", 0}, {nullptr, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name ? QltWideToUtf8(c.name) : "null");
    EXPECT_EQ(QLT_FindCompanion(c.name), c.found);
  }
}

TEST(SdkAttachTest, SdkInfoFailsCleanlyWhenMemoryRunsOut) {
  QLT_SDKINFO_ST info{};
  int nResult = 0;
  DWORD nError = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int) {
                  nResult = QLT_GetSdkInfo(&info);
                  nError = GetLastError();
                },
                [&](int n, bool) {
                  SCOPED_TRACE(n);
                  if (nResult == 1) {
                    EXPECT_NE(info.bstrModuleDir, nullptr);
                    QLT_FreeSdkInfo(&info);
                  } else {
                    EXPECT_EQ(nError, static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
                    EXPECT_EQ(info.bstrModuleDir, nullptr);  // nothing handed out
                  }
                }),
            1);
}

}  // namespace
