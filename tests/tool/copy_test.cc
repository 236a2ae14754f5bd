// `qltfs copy` run as a person runs it: the built binary on real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/tool/tool_process.h"

namespace {

// Interrupts the tool; skips the test where no interrupt can be sent to it.
#define QLT_INTERRUPT_OR_SKIP(process)                                                                    \
  do {                                                                                                    \
    if (!(process).Interrupt()) {                                                                         \
      if (!kLinux) GTEST_SKIP() << "Wine sends no console control event to a process group (open issue)"; \
      FAIL() << "cannot interrupt the tool";                                                              \
    }                                                                                                     \
  } while (false)

std::string Pattern(size_t nBytes) {
  std::string s(nBytes, '\0');
  unsigned x = 12345;
  for (char& c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  return s;
}

class CopyCommandTest : public ::testing::Test {
 protected:
  // Runs `qltfs copy <args>`; output into out.txt and err.txt.
  int Copy(std::vector<std::string> args, long long nFileSizeLimit = 0) const {
    ToolRun run = Run(std::move(args));
    run.nFileSizeLimit = nFileSizeLimit;
    return RunTool(run);
  }
  ToolRun Run(std::vector<std::string> args) const {
    ToolRun run;
    run.args = {"copy"};
    run.args.insert(run.args.end(), args.begin(), args.end());
    run.outPath = m_dir.file("out.txt");
    run.errPath = m_dir.file("err.txt");
    run.nTimeoutSeconds = 20;
    return run;
  }
  TempDir m_dir;
};

TEST_F(CopyCommandTest, CopiesByteForByteAndStatesTheRate) {
  std::string data = Pattern(3 * 65536 + 4321);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  EXPECT_EQ(Copy({m_dir.file("src.dat"), m_dir.file("dst.dat"), "--rate", "2G"}), 0);
  EXPECT_EQ(ReadWholeFile(m_dir.file("dst.dat")), data);
  std::string strOut = ReadToolOutput(m_dir.file("out.txt"));
  EXPECT_NE(strOut.find("copied 200929 bytes"), std::string::npos) << strOut;
  EXPECT_NE(strOut.find("bit/s (limit 2.00 Gbit/s)"), std::string::npos) << strOut;
  // Not a terminal: whole lines (here only the final one), no redrawing.
  std::string strErr = ReadToolOutput(m_dir.file("err.txt"));
  EXPECT_NE(strErr.find("100%"), std::string::npos) << strErr;
  EXPECT_EQ(strErr.find('\r'), std::string::npos) << strErr;
  EXPECT_EQ(std::count(strErr.begin(), strErr.end(), '\n'), 1) << strErr;
}

TEST_F(CopyCommandTest, BadRateFailsWithoutDestination) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), "abc"));
  for (const char* rate : {"12X", "0", "-5M", "3G", "M"}) {
    SCOPED_TRACE(rate);
    EXPECT_EQ(Copy({m_dir.file("src.dat"), m_dir.file("dst.dat"), "--rate", rate}), 2);
    EXPECT_NE(ReadToolOutput(m_dir.file("err.txt")).find("bad rate"), std::string::npos);
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
  const std::string src = m_dir.file("src.dat");
  fs::create_directory(NativePathOf(m_dir.file("dir")));
  struct Case {
    std::string from, to, message;
    long long nFileSizeLimit = 0;
  };
  std::vector<Case> cases = {
      {m_dir.file("none.dat"), m_dir.file("dst.dat"),
       "cannot open '" + m_dir.file("none.dat") + "': the file does not exist (error 2)"},
      {src, m_dir.file("no/dst.dat"),
       "cannot create '" + m_dir.file("no/dst.dat") + "': the path does not exist (error 3)"},
      {src, m_dir.path() + "/./src.dat", "they are the same file"},
      {src, NullDevice(), "it is a device"},
      {m_dir.file("dir"), m_dir.file("dst.dat"), "it is a directory, not a regular file"},
  };
  // Links where the system makes them; FIFOs and a full disk on Linux.
  std::error_code ec;
  fs::create_symlink(NativePathOf(src), NativePathOf(m_dir.file("link.dat")), ec);
  EXPECT_TRUE(!ec || !kLinux) << ec.message();
  if (!ec) cases.push_back({src, m_dir.file("link.dat"), "they are the same file"});
  fs::create_hard_link(NativePathOf(src), NativePathOf(m_dir.file("hard.dat")), ec);
  EXPECT_TRUE(!ec || !kLinux) << ec.message();
  if (!ec) cases.push_back({src, m_dir.file("hard.dat"), "they are the same file"});
  if (kLinux) {
    ASSERT_TRUE(MakeFifo(m_dir.file("fifo")));
    cases.push_back({src, m_dir.file("fifo"), "it is a FIFO; copy writes regular files only"});
    cases.push_back(
        {src, m_dir.file("dst.dat"),
         "failed after 0 of 70000 bytes: the disk is full (error 112); '" + m_dir.file("dst.dat") + "' removed",
         32 << 10});
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.to);
    EXPECT_EQ(Copy({c.from, c.to}, c.nFileSizeLimit), 1);
    std::string strErr = ReadToolOutput(m_dir.file("err.txt"));
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
  const std::string dst = m_dir.file("dst.dat");
  ToolProcess copy(Run({m_dir.file("src.dat"), dst, "--rate", "8M"}));
  ASSERT_TRUE(copy.Started());
  // Polls for the state the interrupt must meet; bounded by the copy's end.
  std::error_code ec;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::filesystem::file_size(NativePathOf(dst), ec) != nSize && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  QLT_INTERRUPT_OR_SKIP(copy);
  EXPECT_EQ(copy.Wait(), 130);
  std::string strErr = ReadToolOutput(m_dir.file("err.txt"));
  EXPECT_NE(strErr.find("copy aborted after "), std::string::npos) << strErr;
  EXPECT_NE(strErr.find(" of 4000000 bytes; '" + dst + "' removed"), std::string::npos) << strErr;
  EXPECT_FALSE(FileExists(dst));
  EXPECT_EQ(ReadToolOutput(m_dir.file("out.txt")), "");
}

// Ctrl-C at once, before or while the copy starts: whichever point it hits
// (before the handler is in place, before the transfer runs, during it), the
// copy ends early, and never by copying the whole file. 4 MB at 8 Mbit/s
// would take 4 s; waiting is bounded by the child ending.
TEST_F(CopyCommandTest, InterruptAtAnyPointEndsTheCopy) {
  const size_t nSize = 4000000;
  const std::string data = Pattern(nSize);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  const std::string src = m_dir.file("src.dat"), dst = m_dir.file("dst.dat");
  for (int nRound = 0; nRound < 5; ++nRound) {
    SCOPED_TRACE(nRound);
    {
      ToolProcess copy(Run({src, dst, "--rate", "8M"}));
      ASSERT_TRUE(copy.Started());
      QLT_INTERRUPT_OR_SKIP(copy);
      const int nExit = copy.Wait();
      EXPECT_TRUE(nExit == 130 || nExit == ToolProcess::kEndedByInterrupt)
          << nExit << " " << ReadToolOutput(m_dir.file("err.txt"));
    }
    EXPECT_NE(ReadWholeFile(dst), data);
    EXPECT_EQ(ReadWholeFile(src), data);
    std::filesystem::remove(NativePathOf(dst));
  }
}

}  // namespace
