// `qltfs write`, `read` and `exists` on oss:// objects and http:// files, run
// as a person runs them, against the strict S3 front and a loopback HTTP
// server.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/ftp_server.h"
#include "tests/support/s3_server.h"
#include "tests/support/temp_dir.h"
#include "tests/tool/tool_process.h"

namespace {

class WebCommandTest : public ::testing::Test {
 protected:
  WebCommandTest() : m_server(m_dir.file("store")), m_http(m_dir.path()) {
    m_server.UseInThisProcess();
    m_server.CreateBucket("qlt-bucket");
  }
  // Runs `qltfs <args>` (words split at blanks) with env's settings.
  int Run(const std::string& args, std::vector<std::pair<std::string, std::string>> env = {}) {
    ToolRun run;
    std::istringstream words(args);
    for (std::string word; words >> word;) run.args.push_back(word);
    run.env = std::move(env);
    run.outPath = m_dir.file("out.txt");
    run.errPath = m_dir.file("err.txt");
    return RunTool(run);
  }
  std::string Out() const { return ReadToolOutput(m_dir.file("out.txt")); }
  std::string Err() const { return ReadToolOutput(m_dir.file("err.txt")); }
  // The object's bytes as the AWS client reads them; empty when it cannot.
  std::string Object(const std::string& key) {
    std::string output;
    std::remove(m_dir.file("fetched.bin").c_str());
    const std::string strTarget = ShellQuote(UnixPath(m_dir.file("fetched.bin")));
    if (m_server.RunAwsCli("s3 cp --no-progress s3://qlt-bucket/" + key + " " + strTarget, &output) != 0) return {};
    return ReadWholeFile(m_dir.file("fetched.bin"));
  }

  TempDir m_dir;
  S3TestServer m_server;
  HttpTestServer m_http;
};

TEST_F(WebCommandTest, WritesReadsAndCopiesObjectsByteForByte) {
  // A multipart object (more than one part), through the writer alone and
  // through its write cache; write reads each back itself.
  for (const char* options : {"--size 13M --slice 100000", "--size 3M --cache --cache-size 8M"}) {
    SCOPED_TRACE(options);
    ASSERT_EQ(0, Run(std::string("write oss://qlt-bucket/w.bin ") + options)) << Err();
    EXPECT_NE(std::string::npos, Out().find("verified:")) << Out();
  }
  EXPECT_EQ(3u << 20, Object("w.bin").size());

  const std::string data = RandomBytes(11 * 1024 * 1024 + 5, 7);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.bin"), data));
  ASSERT_EQ(0, Run("read " + m_dir.file("src.bin") + " --to oss://qlt-bucket/dir/copy.bin")) << Err();
  EXPECT_TRUE(Object("dir/copy.bin") == data);
  for (const char* options : {"", "--async 1M --block 64k"}) {
    SCOPED_TRACE(options);
    ASSERT_EQ(0, Run("read oss://qlt-bucket/dir/copy.bin --to " + m_dir.file("back.bin") + " " + options)) << Err();
    EXPECT_TRUE(ReadWholeFile(m_dir.file("back.bin")) == data);
    ASSERT_EQ(0, Run("read " + m_http.Url("src.bin") + " --to " + m_dir.file("http.bin") + " " + options)) << Err();
    EXPECT_TRUE(ReadWholeFile(m_dir.file("http.bin")) == data);
  }
  EXPECT_EQ(0, m_server.OpenUploads());
}

// Every failure is named in words, leaves nothing on the store and prints no
// success line.
TEST_F(WebCommandTest, FailuresAreNamedInWords) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.bin"), RandomBytes(6 * 1024 * 1024, 8)));
  const std::string refused = "http://127.0.0.1:" + std::to_string(UnusedLoopbackPort());
  const struct {
    const char* name;
    std::string args;
    std::vector<std::pair<std::string, std::string>> env;
    std::string words;
  } rows[] = {
      {"wrong secret, write",
       "write oss://qlt-bucket/x.bin --size 7M",
       {{"AWS_SECRET_ACCESS_KEY", "wrong"}},
       "access denied by the store (403)"},
      {"wrong secret, copy",
       "read " + m_dir.file("src.bin") + " --to oss://qlt-bucket/x.bin",
       {{"AWS_SECRET_ACCESS_KEY", "wrong"}},
       "access denied by the store (403)"},
      {"no credentials",
       "write oss://qlt-bucket/x.bin --size 1M",
       {{"AWS_ACCESS_KEY_ID", ""}, {"AWS_SECRET_ACCESS_KEY", ""}, {"HOME", m_dir.path()}},
       "no credentials"},
      {"no bucket", "write oss://no-such-bucket/x.bin --size 1M", {}, "no such bucket"},
      {"no object", "read oss://qlt-bucket/none.bin --to " + m_dir.file("none.bin"), {}, "no such object"},
      {"refused",
       "read " + m_dir.file("src.bin") + " --to oss://qlt-bucket/x.bin",
       {{"AWS_ENDPOINT_URL", refused}},
       "connection refused"},
      {"http is read-only", "read " + m_dir.file("src.bin") + " --to " + m_http.Url("x.bin"), {}, "read-only"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_NE(0, Run(row.args, row.env));
    EXPECT_NE(std::string::npos, Err().find(row.words)) << Err();
    EXPECT_EQ(std::string::npos, Out().find("verified")) << Out();
    EXPECT_EQ(std::string::npos, Err().find(S3TestServer::SecretKey())) << "the secret is never shown";
  }
  EXPECT_TRUE(Object("x.bin").empty());
  EXPECT_EQ(0, m_server.OpenUploads());

  // A store that keeps failing: the close fails, the upload is aborted.
  if (!m_server.HasFaultControl()) return;
  m_server.Fault("500", "PUT", "", 0, 100);
  EXPECT_NE(0, Run("read " + m_dir.file("src.bin") + " --to oss://qlt-bucket/x.bin"));
  EXPECT_NE(std::string::npos, Err().find("the store failed")) << Err();
  EXPECT_TRUE(Object("x.bin").empty());
  EXPECT_EQ(0, m_server.OpenUploads());
}

TEST_F(WebCommandTest, ExistsAnswersForObjectsAndHttpFiles) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("here.bin"), "x"));
  ASSERT_EQ(0, Run("read " + m_dir.file("here.bin") + " --to oss://qlt-bucket/here.bin")) << Err();
  const std::string refused = "http://127.0.0.1:" + std::to_string(UnusedLoopbackPort());
  const struct {
    std::string path, env;  // env: an endpoint, or empty
    int exitCode;
    const char* words;  // on stderr when the answer could not be had
  } rows[] = {
      {"oss://qlt-bucket/here.bin", "", 0, ""},
      {"oss://qlt-bucket/gone.bin", "", 1, ""},
      {m_http.Url("here.bin"), "", 0, ""},
      {m_http.Url("redirect/here.bin"), "", 0, ""},
      {m_http.Url("gone.bin"), "", 1, ""},
      {"oss://qlt-bucket/here.bin", refused, 1, "connection refused"},
      {refused + "/here.bin", "", 1, "connection refused"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path + " " + row.env);
    std::vector<std::pair<std::string, std::string>> env;
    if (!row.env.empty()) env.push_back({"AWS_ENDPOINT_URL", row.env});
    EXPECT_EQ(row.exitCode, Run("exists " + row.path, env)) << Err();
    EXPECT_EQ(row.exitCode == 0 ? "1\n" : "0\n", Out());
    EXPECT_NE(std::string::npos, Err().find(row.words)) << Err();
  }
}

}  // namespace
