// `qltfs copy` run as a person runs it: the built binary on real files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

namespace {

std::string Pattern(size_t nBytes) {
  std::string s(nBytes, '\0');
  unsigned x = 12345;
  for (char& c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  return s;
}

// Runs a shell command line; returns its exit code (-1 if it did not exit).
int RunShell(const std::string& strCommand) {
  int nStatus = std::system(("/bin/bash -c '" + strCommand + "'").c_str());
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

class CopyCommandTest : public ::testing::Test {
 protected:
  std::string Qltfs() const { return std::string(QLTFS_TOOL_PATH) + " copy "; }
  std::string Redirect() const { return " >" + m_dir.file("out.txt") + " 2>" + m_dir.file("err.txt"); }
  TempDir m_dir;
};

TEST_F(CopyCommandTest, CopiesByteForByteAndStatesTheRate) {
  std::string data = Pattern(3 * 65536 + 4321);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  EXPECT_EQ(RunShell(Qltfs() + m_dir.file("src.dat") + " " + m_dir.file("dst.dat") + " --rate 2G" + Redirect()), 0);
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), data);
  std::string strOut = ReadWholeFile(m_dir.file("out.txt"));
  EXPECT_NE(strOut.find("copied 200929 bytes"), std::string::npos) << strOut;
  EXPECT_NE(strOut.find("bit/s (limit 2.00 Gbit/s)"), std::string::npos) << strOut;
  // Not a terminal: whole lines (here only the final one), no redrawing.
  std::string strErr = ReadWholeFile(m_dir.file("err.txt"));
  EXPECT_NE(strErr.find("100%"), std::string::npos) << strErr;
  EXPECT_EQ(strErr.find('\r'), std::string::npos) << strErr;
  EXPECT_EQ(std::count(strErr.begin(), strErr.end(), '\n'), 1) << strErr;
}

TEST_F(CopyCommandTest, BadRateFailsWithoutDestination) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), "abc"));
  for (const char* rate : {"12X", "0", "-5M", "3G", "M"}) {
    SCOPED_TRACE(rate);
    EXPECT_EQ(RunShell(Qltfs() + m_dir.file("src.dat") + " " + m_dir.file("dst.dat") + " --rate " + rate + Redirect()),
              2);
    EXPECT_NE(ReadWholeFile(m_dir.file("err.txt")).find("bad rate"), std::string::npos);
  }
  EXPECT_FALSE(FileExists(m_dir.file("dst.dat")));
}

// Each failure is one line naming the cause in words and the path; the
// source is never touched, whatever spelling of it is given as destination.
// What the copy cannot handle is refused before any open (a FIFO with no
// reader would block it for good), and a destination the disk cannot hold is
// removed again.
TEST_F(CopyCommandTest, FailuresNameTheCauseAndThePath) {
  namespace fs = std::filesystem;
  const std::string data = Pattern(70000);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  fs::create_symlink(m_dir.file("src.dat"), m_dir.file("link.dat"));
  fs::create_hard_link(m_dir.file("src.dat"), m_dir.file("hard.dat"));
  const std::string src = m_dir.file("src.dat");
  fs::create_directory(m_dir.file("dir"));
  ASSERT_EQ(RunShell("mkfifo " + m_dir.file("fifo")), 0);
  const std::string full = "ulimit -f 32; trap \"\" XFSZ; ";  // 32 KiB per file
  const struct {
    std::string from, to, message, limit = "";
  } cases[] = {
      {m_dir.file("none.dat"), m_dir.file("dst.dat"),
       "cannot open '" + m_dir.file("none.dat") + "': the file does not exist (error 2)"},
      {src, m_dir.file("no/dst.dat"),
       "cannot create '" + m_dir.file("no/dst.dat") + "': the path does not exist (error 3)"},
      {src, m_dir.path() + "/./src.dat", "they are the same file"},
      {src, m_dir.file("link.dat"), "they are the same file"},
      {src, m_dir.file("hard.dat"), "they are the same file"},
      {src, m_dir.file("fifo"), "it is a FIFO; copy writes regular files only"},
      {src, "/dev/null", "it is a device"},
      {m_dir.file("dir"), m_dir.file("dst.dat"), "it is a directory, not a regular file"},
      {src, m_dir.file("dst.dat"),
       "failed after 0 of 70000 bytes: the disk is full (error 112); '" + m_dir.file("dst.dat") + "' removed", full},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.to);
    EXPECT_EQ(RunShell(c.limit + "timeout -s KILL 20 " + Qltfs() + c.from + " " + c.to + Redirect()), 1);
    std::string strErr = ReadWholeFile(m_dir.file("err.txt"));
    EXPECT_NE(strErr.find("qltfs copy: "), std::string::npos) << strErr;
    EXPECT_NE(strErr.find(c.message), std::string::npos) << strErr;
    EXPECT_EQ(ReadWholeFile(src), data);
  }
  EXPECT_FALSE(FileExists(m_dir.file("dst.dat")));
}

