// `qltfs read` and `qltfs exists` run as a person runs them.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "tests/support/temp_dir.h"

namespace {

int RunShell(const std::string& command) {
  int status = std::system(("/bin/bash -c '" + command + "'").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ReadCommandTest : public ::testing::Test {
 protected:
  std::string Qltfs(const char* command) const { return std::string(QLTFS_TOOL_PATH) + " " + command + " "; }
  std::string Redirect() const { return " >" + m_dir.file("out.txt") + " 2>" + m_dir.file("err.txt"); }
  TempDir m_dir;
};

TEST_F(ReadCommandTest, ReadsAndCopiesByteForByteInEveryMode) {
  std::string data(3 * 1048576 + 777, '\0');
  unsigned x = 99;
  for (char& c : data) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 16);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  for (const char* options : {"", "--async", "--async 64k --block 4k", "--block 1000"}) {
    SCOPED_TRACE(options);
    std::string dst = m_dir.file("dst.dat");
    ASSERT_EQ(RunShell(Qltfs("read") + m_dir.file("src.dat") + " --to " + dst + " " + options + Redirect()), 0)
        << ReadWholeFile(m_dir.file("err.txt"));
    EXPECT_TRUE(ReadWholeFile(dst) == data);
    EXPECT_NE(ReadWholeFile(m_dir.file("out.txt")).find("read 3146505 bytes"), std::string::npos);
  }
}

TEST_F(ReadCommandTest, ExistsAnswersWithItsExitStatusAndReadFailsClearly) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("there.dat"), "x"));
  EXPECT_EQ(RunShell(Qltfs("exists") + m_dir.file("there.dat") + Redirect()), 0);
  EXPECT_EQ(RunShell(Qltfs("exists") + m_dir.file("absent.dat") + Redirect()), 1);
  EXPECT_EQ(RunShell(Qltfs("exists") + "http://127.0.0.1/x.inx" + Redirect()), 1);
  EXPECT_EQ(RunShell(Qltfs("read") + m_dir.file("absent.dat") + Redirect()), 1);
  EXPECT_NE(ReadWholeFile(m_dir.file("err.txt")).find("cannot open"), std::string::npos);
  EXPECT_EQ(RunShell(Qltfs("read") + m_dir.file("there.dat") + " --block 0" + Redirect()), 2);
}

// Every byte string is a usable name: the writer, the accessor and the copy
// reach the file of exactly that name, whatever the locale, and make no
// look-alike beside it.
TEST_F(ReadCommandTest, NamesAreKeptByteForByteByEveryCommand) {
  const std::string names[] = {
      "\xC3\xBC.bin",                                                              // ü.bin
      "\xC3\x9Cn\xC3\xAF" "c\xC3\xB8" "d\xC3\xA9-\xE6\x96\x87\xE4\xBB\xB6.bin",  // Ünïcødé-文件.bin
      "\xE9.bin",                                                                   // Latin-1 é alone
  };
  for (const char* locale : {"C", "C.UTF-8"}) {
    for (const std::string& name : names) {
      SCOPED_TRACE(testing::PrintToString(name) + " in " + locale);
      TempDir dir;
      const std::string env = std::string("LC_ALL=") + locale + " ";
      const std::string w = dir.file("w-" + name), r = dir.file("r-" + name), c = dir.file("c-" + name);
      ASSERT_EQ(RunShell(env + Qltfs("write") + w + " --size 100K --block 64K" + Redirect()), 0)
          << ReadWholeFile(m_dir.file("err.txt"));
      EXPECT_EQ(RunShell(env + Qltfs("exists") + w + Redirect()), 0);
      ASSERT_EQ(RunShell(env + Qltfs("read") + w + " --to " + r + Redirect()), 0)
          << ReadWholeFile(m_dir.file("err.txt"));
      ASSERT_EQ(RunShell(env + Qltfs("copy") + r + " " + c + Redirect()), 0) << ReadWholeFile(m_dir.file("err.txt"));
      const std::string data = ReadWholeFile(w);
      EXPECT_EQ(data.size(), 100u * 1024);
      EXPECT_TRUE(ReadWholeFile(r) == data);
      EXPECT_TRUE(ReadWholeFile(c) == data);
      std::set<std::string> listed;
      for (const auto& e : std::filesystem::directory_iterator(dir.path())) listed.insert(e.path().filename().string());
      EXPECT_EQ(listed, (std::set<std::string>{"w-" + name, "r-" + name, "c-" + name}));
    }
  }
}

}  // namespace
