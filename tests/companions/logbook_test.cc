// The named log: whole lines, from several threads, across rotations, and
// dropped (never thrown) when memory runs out.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "companions/logbook/logbook_api.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

// The lines of a log file without their time stamp and thread id, which end
// with the first "] ".
Lines Bodies(const std::string& path) {
  Lines lines;
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

TEST_F(CompanionLogBook, ChainsOfBothFormsReadAsOneLineEachAndNothingComesEarly) {
  {
    QLT_LogBookU log;
    ASSERT_EQ(log.ConfigName(CComBSTR(L"SDKWriteIO")), 1);
    log - CComBSTR(L"unfinished");  // never ended: nothing is touched
  }
  EXPECT_TRUE(fs::is_empty(m_dir.path()));
  QLT_LogBookU log, named;
  for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L"", L"..", L"a/b", L"a\\b"})
    EXPECT_EQ(log.ConfigName(CComBSTR(name)), 0);
  log << CComBSTR(L"KxFileEx CreateFile error! lastError: ") << static_cast<DWORD>(5) << CComBSTR(L"fileName: ")
      << CComBSTR(L"C:\\data\\a {0}.dat") << endl;
  log << CComBSTR(L"two\nlines") << endl;  // a line break inside an item stays inside the line
  EXPECT_EQ(Bodies(m_dir.file("QltLogBook/QltLogBook.log")),
            (Lines{"KxFileEx CreateFile error! lastError: 5 fileName: C:\\data\\a {0}.dat",
                   "two lines"}));  // flushed without asking
  // The unfinished chain of the destroyed log does not leak into this one.
  ASSERT_EQ(named.ConfigName(CComBSTR(L"SDKWriteIO")), 1);
  named - CComBSTR(L"this:") - 3054ul - CComBSTR(L"<BufferWriteFile> Offset = ") - static_cast<__int64>(1048576) -
      CComBSTR(L"Length = ") - 524288ul - CComBSTR(L"CostTime(ms):") - 150.25 - endl;
  EXPECT_EQ(Bodies(m_dir.file("SDKWriteIO/SDKWriteIO.log")),
            Lines{"this: 3054 <BufferWriteFile> Offset = 1048576 Length = 524288 CostTime(ms): 150.250"});
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
      CComBSTR strPayload(std::wstring(40, static_cast<wchar_t>(L'A' + t)).c_str());
      for (int i = 0; i < kLines; ++i)
        (t % 2 ? second : first) - CComBSTR(L"T") - static_cast<unsigned long>(t) - CComBSTR(L"line") -
            static_cast<__int64>(i) - strPayload - endl;
    });
  }
  for (auto& thread : threads) thread.join();
  std::map<std::string, int> seen;
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

// Logging reports no failure: a line that cannot be made for lack of memory
// is dropped, and the next one is written whole.
TEST_F(CompanionLogBook, DropsWhatItCannotMakeWhenMemoryRunsOutAndGoesOn) {
  auto line = [](int n) {
    QLT_LogBookU log;
    log.ConfigName(CComBSTR(L"contain"));
    log << CComBSTR(L"line") << n << 2.5 << endl;
  };
  EXPECT_GT(ForEachAllocationFailure(line, [](int, bool) {}), 1);
  QLT_LogBookU log;
  ASSERT_EQ(log.ConfigName(CComBSTR(L"contain")), 1);
  log << CComBSTR(L"after") << endl;
  EXPECT_NE(ReadWholeFile(log.FilePath()).find("after\n"), std::string::npos);
}

}  // namespace
