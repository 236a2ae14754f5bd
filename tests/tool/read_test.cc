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
  // The virtual storage of the tool's runs lies under this test's folder.
  std::string Env() const { return "TMPDIR=" + m_dir.path() + " "; }
  std::string Err() const { return ReadWholeFile(m_dir.file("err.txt")); }
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
  // Into the virtual storage and back, read ahead on the storage's own back-end.
  const std::string qvf = "\"qvf:\\rt.dat\"";
  ASSERT_EQ(RunShell(Env() + Qltfs("read") + m_dir.file("src.dat") + " --to " + qvf + Redirect()), 0) << Err();
  ASSERT_EQ(RunShell(Env() + Qltfs("read") + qvf + " --async --to " + m_dir.file("back.dat") + Redirect()), 0) << Err();
  EXPECT_TRUE(ReadWholeFile(m_dir.file("back.dat")) == data);
  EXPECT_EQ(RunShell(Qltfs("read") + m_dir.file("src.dat") + " --to /dev/null" + Redirect()), 0) << Err();
  EXPECT_NE(ReadWholeFile(m_dir.file("out.txt")).find("read 3146505 bytes in"), std::string::npos);
}

// Opening the destination would empty the source: every spelling of it is
// refused. What read cannot use is refused before any open, a destination
// that fills up (a local file or the virtual storage) fails in words, and no
// success line follows a failure.
TEST_F(ReadCommandTest, ToRefusesTheSourceAndWhatItCannotWriteAndNamesAFullDisk) {
  namespace fs = std::filesystem;
  const std::string data(3 << 20, 'r');
  const std::string src = m_dir.file("src.dat");
  ASSERT_TRUE(WriteWholeFile(src, data));
  fs::create_symlink(src, m_dir.file("link.dat"));
  fs::create_hard_link(src, m_dir.file("hard.dat"));
  fs::create_directory(m_dir.file("dir"));
  ASSERT_EQ(RunShell("mkfifo " + m_dir.file("fifo")), 0);
  const std::string full = "ulimit -f 1024; trap \"\" XFSZ; ";  // 1 MiB per file
  const struct {
    std::string args, message, limit = "";
  } cases[] = {
      {src + " --to " + src, "they are the same file"},
      {src + " --to " + m_dir.path() + "/./src.dat", "they are the same file"},
      {src + " --to " + m_dir.file("link.dat"), "they are the same file"},
      {src + " --to " + m_dir.file("hard.dat") + " --async", "they are the same file"},
      {"\"qvf:\\same.dat\" --to \"qvf:\\same.dat\"", "they are the same file"},
      {src + " --to " + m_dir.file("fifo"), "it is a FIFO; --to writes regular files only"},
      {m_dir.file("dir"), "it is a directory, not a regular file"},
      {src + " --to " + m_dir.file("full.dat"), "the disk is full (error 112)", full},
      {src + " --to \"qvf:\\full.dat\"", "the disk is full (error 112)", full},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_EQ(RunShell(c.limit + Env() + "timeout -s KILL 20 " + Qltfs("read") + c.args + Redirect()), 1);
    EXPECT_NE(Err().find("qltfs read: "), std::string::npos) << Err();
    EXPECT_NE(Err().find(c.message), std::string::npos) << Err();
    EXPECT_EQ(ReadWholeFile(m_dir.file("out.txt")), "");
    EXPECT_TRUE(ReadWholeFile(src) == data);
  }
  // A ring the accessor cannot run with is refused before anything opens.
  EXPECT_EQ(RunShell(Env() + Qltfs("read") + src + " --async 4k --to " + m_dir.file("small.dat") + Redirect()), 2);
  EXPECT_NE(Err().find("bad --async size '4k'"), std::string::npos) << Err();
  EXPECT_FALSE(fs::exists(m_dir.file("small.dat")));
}

TEST_F(ReadCommandTest, ExistsAnswersWithItsExitStatusAndReadFailsClearly) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("there.dat"), "x"));
  EXPECT_EQ(RunShell(Qltfs("exists") + m_dir.file("there.dat") + Redirect()), 0);
  EXPECT_EQ(RunShell(Qltfs("exists") + m_dir.file("absent.dat") + Redirect()), 1);
  EXPECT_EQ(RunShell(Qltfs("exists") + "http://127.0.0.1/x.inx" + Redirect()), 1);
  EXPECT_EQ(RunShell(Qltfs("exists") + m_dir.path() + Redirect()), 1);
  EXPECT_NE(ReadWholeFile(m_dir.file("err.txt")).find("is a directory, not a file"), std::string::npos);
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
