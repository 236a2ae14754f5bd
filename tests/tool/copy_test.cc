// `qltfs copy` run as a person runs it: the built binary on real files.
#include <gtest/gtest.h>
#include <sys/wait.h>

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
  EXPECT_NE(ReadWholeFile(m_dir.file("err.txt")).find("100%"), std::string::npos);
}

TEST_F(CopyCommandTest, BadRateOrMissingSourceFailsWithoutDestination) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), "abc"));
  for (const char* rate : {"12X", "0", "-5M", "3G", "M"}) {
    SCOPED_TRACE(rate);
    EXPECT_NE(RunShell(Qltfs() + m_dir.file("src.dat") + " " + m_dir.file("dst.dat") + " --rate " + rate + Redirect()),
              0);
    EXPECT_NE(ReadWholeFile(m_dir.file("err.txt")).find("bad rate"), std::string::npos);
  }
  EXPECT_NE(RunShell(Qltfs() + m_dir.file("none.dat") + " " + m_dir.file("dst.dat") + Redirect()), 0);
  EXPECT_NE(RunShell(Qltfs() + m_dir.file("src.dat") + " " + m_dir.file("src.dat") + Redirect()), 0);
  EXPECT_FALSE(FileExists(m_dir.file("dst.dat")));
  EXPECT_EQ(ReadWholeFile(m_dir.file("src.dat")), "abc");
}

// Ctrl-C once the destination exists (the handler is in place by then): the
// copy stops, the tool says so and exits 130, the destination keeps its size.
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
  EXPECT_NE(strErr.find("copy aborted after"), std::string::npos) << strErr;
  EXPECT_EQ(std::filesystem::file_size(dst), nSize);
  EXPECT_EQ(ReadWholeFile(m_dir.file("out.txt")), "");
}

}  // namespace
