// The test servers themselves, driven by Debian's AWS client and plain libcurl:
// the S3 front must refuse what a strict store refuses and fault on request,
// or the plug-in's tests against it prove nothing.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/s3_server.h"
#include "tests/support/temp_dir.h"

namespace {

struct Answer {
  CURLcode rc = CURLE_OK;
  long status = 0;
  std::string body;
};

size_t Collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// One unsigned request; `range` like "0-9" when not empty.
Answer Fetch(const std::string& url, const std::string& method = "GET", const std::string& range = "",
             long timeoutSeconds = 20) {
  Answer a;
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, timeoutSeconds);
  if (method == "HEAD") curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  if (!range.empty()) curl_easy_setopt(curl, CURLOPT_RANGE, range.c_str());
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &a.body);
  a.rc = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &a.status);
  curl_easy_cleanup(curl);
  return a;
}

class S3FrontTest : public ::testing::Test {
 protected:
  S3FrontTest() : m_server(m_dir.file("store")) { m_server.CreateBucket("qlt-bucket"); }
  int Aws(const std::string& args, const std::string& secret = "") { return m_server.RunAwsCli(args, &m_out, secret); }
  std::string Url(const std::string& key) const { return m_server.Endpoint() + "/qlt-bucket/" + key; }
  // A file of the test's folder as the AWS client names it.
  std::string AwsPath(const std::string& name) const { return ShellQuote(UnixPath(m_dir.file(name))); }

  TempDir m_dir;
  S3TestServer m_server;
  std::string m_out;
};

TEST_F(S3FrontTest, SignedClientRoundTripsAndBadCredentialsAreRefused) {
  const std::string big = RandomBytes(13 * 1024 * 1024 + 7, 1);  // the client sends it as a multipart upload
  ASSERT_TRUE(WriteWholeFile(m_dir.file("big.bin"), big));
  ASSERT_EQ(0, Aws("s3 cp --no-progress " + AwsPath("big.bin") + " s3://qlt-bucket/dir/big.bin")) << m_out;
  ASSERT_EQ(0, Aws("s3 cp --no-progress s3://qlt-bucket/dir/big.bin " + AwsPath("back.bin"))) << m_out;
  EXPECT_TRUE(ReadWholeFile(m_dir.file("back.bin")) == big);
  bool sawParts = false;
  for (const S3Request& r : m_server.Requests()) sawParts |= r.query.find("partNumber=2") != std::string::npos;
  EXPECT_TRUE(sawParts) << "the client used a multipart upload";
  EXPECT_EQ(0, m_server.OpenUploads());

  m_server.Reset();
  EXPECT_NE(0, Aws("s3 cp --no-progress " + AwsPath("big.bin") + " s3://qlt-bucket/wrong.bin", "wrong-secret"));
  EXPECT_NE(std::string::npos, m_out.find("SignatureDoesNotMatch")) << m_out;
  EXPECT_NE(0, Aws("s3api head-object --bucket qlt-bucket --key wrong.bin")) << "nothing was stored";
  for (const S3Request& r : m_server.Requests()) {
    if (r.method == "PUT" || (r.method == "POST" && r.query.find("uploadId") != std::string::npos)) {
      EXPECT_EQ(403, r.status) << r.method << " " << r.path << "?" << r.query;
    }
  }
  EXPECT_EQ(0, m_server.OpenUploads());
}

