// `qltfs write` run as a person runs it: the built binary on a real file.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

namespace {

int RunShell(const std::string& strCommand) {
  int nStatus = std::system(("/bin/bash -c '" + strCommand + "'").c_str());
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

class WriteCommandTest : public ::testing::Test {
 protected:
  int Run(const std::string& strArgs) const {
    return RunShell(std::string(QLTFS_TOOL_PATH) + " write " + strArgs + " >" + m_dir.file("out.txt") + " 2>" +
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

TEST_F(WriteCommandTest, CachedWriteReportsTheHostAndDrainTimes) {
  ASSERT_EQ(Run(m_dir.file("c.bin") + " --cache --cache-size 4M --size 3M --slice 5000 --block 64K"), 0) << Err();
  EXPECT_NE(Out().find("verified: 3145728 bytes read back identical"), std::string::npos) << Out();
  EXPECT_NE(Out().find("(waiting for the cache to drain)"), std::string::npos) << Out();
}

TEST_F(WriteCommandTest, BadInputFailsWithOneLine) {
  struct Case {
    std::string args;
    const char* message;
  };
  const Case cases[] = {
      {m_dir.file("a.bin") + " --size 12X", "bad size"},
      {m_dir.file("a.bin") + " --size 1M --block 0", "bad block"},
      {m_dir.file("a.bin") + " --size 1M --cache --cache-size 10K", "bad cache size"},
      {m_dir.file("none/a.bin") + " --size 1M", "cannot create"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_NE(Run(c.args), 0);
    std::string err = Err();
    EXPECT_EQ(err.rfind("qltfs write: ", 0), 0u) << err;
    EXPECT_NE(err.find(c.message), std::string::npos) << err;
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;  // one line
  }
}

}  // namespace
