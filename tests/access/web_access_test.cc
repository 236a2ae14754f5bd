// The accessor on URL paths: oss:// objects and http:// files read through
// the real web-file plug-in, and FileIsExist on them.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "diagnostics/web_plugin.h"
#include "platform/platform.h"
#include "qltfsdk/fileaccess.h"
#include "tests/support/s3_server.h"
#include "tests/support/temp_dir.h"

namespace {

int Exists(const std::string& url) { return FileIsExist(CComBSTR(QltUtf8ToWide(url).c_str())); }

TEST(WebAccessTest, UrlFilesReadWithSkipsAndSeeks) {
  TempDir dir;
  std::string data = RandomBytes(3 * 1024 * 1024 + 17, 42);
  std::filesystem::create_directories(dir.file("web"));
  ASSERT_TRUE(WriteWholeFile(dir.file("web/file.bin"), data));
  S3TestServer s3(dir.file("store"));
  s3.UseInThisProcess();
  s3.CreateBucket("access-bucket");
  ASSERT_EQ(s3.RunAwsCli("s3 cp " + ShellQuote(UnixPath(dir.file("web/file.bin"))) + " s3://access-bucket/obj.bin"), 0);
  WriteWholeFile(dir.file("web/x.inx"), "index");
  HttpTestServer http(dir.file("web"));
  QltResetWebPluginForTest(L"");

  for (std::string url : {std::string("oss://access-bucket/obj.bin"), http.Url("file.bin")}) {
    SCOPED_TRACE(url);
    QLCT_FileAccess access;
    ASSERT_EQ(access.OpenFile(CComBSTR(QltUtf8ToWide(url).c_str()), ACCESS_MODE_READ), 1);
    EXPECT_EQ(access.GetLength(), data.size());
    std::string got(1000, '\0');
    ASSERT_EQ(access.Read(reinterpret_cast<BYTE*>(&got[0]), 1000), 1000);
    EXPECT_TRUE(got == data.substr(0, 1000));
    EXPECT_EQ(access.Read(nullptr, 2000000), 2000000);  // a skip
    EXPECT_EQ(access.GetPosition(), 2001000);
    ASSERT_EQ(access.Read(reinterpret_cast<BYTE*>(&got[0]), 1000), 1000);
    EXPECT_TRUE(got == data.substr(2001000, 1000));
    ASSERT_EQ(access.SetPosition(static_cast<__int64>(data.size()) - 10), 1);
    EXPECT_EQ(access.Read(reinterpret_cast<BYTE*>(&got[0]), 1000), 10);
    EXPECT_EQ(access.Read(reinterpret_cast<BYTE*>(&got[0]), 1000), 0);
    EXPECT_EQ(access.SetPosition(-1), 0);
    EXPECT_EQ(access.Write(reinterpret_cast<const BYTE*>("x"), 1), 0);
    EXPECT_EQ(access.CloseFile(), 1);
  }
  QLCT_FileAccess missing;
  EXPECT_EQ(missing.OpenFile(CComBSTR(L"oss://access-bucket/absent.bin"), ACCESS_MODE_READ), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));

  EXPECT_EQ(Exists("oss://access-bucket/obj.bin"), 1);
  EXPECT_EQ(Exists("OSS://access-bucket/absent.bin"), 0);
  EXPECT_EQ(Exists(http.Url("file.bin")), 1);
  EXPECT_EQ(Exists(http.Url("x.inx")), 0);  // index paths are refused before the plug-in
  EXPECT_EQ(Exists(http.Url("absent.bin")), 0);
}

}  // namespace