// libcurl's own SigV4 signer against the front: what it signs as a real store
// checks it, and a key id or a body hash that does not match is refused.
TEST_F(S3FrontTest, LibcurlSignedRequestsPassOnlyWhenEverythingMatches) {
  const std::string body = "signed body";
  const std::string bodyHash = "9a0f1ad0bc5fdbd8e33b84ef2e5d0f23e0ff78a1e1cf7bd3b4a9a1cd0d1e0f19";  // not its hash
  const struct {
    const char* name;
    std::string key, url, method, payloadHeader;
    long status;
    const char* code;
  } rows[] = {
      {"unsigned payload", S3TestServer::AccessKey(), Url("s.txt"), "PUT", "UNSIGNED-PAYLOAD", 200, ""},
      {"sorted query", S3TestServer::AccessKey(), m_server.Endpoint() + "/qlt-bucket?list-type=2&prefix=s", "GET",
       "UNSIGNED-PAYLOAD", 200, ""},
      {"unknown key id", "NOSUCHKEY", Url("s.txt"), "PUT", "UNSIGNED-PAYLOAD", 403, "InvalidAccessKeyId"},
      {"body hash mismatch", S3TestServer::AccessKey(), Url("s.txt"), "PUT", bodyHash, 400,
       "XAmzContentSHA256Mismatch"},
      {"no payload header", S3TestServer::AccessKey(), Url("s.txt"), "GET", "", 400, "InvalidRequest"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    CURL* curl = curl_easy_init();
    std::string answer;
    std::string userpwd = row.key + ":" + S3TestServer::SecretKey();
    curl_slist* headers = nullptr;
    if (!row.payloadHeader.empty())
      headers = curl_slist_append(headers, ("x-amz-content-sha256: " + row.payloadHeader).c_str());
    curl_easy_setopt(curl, CURLOPT_URL, row.url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, "aws:amz:us-east-1:s3");
    curl_easy_setopt(curl, CURLOPT_USERPWD, userpwd.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (row.method == "PUT") {
      curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PUT");
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    EXPECT_EQ(CURLE_OK, curl_easy_perform(curl));
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    EXPECT_EQ(row.status, status) << answer;
    EXPECT_NE(std::string::npos, answer.find(row.code)) << answer;
  }
}

TEST_F(S3FrontTest, CannedAclDecidesAnonymousReads) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("a.txt"), "public bytes"));
  ASSERT_EQ(0, Aws("s3 cp --no-progress --acl public-read " + AwsPath("a.txt") + " s3://qlt-bucket/pub.txt")) << m_out;
  ASSERT_EQ(0, Aws("s3 cp --no-progress " + AwsPath("a.txt") + " s3://qlt-bucket/priv.txt")) << m_out;
  Answer pub = Fetch(Url("pub.txt"));
  EXPECT_EQ(200, pub.status);
  EXPECT_EQ("public bytes", pub.body);
  EXPECT_EQ(200, Fetch(Url("pub.txt"), "HEAD").status);
  EXPECT_EQ(403, Fetch(Url("priv.txt")).status);
  EXPECT_EQ(403, Fetch(Url("priv.txt"), "HEAD").status);
  EXPECT_EQ(403, Fetch(m_server.Endpoint() + "/qlt-bucket").status) << "anonymous listing";
  ASSERT_EQ(0, Aws("s3api get-object-acl --bucket qlt-bucket --key pub.txt --output text")) << m_out;
  EXPECT_NE(std::string::npos, m_out.find("global/AllUsers")) << m_out;
  ASSERT_EQ(0, Aws("s3api get-object-acl --bucket qlt-bucket --key priv.txt --output text")) << m_out;
  EXPECT_EQ(std::string::npos, m_out.find("AllUsers")) << m_out;
  // Overwriting without an ACL makes the object private again.
  ASSERT_EQ(0, Aws("s3 cp --no-progress " + AwsPath("a.txt") + " s3://qlt-bucket/pub.txt")) << m_out;
  EXPECT_EQ(403, Fetch(Url("pub.txt")).status);
}

TEST_F(S3FrontTest, CompleteChecksThePartListAndAbortRemovesTheUpload) {
  const std::string part1 = RandomBytes(5 * 1024 * 1024, 2), small = RandomBytes(1000, 3);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("p1"), part1));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("small"), small));
  ASSERT_EQ(0, Aws("s3api create-multipart-upload --bucket qlt-bucket --key mp.bin --query UploadId --output text"))
      << m_out;
  const std::string id = m_out.substr(0, m_out.find_first_of("\r\n"));
  EXPECT_EQ(1, m_server.OpenUploads());
  auto part = [&](int n, const std::string& file) {
    EXPECT_EQ(0, Aws("s3api upload-part --bucket qlt-bucket --key mp.bin --upload-id " + id + " --part-number " +
                     std::to_string(n) + " --body " + AwsPath(file) + " --query ETag --output text"))
        << m_out;
    return m_out.substr(0, m_out.find_first_of("\r\n"));
  };
  const std::string e1 = part(1, "p1"), e2 = part(2, "small"), e3 = part(3, "small");
  auto complete = [&](const std::string& parts) {
    ASSERT_TRUE(WriteWholeFile(m_dir.file("parts.json"), "{\"Parts\": [" + parts + "]}"));
    Aws("s3api complete-multipart-upload --bucket qlt-bucket --key mp.bin --upload-id " + id +
        " --multipart-upload file://" + AwsPath("parts.json"));
  };
  auto entry = [](int n, const std::string& etag) {
    return "{\"PartNumber\": " + std::to_string(n) + ", \"ETag\": " + etag + "}";
  };
  const struct {
    std::string parts, error;
  } refused[] = {
      {entry(1, e1) + "," + entry(4, e3), "InvalidPart"},                                      // never uploaded
      {entry(1, e1) + "," + entry(2, "\"0123456789abcdef0123456789abcdef\""), "InvalidPart"},  // wrong ETag
      {entry(2, e2) + "," + entry(1, e1), "InvalidPartOrder"},
      {entry(1, e1) + "," + entry(2, e2) + "," + entry(3, e3), "EntityTooSmall"},  // part 2 is not the last
  };
  for (const auto& row : refused) {
    SCOPED_TRACE(row.parts);
    complete(row.parts);
    EXPECT_NE(std::string::npos, m_out.find(row.error)) << m_out;
    EXPECT_EQ(1, m_server.OpenUploads());
  }
  EXPECT_NE(0, Aws("s3api head-object --bucket qlt-bucket --key mp.bin")) << "nothing stored by a refused list";

  ASSERT_EQ(0, Aws("s3api abort-multipart-upload --bucket qlt-bucket --key mp.bin --upload-id " + id)) << m_out;
  EXPECT_EQ(0, m_server.OpenUploads());
  EXPECT_FALSE(FileExists(m_server.storage() + "/qlt-bucket/._S3rver_uploads/" + id)) << "the parts are gone";
  complete(entry(1, e1) + "," + entry(2, e2));
  EXPECT_NE(std::string::npos, m_out.find("NoSuchUpload")) << m_out;
}

