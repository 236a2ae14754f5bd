// The writer's web files through the real plug-in: objects of the loopback
// S3 front and files of the loopback FTP server, written like local files.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include "diagnostics/web_plugin.h"
#include "tests/support/ftp_server.h"
#include "tests/support/s3_server.h"
#include "tests/writer/writer_test_util.h"

namespace qlt::test {
namespace {

constexpr size_t kPart = 5 * 1024 * 1024;

std::string AnonymousGet(const std::string& url) {
  std::string body;
  CURL* h = curl_easy_init();
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(
      h, CURLOPT_WRITEFUNCTION, +[](char* p, size_t s, size_t n, void* u) {
        static_cast<std::string*>(u)->append(p, s * n);
        return s * n;
      });
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
  CURLcode code = curl_easy_perform(h);
  curl_easy_cleanup(h);
  return code == CURLE_OK ? body : "<failed>";
}

class WriterWebTest : public WriterTest {
 protected:
  void SetUp() override {
    WriterTest::SetUp();
    QltResetWebPluginForTest(L"");  // the real plug-in, found by name
    setenv("QLTFS_WEB_PART_SIZE", std::to_string(kPart).c_str(), 1);
  }
  void TearDown() override {
    unsetenv("QLTFS_WEB_PART_SIZE");
    WriterTest::TearDown();
  }
  static HANDLE Open(QLCT_FileEx& w, const std::string& url, const char* options) {
    SECURITY_ATTRIBUTES sa{};
    sa.nLength = options ? static_cast<DWORD>(strlen(options)) : 0;
    sa.lpSecurityDescriptor = const_cast<char*>(options);
    return w.CreateKXFile(CComBSTR(QltUtf8ToWide(url).c_str()), GENERIC_WRITE, 0, options ? &sa : nullptr,
                          CREATE_ALWAYS, 0, nullptr);
  }
  // Writes data in slices of varying size; false at the first failed write.
  static bool WriteAll(QLCT_FileEx& w, const std::string& data) {
    size_t slice = 1;
    for (size_t done = 0; done < data.size(); slice = slice * 7 % 3000011 + 1) {
      DWORD n = static_cast<DWORD>(std::min(slice, data.size() - done)), written = 0;
      if (!w.WriteFile(data.data() + done, n, &written, nullptr, 0) || written != n) return false;
      done += n;
    }
    return true;
  }
};

TEST_F(WriterWebTest, ObjectsAreStoredWholeWithAHeaderRewrittenBeforeClose) {
  S3TestServer s3(m_dir.file("store"));
  s3.UseInThisProcess();
  s3.CreateBucket("writer-bucket");
  struct Case {
    const char* key;
    const char* options;
    size_t size;
  } cases[] = {{"multi.bin", "PublicWebFile", 2 * kPart + 3},
               {"put.bin", "PublicWebFile PutMode", 3 * kPart},
               {"small.bin", "PublicWebFile", 100}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    FileExPtr w = MakeWriter();
    ASSERT_TRUE(w);
    ASSERT_NE(Open(*w, std::string("oss://writer-bucket/") + c.key, c.options), nullptr);
    std::string data = Pattern(0, c.size);
    ASSERT_TRUE(WriteAll(*w, data));
    ASSERT_EQ(w->SetFilePointer(2, nullptr, FILE_BEGIN), 2u);
    DWORD n = 0;
    ASSERT_EQ(w->WriteFile("HD", 2, &n, nullptr, 0), 1);
    data.replace(2, 2, "HD");
    EXPECT_EQ(w->CloseHandle(), 1);
    EXPECT_TRUE(AnonymousGet(s3.Endpoint() + "/writer-bucket/" + c.key) == data);
  }
  EXPECT_EQ(s3.OpenUploads(), 0);

  // A bucket that is not there fails the create; a failed upload fails the close.
  FileExPtr w = MakeWriter();
  ASSERT_TRUE(w);
  EXPECT_EQ(Open(*w, "oss://no-such-bucket/x.bin", nullptr), nullptr);
  ASSERT_NE(Open(*w, "oss://writer-bucket/failed.bin", nullptr), nullptr);
  s3.Fault("403", "PUT", "partNumber=", 0, 1);
  bool written = WriteAll(*w, Pattern(0, 3 * kPart));
  EXPECT_FALSE(written && w->CloseHandle() == 1);
  w.reset();
  EXPECT_EQ(s3.OpenUploads(), 0);
}

TEST_F(WriterWebTest, FtpFilesAreUploadedAtClose) {
  FtpTestServer ftp(m_dir.path());
  FileExPtr w = MakeWriter();
  ASSERT_TRUE(w);
  ASSERT_NE(Open(*w, ftp.Url("up/f.bin"), nullptr), nullptr);
  std::string data = Pattern(5, 1 << 20);
  ASSERT_TRUE(WriteAll(*w, data));
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_TRUE(ReadWholeFile(m_dir.file("up/f.bin")) == data);
}

}  // namespace
}  // namespace qlt::test
