// The named log: whole lines, from several threads, across rotations.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "companions/logbook/logbook_api.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

// The lines of a log file without their time stamp and thread id, which end
// with the first "] ".
std::vector<std::string> Bodies(const std::string& path) {
  std::vector<std::string> lines;
  std::istringstream in(ReadWholeFile(path));
  for (std::string line; std::getline(in, line);) {
    size_t end = line.find("] ");
    lines.push_back(end == std::string::npos ? "<no stamp>" + line : line.substr(end + 2));
  }
  return lines;
}

class CompanionLogBook : public ::testing::Test {
 protected:
  void SetUp() override { setenv("QLTFS_LOG_ROOT", m_dir.path().c_str(), 1); }
  void TearDown() override {
    unsetenv("QLTFS_LOG_ROOT");
    QLT_LogBookU::SetRotation(10 * 1024 * 1024, 5);
  }
  TempDir m_dir;
};

TEST_F(CompanionLogBook, ChainsOfBothFormsReadAsOneLineEach) {
  {
    QLT_LogBookU log;
    ASSERT_EQ(log.ConfigName(CComBSTR(L"SDKWriteIO")), 1);
    log - CComBSTR(L"this:") - 3054ul - CComBSTR(L"<BufferWriteFile> Offset = ") - static_cast<__int64>(1048576) -
        CComBSTR(L"Length = ") - 524288ul - CComBSTR(L"CostTime(ms):") - 150.25 - endl;
    EXPECT_EQ(log.FilePath(), m_dir.file("SDKWriteIO/SDKWriteIO.log"));
    EXPECT_EQ(Bodies(log.FilePath()),  // flushed without asking
              std::vector<std::string>{
                  "this: 3054 <BufferWriteFile> Offset = 1048576 Length = 524288 CostTime(ms): 150.250"});
  }
  {
    QLT_LogBookU log;  // no name: the default one
    log << CComBSTR(L"KxFileEx CreateFile error! lastError: ") << static_cast<DWORD>(5) << CComBSTR(L"fileName: ")
        << CComBSTR(L"C:\\data\\a {0}.dat") << endl;
    log << CComBSTR(L"two\nlines") << endl;  // a line break inside an item stays inside the line
  }
  EXPECT_EQ(
      Bodies(m_dir.file("QltLogBook/QltLogBook.log")),
      (std::vector<std::string>{"KxFileEx CreateFile error! lastError: 5 fileName: C:\\data\\a {0}.dat", "two lines"}));
}

TEST_F(CompanionLogBook, NothingIsTouchedBeforeTheFirstLine) {
  {
    QLT_LogBookU log;
    ASSERT_EQ(log.ConfigName(CComBSTR(L"Quiet")), 1);
    log - CComBSTR(L"unfinished");  // never ended
  }
  EXPECT_TRUE(fs::is_empty(m_dir.path()));
  // An unfinished chain of a destroyed log does not leak into a later one.
  QLT_LogBookU log;
  ASSERT_EQ(log.ConfigName(CComBSTR(L"Quiet")), 1);
  log - CComBSTR(L"fresh") - endl;
  EXPECT_EQ(Bodies(log.FilePath()), std::vector<std::string>{"fresh"});
}

TEST_F(CompanionLogBook, BadNamesAndAnUnusableRootFailQuietly) {
  QLT_LogBookU log;
  for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L"", L"..", L"a/b", L"a\\b"})
    EXPECT_EQ(log.ConfigName(CComBSTR(name)), 0);
  EXPECT_EQ(log.FilePath(), m_dir.file("QltLogBook/QltLogBook.log"));
  // The root is a plain file, so no log folder can be made under it.
  ASSERT_TRUE(WriteWholeFile(m_dir.file("not-a-dir"), "x"));
  setenv("QLTFS_LOG_ROOT", m_dir.file("not-a-dir").c_str(), 1);
  log - CComBSTR(L"dropped") - endl;
  log.Flush();
  EXPECT_EQ(ReadWholeFile(m_dir.file("not-a-dir")), "x");
}

TEST_F(CompanionLogBook, DefaultsToSdkLogBesideTheLibrary) {
  unsetenv("QLTFS_LOG_ROOT");
  const std::string strName = "CompanionTest-" + std::to_string(getpid());
  QLT_LogBookU log;
  ASSERT_EQ(log.ConfigName(CComBSTR(std::wstring(strName.begin(), strName.end()).c_str())), 1);
  log - CComBSTR(L"beside") - endl;
  fs::path file = log.FilePath();  // <library dir>/sdk-log/<name>/<name>.log
  EXPECT_EQ(file, fs::path(file).parent_path().parent_path().parent_path() / "sdk-log" / strName / (strName + ".log"));
  EXPECT_TRUE(fs::exists(file.parent_path().parent_path().parent_path() / "libQltLogBookU.so"));
  EXPECT_EQ(Bodies(file.string()), std::vector<std::string>{"beside"});
  std::error_code ec;
  fs::remove_all(file.parent_path(), ec);
  fs::remove(file.parent_path().parent_path(), ec);  // only when no other log is there
}

// Four threads write their lines item by item through two objects of one
// name, with rotation to small files: every line must come out whole, once,
// and no file may pass the limit.
TEST_F(CompanionLogBook, LinesFromSeveralThreadsStayWholeAcrossRotations) {
  constexpr int kThreads = 4, kLines = 400;
  ASSERT_EQ(QLT_LogBookU::SetRotation(0, 5), 0);
  ASSERT_EQ(QLT_LogBookU::SetRotation(16 * 1024, 1000), 1);
  QLT_LogBookU first, second;
  ASSERT_EQ(first.ConfigName(CComBSTR(L"Shared")), 1);
  ASSERT_EQ(second.ConfigName(CComBSTR(L"Shared")), 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      QLT_LogBookU& log = t % 2 ? second : first;
      CComBSTR strPayload(std::wstring(40, static_cast<wchar_t>(L'A' + t)).c_str());
      for (int i = 0; i < kLines; ++i)
        log - CComBSTR(L"T") - static_cast<unsigned long>(t) - CComBSTR(L"line") - static_cast<__int64>(i) -
            strPayload - endl;
    });
  }
  for (auto& thread : threads) thread.join();
  std::map<std::string, int> seen;  // every line once, whole, and no file past the limit
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kLines; ++i)
      seen["T " + std::to_string(t) + " line " + std::to_string(i) + " " + std::string(40, 'A' + t)];
  int nFiles = 0;
  for (const auto& entry : fs::directory_iterator(m_dir.file("Shared"))) {
    ++nFiles;
    EXPECT_LE(fs::file_size(entry.path()), 16u * 1024) << entry.path();
    for (const std::string& line : Bodies(entry.path().string())) ++seen[line];
  }
  EXPECT_GT(nFiles, 4);  // about 150 KB of lines in 16 KiB files
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
  for (const auto& [line, count] : seen) ASSERT_EQ(count, 1) << line;
}

}  // namespace