TEST_F(S3FrontTest, FaultsHitTheMatchingRequestsOnly) {
  const std::string data = RandomBytes(300000, 4);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("d.bin"), data));
  ASSERT_EQ(0, Aws("s3 cp --no-progress --acl public-read " + AwsPath("d.bin") + " s3://qlt-bucket/d.bin")) << m_out;
  m_server.Reset();
  m_server.Fault("503", "GET", "d.bin", 1, 1);  // the second GET of d.bin only
  m_server.Fault("drop", "GET", "other", 0, 1);
  m_server.Fault("500", "HEAD", "", 0, 1);
  m_server.Fault("403", "*", "d.bin", 1, 1);  // skips the first matching request, whatever its method
  EXPECT_EQ(500, Fetch(Url("d.bin"), "HEAD").status);
  EXPECT_EQ(200, Fetch(Url("d.bin")).status);  // skipped by the 503 and counted as the skip of the 403
  Answer slow = Fetch(Url("d.bin"));
  EXPECT_EQ(503, slow.status);
  EXPECT_NE(std::string::npos, slow.body.find("<Code>SlowDown</Code>"));
  EXPECT_EQ(403, Fetch(Url("d.bin")).status);
  Answer ok = Fetch(Url("d.bin"));
  EXPECT_EQ(200, ok.status);
  EXPECT_TRUE(ok.body == data);

  m_server.Fault("drop", "GET", "d.bin", 0, 1);
  Answer dropped = Fetch(Url("d.bin"));
  EXPECT_NE(CURLE_OK, dropped.rc) << "the connection closed half-way through the body";
  EXPECT_LT(dropped.body.size(), data.size());
  m_server.Fault("stall", "GET", "d.bin", 0, 1, 30);
  EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, Fetch(Url("d.bin"), "GET", "", 1).rc);
  // An upload dropped half-way stores nothing of itself: the client sends it
  // again and the object is the whole file, not the cut one.
  m_server.Fault("drop", "PUT", "", 0, 1);
  EXPECT_EQ(0, Aws("s3 cp --no-progress --acl public-read " + AwsPath("d.bin") +
                   " s3://qlt-bucket/cut.bin --cli-read-timeout 5 --cli-connect-timeout 5"))
      << m_out;
  EXPECT_TRUE(Fetch(Url("cut.bin")).body == data);
  const auto log = m_server.Requests();
  ASSERT_GE(log.size(), 8u);
  EXPECT_EQ(0, log[5].status) << "dropped requests are logged with status 0";
  EXPECT_EQ("PUT", log[6].method);
  EXPECT_EQ(0, log[6].status);
  EXPECT_EQ("PUT", log[7].method);
  EXPECT_EQ(200, log[7].status);
}

TEST(HttpTestServerTest, ServesRangesHeadRedirectsAndMissingFiles) {
  TempDir root;
  const std::string data = RandomBytes(100000, 5);
  ASSERT_TRUE(WriteWholeFile(root.file("f.bin"), data));
  HttpTestServer server(root.path());
  Answer head = Fetch(server.Url("f.bin"), "HEAD");
  EXPECT_EQ(200, head.status);
  EXPECT_TRUE(head.body.empty());
  Answer part = Fetch(server.Url("f.bin"), "GET", "10-19");
  EXPECT_EQ(206, part.status);
  EXPECT_EQ(data.substr(10, 10), part.body);
  EXPECT_EQ(data.substr(99990), Fetch(server.Url("f.bin"), "GET", "99990-").body);
  EXPECT_EQ(416, Fetch(server.Url("f.bin"), "GET", "100000-").status);
  EXPECT_EQ(404, Fetch(server.Url("none.bin"), "HEAD").status);
  Answer redirected = Fetch(server.Url("redirect/f.bin"));
  EXPECT_EQ(200, redirected.status);
  EXPECT_TRUE(redirected.body == data);
}

}  // namespace
