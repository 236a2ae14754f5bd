// `qltfs read` with ftp:// URLs on either side, against a loopback FTP server.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/ftp_server.h"
#include "tests/support/temp_dir.h"
#include "tests/tool/tool_process.h"

namespace {

class FtpReadCommandTest : public ::testing::Test {
 protected:
  void SetUp() override { m_pServer = std::make_unique<FtpTestServer>(m_root.path()); }
  // Runs qltfs read with the arguments and extra environment; returns the exit code.
  int Run(std::vector<std::string> args, std::vector<std::pair<std::string, std::string>> env = {}) {
    ToolRun run;
    run.args = {"read"};
    run.args.insert(run.args.end(), args.begin(), args.end());
    run.env = std::move(env);
    run.outPath = m_dir.file("out.txt");
    run.errPath = m_dir.file("err.txt");
    return RunTool(run);
  }
  std::string Output() { return ReadToolOutput(m_dir.file("out.txt")) + ReadToolOutput(m_dir.file("err.txt")); }
  std::string HostPort() const { return "127.0.0.1:" + std::to_string(m_pServer->port()); }

  TempDir m_root, m_dir;
  std::unique_ptr<FtpTestServer> m_pServer;  // made by SetUp
};

TEST_F(FtpReadCommandTest, DownloadsAndUploadsByteForByteSyncAndAsync) {
  const std::string data = RandomBytes(3 * 1024 * 1024 + 99, 11);
  ASSERT_TRUE(WriteWholeFile(m_root.file("src.bin"), data));
  for (const std::vector<std::string>& async : std::vector<std::vector<std::string>>{{}, {"--async", "2M"}}) {
    SCOPED_TRACE(testing::PrintToString(async));
    std::vector<std::string> down = {m_pServer->Url("src.bin"), "--to", m_dir.file("down.bin")};
    std::vector<std::string> up = {m_dir.file("down.bin"), "--to", m_pServer->Url("up/dir/copy.bin")};
    down.insert(down.end(), async.begin(), async.end());
    up.insert(up.end(), async.begin(), async.end());
    EXPECT_EQ(0, Run(down)) << Output();
    EXPECT_TRUE(ReadWholeFile(m_dir.file("down.bin")) == data);
    EXPECT_EQ(0, Run(up)) << Output();
    EXPECT_TRUE(ReadWholeFile(m_root.file("up/dir/copy.bin")) == data);
    EXPECT_EQ(std::string::npos, Output().find(FtpTestServer::password())) << "the password is never shown";
  }
}

TEST_F(FtpReadCommandTest, CredentialsComeFromTheEnvironmentOrANetrcFile) {
  ASSERT_TRUE(WriteWholeFile(m_root.file("a.bin"), "abc"));
  const std::string bare = "ftp://" + HostPort() + "/a.bin";
  EXPECT_EQ(0, Run({bare}, {{"QLTFS_FTP_USER", "qlt"}, {"QLTFS_FTP_PASSWORD", FtpTestServer::password()}})) << Output();
  ASSERT_TRUE(WriteWholeFile(m_dir.file("netrc"),
                             std::string("machine 127.0.0.1 login qlt password ") + FtpTestServer::password() + "\n"));
  EXPECT_EQ(0, Run({bare + ";passive"}, {{"NETRC", m_dir.file("netrc")}})) << Output();
}

TEST_F(FtpReadCommandTest, FailuresSayWhatWithoutThePassword) {
  struct Case {
    std::string args, expect;
  } cases[] = {
      {"ftp://qlt:wrongpass@" + HostPort() + "/a.bin", "cannot log in to ftp://qlt@127.0.0.1"},
      {m_pServer->Url("missing.bin"), "cannot open ftp://qlt@127.0.0.1"},
      {"ftp://qlt:x@127.0.0.1:99999/a.bin", "bad port"},
      {"ftp://qlt:x@" + HostPort() + "/", "no file path"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_NE(0, Run({c.args}));
    EXPECT_NE(std::string::npos, Output().find(c.expect)) << Output();
    EXPECT_EQ(std::string::npos, Output().find("wrongpass"));
    EXPECT_EQ(std::string::npos, Output().find(FtpTestServer::password()));
  }
}

// A server that stalls or refuses: the failure is named in words (a
// time-out, a refused store), never as a byte count, and no success line
// follows.
TEST(FtpFaultCommandTest, StalledOrRefusedTransfersSayWhatHappened) {
  TempDir root, dir;
  const std::string data = RandomBytes(3 * 1024 * 1024, 11);
  ASSERT_TRUE(WriteWholeFile(root.file("src.bin"), data));
  ASSERT_TRUE(WriteWholeFile(dir.file("local.bin"), data));
  struct Case {
    const char* fault;
    bool bUpload;
    bool bAsync;
    std::string expect;
  } cases[] = {
      {"retrstall", false, false, "did not answer in time"},
      {"retrstall", false, true, "did not answer in time"},
      {"stor552", true, false, "the server refused to store the file"},
      {"storstall", true, false, "did not answer in time"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.fault) + (c.bAsync ? " --async" : ""));
    FtpTestServer server(root.path(), c.fault);
    ToolRun run;
    run.args = c.bUpload ? std::vector<std::string>{"read", dir.file("local.bin"), "--to", server.Url("up/x.bin")}
                         : std::vector<std::string>{"read", server.Url("src.bin"), "--to", dir.file("down.bin")};
    if (c.bAsync) run.args.push_back("--async");
    run.env = {{"QLTFS_FTP_IDLE_TIMEOUT_MS", "1000"}};
    run.outPath = dir.file("out.txt");
    run.errPath = dir.file("err.txt");
    run.nTimeoutSeconds = 30;
    EXPECT_EQ(RunTool(run), 1);
    const std::string err = ReadToolOutput(dir.file("err.txt"));
    EXPECT_NE(err.find("qltfs read: "), std::string::npos) << err;
    EXPECT_NE(err.find(c.expect), std::string::npos) << err;
    EXPECT_EQ(ReadToolOutput(dir.file("out.txt")), "");
  }
}

}  // namespace
