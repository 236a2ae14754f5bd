// `qltfs read` and `qltfs exists` run as a person runs them.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/tool/tool_process.h"

namespace {

class ReadCommandTest : public ::testing::Test {
 protected:
  // Runs `qltfs <args>` (the command first) with the tool's temporary
  // folder, and so the virtual storage on Linux, in the test's folder.
  int Run(std::vector<std::string> args, long long nFileSizeLimit = 0,
          std::vector<std::pair<std::string, std::string>> env = {}) const {
    ToolRun run;
    run.args = std::move(args);
    run.env = TempFolderEnv(m_dir.path());
    run.env.insert(run.env.end(), env.begin(), env.end());
    run.outPath = m_dir.file("out.txt");
    run.errPath = m_dir.file("err.txt");
    run.nFileSizeLimit = nFileSizeLimit;
    run.nTimeoutSeconds = 20;
    return RunTool(run);
  }
  std::string Out() const { return ReadToolOutput(m_dir.file("out.txt")); }
  std::string Err() const { return ReadToolOutput(m_dir.file("err.txt")); }
  TempDir m_dir;
  VirtualFolder m_storage;
};

TEST_F(ReadCommandTest, ReadsAndCopiesByteForByteInEveryMode) {
  std::string data(3 * 1048576 + 777, '\0');
  unsigned x = 99;
  for (char& c : data) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 16);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("src.dat"), data));
  const std::string src = m_dir.file("src.dat"), dst = m_dir.file("dst.dat");
  for (std::vector<std::string> options : std::vector<std::vector<std::string>>{
           {}, {"--async"}, {"--async", "64k", "--block", "4k"}, {"--block", "1000"}}) {
    SCOPED_TRACE(testing::PrintToString(options));
    options.insert(options.begin(), {"read", src, "--to", dst});
    ASSERT_EQ(Run(options), 0) << Err();
    EXPECT_TRUE(ReadWholeFile(dst) == data);
    EXPECT_NE(Out().find("read 3146505 bytes"), std::string::npos);
  }
  // Into the virtual storage and back, read ahead on the storage's own back-end.
  const std::string qvf = m_storage.Path("rt.dat");
  ASSERT_EQ(Run({"read", src, "--to", qvf}), 0) << Err();
  ASSERT_EQ(Run({"read", qvf, "--async", "--to", m_dir.file("back.dat")}), 0) << Err();
  EXPECT_TRUE(ReadWholeFile(m_dir.file("back.dat")) == data);
  EXPECT_EQ(Run({"read", src, "--to", NullDevice()}), 0) << Err();
  EXPECT_NE(Out().find("read 3146505 bytes in"), std::string::npos);
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
  fs::create_directory(NativePathOf(m_dir.file("dir")));
  struct Case {
    std::vector<std::string> args;
    std::string message;
    long long nFileSizeLimit = 0;
  };
  const std::string same = m_storage.Path("same.dat");
  std::vector<Case> cases = {
      {{src, "--to", src}, "they are the same file"},
      {{src, "--to", m_dir.path() + "/./src.dat"}, "they are the same file"},
      {{same, "--to", same}, "they are the same file"},
      {{m_dir.file("dir")}, "it is a directory, not a regular file"},
  };
  // Links where the system makes them; FIFOs and a full disk on Linux.
  std::error_code ec;
  fs::create_symlink(NativePathOf(src), NativePathOf(m_dir.file("link.dat")), ec);
  EXPECT_TRUE(!ec || !kLinux) << ec.message();
  if (!ec) cases.push_back({{src, "--to", m_dir.file("link.dat")}, "they are the same file"});
  fs::create_hard_link(NativePathOf(src), NativePathOf(m_dir.file("hard.dat")), ec);
  EXPECT_TRUE(!ec || !kLinux) << ec.message();
  if (!ec) cases.push_back({{src, "--to", m_dir.file("hard.dat"), "--async"}, "they are the same file"});
  if (kLinux) {
    ASSERT_TRUE(MakeFifo(m_dir.file("fifo")));
    cases.push_back({{src, "--to", m_dir.file("fifo")}, "it is a FIFO; --to writes regular files only"});
    cases.push_back({{src, "--to", m_dir.file("full.dat")}, "the disk is full (error 112)", 1 << 20});
    cases.push_back({{src, "--to", m_storage.Path("full.dat")}, "the disk is full (error 112)", 1 << 20});
  }
  for (Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    c.args.insert(c.args.begin(), "read");
    EXPECT_EQ(Run(c.args, c.nFileSizeLimit), 1);
    EXPECT_NE(Err().find("qltfs read: "), std::string::npos) << Err();
    EXPECT_NE(Err().find(c.message), std::string::npos) << Err();
    EXPECT_EQ(Out(), "");
    EXPECT_TRUE(ReadWholeFile(src) == data);
  }
  // A ring the accessor cannot run with is refused before anything opens.
  EXPECT_EQ(Run({"read", src, "--async", "4k", "--to", m_dir.file("small.dat")}), 2);
  EXPECT_NE(Err().find("bad --async size '4k'"), std::string::npos) << Err();
  EXPECT_FALSE(FileExists(m_dir.file("small.dat")));
}