// Ctrl-C once the destination exists (the handler is in place by then): the
// copy stops, the tool says how far it got and exits 130, and the
// destination, which the transfer had given its full size, is removed.
TEST_F(CopyCommandTest, InterruptAbortsTheCopyCleanly) {
  const size_t nSize = 4000000;  // 4 s at 8 Mbit/s
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), Pattern(nSize)));
  std::string dst = m_dir.file("dst.dat");
  std::string script = Qltfs() + m_dir.file("src.dat") + " " + dst + " --rate 8M" + Redirect() +
                       " & pid=$!; "
                       "for i in $(seq 1000); do [ \"$(stat -c %s " +
                       dst + " 2>/dev/null)\" = " + std::to_string(nSize) +
                       " ] && break; sleep 0.01; done; "
                       "kill -INT $pid; wait $pid";
  EXPECT_EQ(RunShell(script), 130);
  std::string strErr = ReadWholeFile(m_dir.file("err.txt"));
  EXPECT_NE(strErr.find("copy aborted after "), std::string::npos) << strErr;
  EXPECT_NE(strErr.find(" of 4000000 bytes; '" + dst + "' removed"), std::string::npos) << strErr;
  EXPECT_FALSE(FileExists(dst));
  EXPECT_EQ(ReadWholeFile(m_dir.file("out.txt")), "");
}

// Ctrl-C at once, before or while the copy starts: whichever point it hits
// (before the handler is in place, before the transfer runs, during it), the
// copy ends early, and never by copying the whole file. 4 MB at 8 Mbit/s
// would take 4 s; waiting is bounded by the child ending.
TEST_F(CopyCommandTest, InterruptAtAnyPointEndsTheCopy) {
  const size_t nSize = 4000000;
  const std::string data = Pattern(nSize);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  const std::string src = m_dir.file("src.dat"), dst = m_dir.file("dst.dat"), err = m_dir.file("err.txt");
  for (int nRound = 0; nRound < 5; ++nRound) {
    SCOPED_TRACE(nRound);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      // Only async-signal-safe calls between fork and exec.
      ::signal(SIGINT, SIG_DFL);
      int fd = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd >= 0) ::dup2(fd, 2);
      ::execl(QLTFS_TOOL_PATH, "qltfs", "copy", src.c_str(), dst.c_str(), "--rate", "8M", static_cast<char*>(nullptr));
      std::_Exit(127);
    }
    ::kill(pid, SIGINT);
    int nStatus = 0;
    ASSERT_EQ(::waitpid(pid, &nStatus, 0), pid);
    const bool bEndedByTool = WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 130;
    const bool bKilledBeforeHandler = WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGINT;
    EXPECT_TRUE(bEndedByTool || bKilledBeforeHandler) << ReadWholeFile(err);
    EXPECT_NE(ReadWholeFile(dst), data);
    EXPECT_EQ(ReadWholeFile(src), data);
    std::filesystem::remove(dst);
  }
}

}  // namespace
