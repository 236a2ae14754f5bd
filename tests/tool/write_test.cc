// `qltfs write` run as a person runs it: the built binary on a real file.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/tool/tool_process.h"

namespace {

class WriteCommandTest : public ::testing::Test {
 protected:
  // Runs `qltfs write <args>` with its temporary folder in the test's
  // folder; limits as given (Linux only).
  int Run(std::vector<std::string> args, long long nFileSizeLimit = 0, long long nMemoryLimit = 0) const {
    ToolRun run;
    run.args = {"write"};
    run.args.insert(run.args.end(), args.begin(), args.end());
    run.env = TempFolderEnv(m_dir.path());
    run.outPath = m_dir.file("out.txt");
    run.errPath = m_dir.file("err.txt");
    run.nFileSizeLimit = nFileSizeLimit;
    run.nMemoryLimit = nMemoryLimit;
    return RunTool(run);
  }
  std::string Out() const { return ReadToolOutput(m_dir.file("out.txt")); }
  std::string Err() const { return ReadToolOutput(m_dir.file("err.txt")); }
  TempDir m_dir;
};

TEST_F(WriteCommandTest, PresetFileIsTrimmedAndVerified) {
  ASSERT_EQ(Run({m_dir.file("w.bin"), "--preset", "10M", "--size", "3M", "--slice", "5000", "--block", "64K", "--retry",
                 "1"}),
            0)
      << Err();
  EXPECT_EQ(std::filesystem::file_size(NativePathOf(m_dir.file("w.bin"))), 3u << 20);
  EXPECT_NE(Out().find("wrote 3145728 bytes"), std::string::npos) << Out();
  EXPECT_NE(Out().find("verified: 3145728 bytes read back identical"), std::string::npos) << Out();
  EXPECT_NE(Err().find("100%"), std::string::npos);
}

// Through the cache, and into the virtual storage (read back through the
// accessor, the only way to reach it).
TEST_F(WriteCommandTest, CachedOrVirtualWriteIsVerified) {
  ASSERT_EQ(
      Run({m_dir.file("c.bin"), "--cache", "--cache-size", "4M", "--size", "3M", "--slice", "5000", "--block", "64K"}),
      0)
      << Err();
  EXPECT_NE(Out().find("verified: 3145728 bytes read back identical"), std::string::npos) << Out();
  EXPECT_NE(Out().find("(waiting for the cache to drain)"), std::string::npos) << Out();
  VirtualFolder storage;
  ASSERT_EQ(Run({storage.Path("w.bin"), "--size", "1M"}), 0) << Err();
  EXPECT_NE(Out().find("verified: 1048576 bytes read back identical"), std::string::npos) << Out();
}

// Bad input is refused with one line; a failure says what happened in words
// and is never followed by a success line. A full disk (a file size limit
// here) and missing memory (an address-space limit, which sanitizers cannot
// run under) are named; a file whose cache could not be set up is removed.
TEST_F(WriteCommandTest, BadInputOrAFailureEndsWithOneLineInWords) {
  struct Case {
    std::vector<std::string> args;
    const char* message;
    long long nFileSizeLimit = 0, nMemoryLimit = 0;
  };
  const std::string a = m_dir.file("a.bin");
  std::vector<Case> cases = {
      {{a, "--size", "12X"}, "bad size"},
      {{a, "--size", "1M", "--block", "0"}, "bad block"},
      {{a, "--size", "1M", "--cache", "--cache-size", "10K"}, "bad cache size"},
      {{a, "--size", "1M", "--cache", "--cache-size", "2G"}, "bad cache size '2G'"},
      {{a, "--size", "1M", "--preset", ""}, "bad preset ''"},
      {{a, "--size", "1M", "--retry", ""}, "bad retry count ''"},
      {{m_dir.file("none/a.bin"), "--size", "1M"}, "cannot create"},
      {{NullDevice(), "--size", "1M"}, "it is a device"},
  };
  // A full disk (a file size limit) and missing memory (an address-space
  // limit, which sanitizers cannot run under) on Linux.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const bool bMemoryLimits = false;
#else
  const bool bMemoryLimits = kLinux;
#endif
  if (kLinux) cases.push_back({{a, "--size", "8M"}, "the disk is full (error 112)", 2 << 20});
  if (bMemoryLimits) {
    cases.push_back({{a, "--size", "1M", "--slice", "256M"}, "not enough memory", 0, 200000 << 10});
    cases.push_back({{a, "--size", "1M", "--cache", "--cache-size", "1G"}, "not enough memory", 0, 200000 << 10});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    EXPECT_NE(Run(c.args, c.nFileSizeLimit, c.nMemoryLimit), 0);
    std::string err = Err();
    const size_t nLine = err.rfind('\n', err.size() - 2);  // after a progress line, if any
    const std::string last = err.substr(nLine == std::string::npos ? 0 : nLine + 1);
    EXPECT_EQ(last.rfind("qltfs write: ", 0), 0u) << err;
    EXPECT_NE(last.find(c.message), std::string::npos) << err;
    EXPECT_EQ(Out(), "");
    if (c.nMemoryLimit) {
      EXPECT_FALSE(FileExists(a));
    }
    std::filesystem::remove(NativePathOf(a));
  }
}

}  // namespace