TEST_F(ReadCommandTest, ExistsAnswersWithItsExitStatusAndReadFailsClearly) {
  ASSERT_TRUE(WriteWholeFile(m_dir.file("there.dat"), "x"));
  EXPECT_EQ(Run({"exists", m_dir.file("there.dat")}), 0);
  EXPECT_EQ(Run({"exists", m_dir.file("absent.dat")}), 1);
  EXPECT_EQ(Run({"exists", "http://127.0.0.1/x.inx"}), 1);
  EXPECT_EQ(Run({"exists", m_dir.path()}), 1);
  EXPECT_NE(Err().find("is a directory, not a file"), std::string::npos);
  EXPECT_EQ(Run({"read", m_dir.file("absent.dat")}), 1);
  EXPECT_NE(Err().find("cannot open"), std::string::npos);
  EXPECT_EQ(Run({"read", m_dir.file("there.dat"), "--block", "0"}), 2);
}

// Every name the system allows is usable: the writer, the accessor and the
// copy reach the file of exactly that name, whatever the locale, and make no
// look-alike beside it. On Linux that is any byte string; Windows names are
// Unicode text, so a lone Latin-1 byte is no name there.
TEST_F(ReadCommandTest, NamesAreKeptByteForByteByEveryCommand) {
  const std::string names[] = {
      "\xC3\xBC.bin",  // ü.bin
      "\xC3\x9Cn\xC3\xAF"
      "c\xC3\xB8"
      "d\xC3\xA9-\xE6\x96\x87\xE4\xBB\xB6.bin",  // Ünïcødé-文件.bin
      "\xE9.bin",                                // Latin-1 é alone
  };
  for (const char* locale : {"C", "C.UTF-8"}) {
    for (const std::string& name : names) {
      if (!kLinux && name == names[2]) continue;
      SCOPED_TRACE(testing::PrintToString(name) + " in " + locale);
      TempDir dir;
      const std::vector<std::pair<std::string, std::string>> env = {{"LC_ALL", locale}};
      const std::string w = dir.file("w-" + name), r = dir.file("r-" + name), c = dir.file("c-" + name);
      ASSERT_EQ(Run({"write", w, "--size", "100K", "--block", "64K"}, 0, env), 0) << Err();
      EXPECT_EQ(Run({"exists", w}, 0, env), 0);
      ASSERT_EQ(Run({"read", w, "--to", r}, 0, env), 0) << Err();
      ASSERT_EQ(Run({"copy", r, c}, 0, env), 0) << Err();
      const std::string data = ReadWholeFile(w);
      EXPECT_EQ(data.size(), 100u * 1024);
      EXPECT_TRUE(ReadWholeFile(r) == data);
      EXPECT_TRUE(ReadWholeFile(c) == data);
      std::set<std::string> listed;
      for (const auto& e : std::filesystem::directory_iterator(NativePathOf(dir.path())))
        listed.insert(e.path().filename().u8string());
      EXPECT_EQ(listed, (std::set<std::string>{"w-" + name, "r-" + name, "c-" + name}));
    }
  }
}

}  // namespace
