// The SDK library as a host sees it: attached at load, reporting what it
// loaded, and containing allocation failures.
#include <gtest/gtest.h>

#include <string>

#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/temp_dir.h"

namespace {

#if defined(_WIN32)
const char kLibraryFile[] = "qltfsdk.dll";
#else
const char kLibraryFile[] = "libqltfsdk.so";
#endif

// The build tree holds no qltfsdk.ini, so start-up must have loaded the
// built-in values; ReadMode starts at 1 and reads 0 without a file, so it
// shows the file step ran.
TEST(SdkAttachTest, ReportsWhatStartUpLoadedAndFailsCleanlyWhenMemoryRunsOut) {
  QLT_SDKINFO_ST info{};
  ASSERT_EQ(QLT_GetSdkInfo(&info), 1);
  std::string dir = QltNativePath(info.bstrModuleDir);  // where the library file lies
  EXPECT_TRUE(FileExists(dir + "/" + kLibraryFile)) << dir;
  EXPECT_EQ(SysStringLen(info.bstrIniPath), 0u);
  EXPECT_EQ(info.nReadMode, 0);
  EXPECT_EQ(info.nWriteBufSize, 524288);
  QLT_FreeSdkInfo(&info);
  EXPECT_EQ(QLT_GetSdkInfo(nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  int nResult = 0;
  DWORD nError = 0;
  int nRefusedRuns = 0;
  EXPECT_GT(ForEachAllocationFailure(
                [&](int) {
                  nResult = QLT_GetSdkInfo(&info);
                  nError = GetLastError();
                },
                [&](int, bool) {
                  if (nResult == 1) {
                    QLT_FreeSdkInfo(&info);
                  } else {
                    ++nRefusedRuns;
                    EXPECT_EQ(nError, static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
                    EXPECT_EQ(info.bstrModuleDir, nullptr);  // nothing handed out
                  }
                }),
            1);
  EXPECT_GT(nRefusedRuns, 0) << "a refused allocation made the call fail";
}

}  // namespace
