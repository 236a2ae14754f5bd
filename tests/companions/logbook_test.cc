// The named log: whole lines, from several threads, across rotations.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/logbook_api.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

// The line after its time stamp and thread id ("2024-05-01 12:00:00.123
// [4711] "), or "<no stamp>" when the line does not start with them.
std::string Body(const std::string& line) {
  const std::string shape = "0000-00-00 00:00:00.000 [";
  if (line.size() < shape.size()) return "<no stamp>";
  for (size_t i = 0; i < shape.size(); ++i) {
    bool bOk = shape[i] == '0' ? (line[i] >= '0' && line[i] <= '9') : line[i] == shape[i];
    if (!bOk) return "<no stamp>";
  }
  size_t i = shape.size();
  while (i < line.size() && line[i] >= '0' && line[i] <= '9') ++i;
  if (i == shape.size() || line.compare(i, 2, "] ") != 0) return "<no stamp>";
  return line.substr(i + 2);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class CompanionLogBook : public ::testing::Test {
 protected:
  void SetUp() override { setenv("QLTFS_LOG_ROOT", m_dir.path().c_str(), 1); }
  void TearDown() override {
    unsetenv("QLTFS_LOG_ROOT");
    QLT_LogBookU::SetRotation(10 * 1024 * 1024, 5);
  }

  // Every line of every file of the log called strName, rotated ones too.
  std::vector<std::string> AllLines(const std::string& strName, int* pFiles = nullptr) {
    std::vector<std::string> all;
    int nFiles = 0;
    for (const auto& entry : fs::directory_iterator(m_dir.file(strName))) {
      ++nFiles;
      for (auto& line : Lines(ReadWholeFile(entry.path().string()))) all.push_back(line);
    }
    if (pFiles) *pFiles = nFiles;
    return all;
  }

  TempDir m_dir;
};

TEST_F(CompanionLogBook, TimingChainReadsAsOneNaturalLine) {
  QLT_LogBookU log;
  ASSERT_EQ(log.ConfigName(CComBSTR(L"SDKWriteIO")), 1);
  log - CComBSTR(L"this:") - 3054ul - CComBSTR(L"<BufferWriteFile> Offset = ") - static_cast<__int64>(1048576) -
      CComBSTR(L"Length = ") - 524288ul - CComBSTR(L"CostTime(ms):") - 150.25 - endl;
  EXPECT_EQ(log.FilePath(), m_dir.file("SDKWriteIO/SDKWriteIO.log"));
  auto lines = Lines(ReadWholeFile(log.FilePath()));  // flushed without asking
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(Body(lines[0]), "this: 3054 <BufferWriteFile> Offset = 1048576 Length = 524288 CostTime(ms): 150.250");
}

TEST_F(CompanionLogBook, InsertionFormWritesToTheDefaultName) {
  {
    QLT_LogBookU log;
    log << CComBSTR(L"KxFileEx CreateFile error! lastError: ") << 5ul << CComBSTR(L"fileName: ")
        << CComBSTR(L"C:\\data\\a {0}.dat") << endl;
    // Line breaks inside an item stay inside the line; DWORD and int values need no cast.
    log << CComBSTR(L"two\nlines") << static_cast<DWORD>(7) << -3 << endl;
  }
  auto lines = Lines(ReadWholeFile(m_dir.file("QltLogBook/QltLogBook.log")));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(Body(lines[0]), "KxFileEx CreateFile error! lastError: 5 fileName: C:\\data\\a {0}.dat");
  EXPECT_EQ(Body(lines[1]), "two lines 7 -3");
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
  auto lines = Lines(ReadWholeFile(log.FilePath()));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(Body(lines[0]), "fresh");
}

TEST_F(CompanionLogBook, BadNamesAndAnUnusableRootFailQuietly) {
  QLT_LogBookU log;
  EXPECT_EQ(log.ConfigName(CComBSTR()), 0);
  EXPECT_EQ(log.ConfigName(CComBSTR(L"")), 0);
  EXPECT_EQ(log.ConfigName(CComBSTR(L"..")), 0);
  EXPECT_EQ(log.ConfigName(CComBSTR(L"a/b")), 0);
  EXPECT_EQ(log.ConfigName(CComBSTR(L"a\\b")), 0);
  EXPECT_EQ(log.FilePath(), m_dir.file("QltLogBook/QltLogBook.log"));

  // The root is a plain file, so no log folder can be made under it.
  ASSERT_TRUE(WriteWholeFile(m_dir.file("not-a-dir"), "x"));
  setenv("QLTFS_LOG_ROOT", m_dir.file("not-a-dir").c_str(), 1);
  QLT_LogBookU blocked;
  ASSERT_EQ(blocked.ConfigName(CComBSTR(L"Blocked")), 1);
  blocked - CComBSTR(L"dropped") - endl;
  blocked << CComBSTR(L"dropped too") << endl;
  blocked.Flush();
  EXPECT_EQ(ReadWholeFile(m_dir.file("not-a-dir")), "x");
}

TEST_F(CompanionLogBook, DefaultsToSdkLogBesideTheLibrary) {
  unsetenv("QLTFS_LOG_ROOT");
  const std::string strName = "CompanionTest-" + std::to_string(getpid());
  QLT_LogBookU log;
  ASSERT_EQ(log.ConfigName(CComBSTR(std::wstring(strName.begin(), strName.end()).c_str())), 1);
  log - CComBSTR(L"beside") - endl;
  fs::path file = log.FilePath();
  fs::path folder = file.parent_path();
  EXPECT_EQ(file.filename(), strName + ".log");
  EXPECT_EQ(folder.filename(), strName);
  EXPECT_EQ(folder.parent_path().filename(), "sdk-log");
  EXPECT_TRUE(fs::exists(folder.parent_path().parent_path() / "libQltLogBookU.so"));
  EXPECT_EQ(Lines(ReadWholeFile(file.string())).size(), 1u);
  std::error_code ec;
  fs::remove_all(folder, ec);
  fs::remove(folder.parent_path(), ec);  // only when no other log is there
}

// Each thread writes its lines item by item through one of two logs of the
// same name; every line must come out whole, exactly once.
void WriteLinesFromThreads(QLT_LogBookU* pLogs[2], int nThreads, int nLines) {
  std::vector<std::thread> threads;
  for (int t = 0; t < nThreads; ++t) {
    threads.emplace_back([=] {
      QLT_LogBookU& log = *pLogs[t % 2];
      CComBSTR strPayload(std::wstring(40, static_cast<wchar_t>(L'A' + t)).c_str());
      for (int i = 0; i < nLines; ++i) {
        log - CComBSTR(L"T") - static_cast<unsigned long>(t) - CComBSTR(L"line") - static_cast<__int64>(i) -
            strPayload - endl;
      }
    });
  }
  for (auto& th : threads) th.join();
}

void ExpectEveryLineOnceAndWhole(const std::vector<std::string>& lines, int nThreads, int nLines) {
  std::map<std::pair<int, int>, int> seen;
  int nBroken = 0;
  for (const auto& line : lines) {
    // "T <thread> line <n> <40 times the thread's letter>" and nothing else.
    std::istringstream in(Body(line));
    std::string strT, strLine, strPayload, strExtra;
    int t = -1, i = -1;
    in >> strT >> t >> strLine >> i >> strPayload;
    bool bWhole = strT == "T" && strLine == "line" && t >= 0 && i >= 0 &&
                  strPayload == std::string(40, static_cast<char>('A' + t)) && !(in >> strExtra);
    if (!bWhole) {
      if (++nBroken <= 3) ADD_FAILURE() << "broken line: " << line;
      continue;
    }
    ++seen[{t, i}];
  }
  EXPECT_EQ(nBroken, 0);
  EXPECT_EQ(seen.size(), static_cast<size_t>(nThreads * nLines));
  for (const auto& [key, count] : seen) EXPECT_EQ(count, 1) << "thread " << key.first << " line " << key.second;
}

TEST_F(CompanionLogBook, LinesFromSeveralThreadsStayWhole) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  QLT_LogBookU first, second;
  ASSERT_EQ(first.ConfigName(CComBSTR(L"Shared")), 1);
  ASSERT_EQ(second.ConfigName(CComBSTR(L"Shared")), 1);
  QLT_LogBookU* pLogs[2] = {&first, &second};
  WriteLinesFromThreads(pLogs, kThreads, kLines);
  int nFiles = 0;
  auto lines = AllLines("Shared", &nFiles);
  EXPECT_EQ(nFiles, 1);
  ExpectEveryLineOnceAndWhole(lines, kThreads, kLines);
}

TEST_F(CompanionLogBook, RotationLosesNoLine) {
  constexpr int kThreads = 4;
  constexpr int kLines = 400;
  ASSERT_EQ(QLT_LogBookU::SetRotation(0, 5), 0);
  ASSERT_EQ(QLT_LogBookU::SetRotation(16 * 1024, 1000), 1);
  QLT_LogBookU log;
  ASSERT_EQ(log.ConfigName(CComBSTR(L"Rotating")), 1);
  QLT_LogBookU* pLogs[2] = {&log, &log};
  WriteLinesFromThreads(pLogs, kThreads, kLines);
  int nFiles = 0;
  auto lines = AllLines("Rotating", &nFiles);
  EXPECT_GT(nFiles, 4);  // about 150 KB of lines in 16 KiB files
  for (const auto& entry : fs::directory_iterator(m_dir.file("Rotating"))) {
    EXPECT_LE(fs::file_size(entry.path()), 16u * 1024) << entry.path();
  }
  ExpectEveryLineOnceAndWhole(lines, kThreads, kLines);
}

}  // namespace
