// `qltfs read` with ftp:// URLs on either side, against a loopback FTP server.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <random>
#include <string>

#include "tests/support/ftp_server.h"
#include "tests/support/temp_dir.h"

namespace {

std::string Bytes(size_t n) {
  std::mt19937 gen(11);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

class FtpReadCommandTest : public ::testing::Test {
 protected:
  FtpReadCommandTest() : m_server(m_root.path()) {}
  // Runs qltfs read with the arguments and extra environment; returns the exit code.
  int Run(const std::string& args, const std::string& env = "") {
    std::string line =
        env + " " + QLTFS_TOOL_PATH + " read " + args + " >" + m_dir.file("out.txt") + " 2>" + m_dir.file("err.txt");
    int status = std::system(("/bin/bash -c '" + line + "'").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string Output() { return ReadWholeFile(m_dir.file("out.txt")) + ReadWholeFile(m_dir.file("err.txt")); }
  std::string HostPort() const { return "127.0.0.1:" + std::to_string(m_server.port()); }

  TempDir m_root, m_dir;
  FtpTestServer m_server;
};

TEST_F(FtpReadCommandTest, DownloadsAndUploadsByteForByteSyncAndAsync) {
  const std::string data = Bytes(3 * 1024 * 1024 + 99);
  ASSERT_TRUE(WriteWholeFile(m_root.file("src.bin"), data));
  for (const char* async : {"", " --async 2M"}) {
    SCOPED_TRACE(async);
    EXPECT_EQ(0, Run(m_server.Url("src.bin") + " --to " + m_dir.file("down.bin") + async)) << Output();
    EXPECT_TRUE(ReadWholeFile(m_dir.file("down.bin")) == data);
    EXPECT_EQ(0, Run(m_dir.file("down.bin") + " --to " + m_server.Url("up/dir/copy.bin") + async)) << Output();
    EXPECT_TRUE(ReadWholeFile(m_root.file("up/dir/copy.bin")) == data);
    EXPECT_EQ(std::string::npos, Output().find(FtpTestServer::password())) << "the password is never shown";
  }
}

TEST_F(FtpReadCommandTest, CredentialsComeFromTheEnvironmentOrANetrcFile) {
  ASSERT_TRUE(WriteWholeFile(m_root.file("a.bin"), "abc"));
  const std::string bare = "ftp://" + HostPort() + "/a.bin";
  EXPECT_EQ(0, Run(bare, std::string("QLTFS_FTP_USER=qlt QLTFS_FTP_PASSWORD=") + FtpTestServer::password()))
      << Output();
  ASSERT_TRUE(WriteWholeFile(m_dir.file("netrc"),
                             std::string("machine 127.0.0.1 login qlt password ") + FtpTestServer::password() + "\n"));
  EXPECT_EQ(0, Run("\"" + bare + ";passive\"", "NETRC=" + m_dir.file("netrc"))) << Output();
}

TEST_F(FtpReadCommandTest, FailuresSayWhatWithoutThePassword) {
  struct Case {
    std::string args, expect;
  } cases[] = {
      {"ftp://qlt:wrongpass@" + HostPort() + "/a.bin", "cannot log in to ftp://qlt@127.0.0.1"},
      {m_server.Url("missing.bin"), "cannot open ftp://qlt@127.0.0.1"},
      {"ftp://qlt:x@127.0.0.1:99999/a.bin", "bad port"},
      {"ftp://qlt:x@" + HostPort() + "/", "no file path"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_NE(0, Run(c.args));
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
  const std::string data = Bytes(3 * 1024 * 1024);
  ASSERT_TRUE(WriteWholeFile(root.file("src.bin"), data));
  ASSERT_TRUE(WriteWholeFile(dir.file("local.bin"), data));
  struct Case {
    const char* fault;
    bool bUpload;
    const char* async;
    std::string expect;
  } cases[] = {
      {"retrstall", false, "", "did not answer in time"},
      {"retrstall", false, " --async", "did not answer in time"},
      {"stor552", true, "", "the server refused to store the file"},
      {"storstall", true, "", "did not answer in time"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.fault) + c.async);
    FtpTestServer server(root.path(), c.fault);
    const std::string args = c.bUpload ? dir.file("local.bin") + " --to " + server.Url("up/x.bin")
                                       : server.Url("src.bin") + " --to " + dir.file("down.bin");
    const std::string line = std::string("QLTFS_FTP_IDLE_TIMEOUT_MS=1000 timeout -s KILL 30 ") + QLTFS_TOOL_PATH +
                             " read " + args + c.async + " >" + dir.file("out.txt") + " 2>" + dir.file("err.txt");
    const int status = std::system(("/bin/bash -c '" + line + "'").c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    const std::string err = ReadWholeFile(dir.file("err.txt"));
    EXPECT_NE(err.find("qltfs read: "), std::string::npos) << err;
    EXPECT_NE(err.find(c.expect), std::string::npos) << err;
    EXPECT_EQ(ReadWholeFile(dir.file("out.txt")), "");
  }
}

}  // namespace
