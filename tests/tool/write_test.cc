// `qltfs write` run as a person runs it: the built binary on a real file.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

int RunShell(const std::string& strCommand) {
  int nStatus = std::system(("/bin/bash -c '" + strCommand + "'").c_str());
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

class WriteCommandTest : public ::testing::Test {
 protected:
  // strPrefix: shell words before the command (limits, environment).
  int Run(const std::string& strArgs, const std::string& strPrefix = "") const {
    return RunShell(strPrefix + " " + QLTFS_TOOL_PATH + " write " + strArgs + " >" + m_dir.file("out.txt") + " 2>" +
                    m_dir.file("err.txt"));
  }
  std::string Out() const { return ReadWholeFile(m_dir.file("out.txt")); }
  std::string Err() const { return ReadWholeFile(m_dir.file("err.txt")); }
  TempDir m_dir;
};

TEST_F(WriteCommandTest, PresetFileIsTrimmedAndVerified) {
  ASSERT_EQ(Run(m_dir.file("w.bin") + " --preset 10M --size 3M --slice 5000 --block 64K --retry 1"), 0) << Err();
  EXPECT_EQ(std::filesystem::file_size(m_dir.file("w.bin")), 3u << 20);
  EXPECT_NE(Out().find("wrote 3145728 bytes"), std::string::npos) << Out();
  EXPECT_NE(Out().find("verified: 3145728 bytes read back identical"), std::string::npos) << Out();
  EXPECT_NE(Err().find("100%"), std::string::npos);
}

// Through the cache, and into the virtual storage (read back through the
// accessor, the only way to reach it).
TEST_F(WriteCommandTest, CachedOrVirtualWriteIsVerified) {
  ASSERT_EQ(Run(m_dir.file("c.bin") + " --cache --cache-size 4M --size 3M --slice 5000 --block 64K"), 0) << Err();
  EXPECT_NE(Out().find("verified: 3145728 bytes read back identical"), std::string::npos) << Out();
  EXPECT_NE(Out().find("(waiting for the cache to drain)"), std::string::npos) << Out();
  ASSERT_EQ(Run("\"qvf:\\w.bin\" --size 1M", "TMPDIR=" + m_dir.path()), 0) << Err();
  EXPECT_NE(Out().find("verified: 1048576 bytes read back identical"), std::string::npos) << Out();
}

// Bad input is refused with one line; a failure says what happened in words
// and is never followed by a success line. A full disk (a file size limit
// here) and missing memory (an address-space limit, which sanitizers cannot
// run under) are named; a file whose cache could not be set up is removed.
TEST_F(WriteCommandTest, BadInputOrAFailureEndsWithOneLineInWords) {
  struct Case {
    std::string args;
    const char* message;
    std::string prefix = "";
  };
  const std::string full = "ulimit -f 2048; trap \"\" XFSZ; ";  // 2 MiB per file
  const std::string memory = "ulimit -v 200000; ";              // about 200 MB
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const bool bMemoryLimits = false;
#else
  const bool bMemoryLimits = true;
#endif
  std::vector<Case> cases = {
      {m_dir.file("a.bin") + " --size 12X", "bad size"},
      {m_dir.file("a.bin") + " --size 1M --block 0", "bad block"},
      {m_dir.file("a.bin") + " --size 1M --cache --cache-size 10K", "bad cache size"},
      {m_dir.file("a.bin") + " --size 1M --cache --cache-size 2G", "bad cache size '2G'"},
      {m_dir.file("a.bin") + " --size 1M --preset \"\"", "bad preset ''"},
      {m_dir.file("a.bin") + " --size 1M --retry \"\"", "bad retry count ''"},
      {m_dir.file("none/a.bin") + " --size 1M", "cannot create"},
      {"/dev/null --size 1M", "'/dev/null': it is a device"},
      {m_dir.file("a.bin") + " --size 8M", "the disk is full (error 112)", full},
  };
  if (bMemoryLimits) {
    cases.push_back({m_dir.file("a.bin") + " --size 1M --slice 256M", "not enough memory", memory});
    cases.push_back({m_dir.file("a.bin") + " --size 1M --cache --cache-size 1G", "not enough memory", memory});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_NE(Run(c.args, c.prefix), 0);
    std::string err = Err();
    const size_t nLine = err.rfind('\n', err.size() - 2);  // after a progress line, if any
    const std::string last = err.substr(nLine == std::string::npos ? 0 : nLine + 1);
    EXPECT_EQ(last.rfind("qltfs write: ", 0), 0u) << err;
    EXPECT_NE(last.find(c.message), std::string::npos) << err;
    EXPECT_EQ(Out(), "");
    if (c.prefix == memory) {
      EXPECT_FALSE(FileExists(m_dir.file("a.bin")));
    }
    std::filesystem::remove(m_dir.file("a.bin"));
  }
}

}  // namespace
