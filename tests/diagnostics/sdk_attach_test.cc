// The SDK library as a host sees it: attached at load, reporting what it
// loaded, and finding its companion libraries by name.
#include <gtest/gtest.h>

#include <string>

#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"
#include "tests/support/temp_dir.h"

namespace {

using qlt::fault::Rule;
using qlt::fault::ScopedFault;

std::string Text(BSTR text) { return text ? QltWideToUtf8(text) : std::string(); }

TEST(SdkAttachTest, ReportsWhatStartUpLoaded) {
  QLT_SDKINFO_ST info{};
  ASSERT_EQ(QLT_GetSdkInfo(&info), 1);
  // The library's own directory is where libqltfsdk.so lies.
  std::string dir = QltNativePath(info.bstrModuleDir);
  EXPECT_TRUE(FileExists(dir + "/libqltfsdk.so")) << dir;
  if (Text(info.bstrIniPath).empty()) {  // the build tree has no qltfsdk.ini
    EXPECT_EQ(info.nReadBufSize, 262144);
    EXPECT_EQ(info.nWriteBufSize, 524288);
    EXPECT_EQ(info.nReadMode, 0);
    EXPECT_EQ(info.nIOWriteBlockTimeTh, 100);
  }
  std::string root = Text(info.bstrCacheDriveRoot);
  if (!root.empty()) {
    EXPECT_EQ(root.size(), 3u);
    EXPECT_EQ(root.substr(1), ":\\");
    EXPECT_FALSE(Text(info.bstrCacheDriveDir).empty());
  }
  QLT_FreeSdkInfo(&info);
  EXPECT_EQ(info.bstrModuleDir, nullptr);
  EXPECT_EQ(QLT_GetSdkInfo(nullptr), 0);
}

TEST(SdkAttachTest, CompanionsFoundByNameAndHostHidingOneStillWorks) {
  HMODULE hUtil = LoadLibraryW(L"qltUtilBase.dll");
  ASSERT_NE(hUtil, nullptr);
  for (const char* fn : {"CreateErrorCodeVector", "SetErrorCodeInfo", "GerLastErrorCodeInfo", "DeleteErrorCodeVector"})
    EXPECT_NE(GetProcAddress(hUtil, fn), nullptr) << fn;
  FreeLibrary(hUtil);

  Rule hide;
  hide.ops = qlt::fault::kLoadLibrary;
  hide.pathPattern = L"qltUtilBase.dll";
  hide.times = -1;
  hide.error = ERROR_MOD_NOT_FOUND;
  {
    ScopedFault fault(hide);
    SetLastError(0);
    EXPECT_EQ(LoadLibraryW(L"qltUtilBase.dll"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    HMODULE hLog = LoadLibraryW(L"QltLogBookU.dll");  // the other one is unaffected
    ASSERT_NE(hLog, nullptr);
    FreeLibrary(hLog);
    QLT_SDKINFO_ST info{};
    EXPECT_EQ(QLT_GetSdkInfo(&info), 1);
    QLT_FreeSdkInfo(&info);
  }
  hUtil = LoadLibraryW(L"qltUtilBase.dll");  // shown again
  ASSERT_NE(hUtil, nullptr);
  FreeLibrary(hUtil);
}

}  // namespace
