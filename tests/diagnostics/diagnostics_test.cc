// The diagnostics services: settings, the error log,
// the error-code register found by name, and the write timing log.
#include <gtest/gtest.h>
#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "companions/logbook/logbook_api.h"
#include "diagnostics/error_code_register.h"
#include "diagnostics/error_entries.h"
#include "diagnostics/error_log.h"
#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "diagnostics/startup.h"
#include "diagnostics/write_timing_log.h"
#include "platform/platform.h"
#include "qltfsdk/writeroption.h"
#include "tests/support/temp_dir.h"

namespace {

std::vector<std::string> Lines(const std::string& path) {
  std::vector<std::string> lines;
  std::istringstream in(ReadWholeFile(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

qlt::fault::Rule Fault(unsigned ops, const wchar_t* pattern, DWORD error, int times = 1) {
  qlt::fault::Rule rule;
  rule.ops = ops;
  rule.pathPattern = pattern;
  rule.error = error;
  rule.times = times;
  return rule;
}

// Runs fn on a thread and tells whether it returned by itself. A reader
// stuck on the FIFO is released (by opening its writing end and closing it,
// once per open it makes) so that the thread can always be joined.
#if !defined(_WIN32)
template <class Fn>
bool ReturnsWithoutAWriter(const std::string& fifo, Fn fn) {
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  std::thread reader([&] {
    fn();
    done.set_value();
  });
  bool byItself = finished.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  while (finished.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
    int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) ::close(fd);
  }
  reader.join();
  return byItself;
}
#endif

// ReadBufSize, WriteBufSize, ReadMode, WriteMode, WriteRetryCount,
// WriteRetryTime, LogFileOn, IOWriteTimeOn, IOWriteBlockTimeTh.
using Values = std::array<int, 9>;
const Values kDefaults = {262144, 524288, 0, 0, 0, 0, 0, 0, 100};

class DiagnosticsTest : public ::testing::Test {
 protected:
  void SetUp() override { SetModuleDirectoryOverride(m_dir.wpath()); }
  void TearDown() override {
    LoadSdkSettingsFrom(L"");
    SetModuleDirectoryOverride(L"");
    QltResetDriveMap();
    SetCacheDriveRoot(L"");
  }
  static Values Current() {
    const SdkSettingsRecord& s = SdkSettings;
    return {s.ReadBufSize,    s.WriteBufSize, s.ReadMode,      s.WriteMode,         s.WriteRetryCount,
            s.WriteRetryTime, s.LogFileOn,    s.IOWriteTimeOn, s.IOWriteBlockTimeTh};
  }
  void WriteSeekEntry() {
    SetLastError(87);
    WriteErrorLogEntry(m_log, L"C:\\data\\big.dat", "\n    seek file pos :   ", L"Mov pos :4096   new pos 0: \n");
  }
  // Expects the file to hold prefix followed by nEntries seek entries.
  static void ExpectEntries(const std::string& path, std::string pattern, int nEntries) {
    for (int i = 0; i < nEntries; ++i)
      pattern += R"(C:\\data\\big\.dat\d+-\d+-\d+ [ \d]\d:[ \d]\d:[ \d]\d:[ \d]{2}\d\r\n)"
                 R"(    seek file pos :   Mov pos :4096   new pos 0: \r\n)"
                 R"(GetLastError :  87\r\n)";
    std::string text = ReadWholeFile(path);
    EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text;
  }

  TempDir m_dir;
  CLogFileWriter2 m_log;
};

TEST_F(DiagnosticsTest, SettingsParseKeysWithUnitsAndFallBackToDefaults) {
  SdkSettings.ReadBufSize = 7;
  ASSERT_EQ(LoadSdkSettingsFrom(m_dir.wpath("absent.ini")), 1);
  EXPECT_EQ(Current(), kDefaults);
  std::string binary;
  for (int i = 0; i < 4096; ++i) binary.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
  std::vector<std::pair<std::string, Values>> cases = {
      {"[FILERW]\nReadBufSize=512\nWriteBufSize=1024\nReadMode=7\nWriteMode=-1\nWriteRetryCount=3\n"
       "WriteRetryTime=250\n[LOG]\nLogFileOn=1\nIOWriteTimeOn=2\nIOWriteBlockTimeTh=-5\n",
       {524288, 1048576, 1, 1, 3, 250, 1, 2, -5}},
      {"[FILERW]\nReadBufSize=2097151\n", {2097151 * 1024, 524288, 0, 0, 0, 0, 0, 0, 100}},  // the largest that fits
      {"[FILERW]\nLogFileOn=1\nIOWriteTimeOn=1\nIOWriteBlockTimeTh=5\n[LOG]\nReadBufSize=4\n", kDefaults},
      {"[log]\nlogfileon=1\n", {262144, 524288, 0, 0, 0, 0, 1, 0, 100}},  // names match in any case
      {binary, kDefaults},
      {"[FILERW]\nWriteRetryCount=99999999999999999999\nWriteRetryTime=12ms\n",
       {262144, 524288, 0, 0, 2147483647, 12, 0, 0, 100}},
      {"[FILERW]\nWriteRetryCount=4\nWriteRetryCount=8\n[FILERW]\nWriteRetryCount=9\n",  // the first one counts
       {262144, 524288, 0, 0, 4, 0, 0, 0, 100}},
  };
  for (const char* bad : {"0", "-3", "2097152", "99999999999999999999", "abc"})
    cases.push_back({std::string("[FILERW]\nReadBufSize=") + bad + "\nWriteBufSize=" + bad + "\n", kDefaults});
  for (const auto& [text, expected] : cases) {
    ASSERT_TRUE(WriteWholeFile(m_dir.file("qltfsdk.ini"), text));
    ASSERT_EQ(LoadSdkSettingsFrom(m_dir.wpath("qltfsdk.ini")), 1);
    EXPECT_EQ(Current(), expected) << text.substr(0, 60);
  }
#if !defined(_WIN32)  // Windows has no FIFOs in its file system
  // A FIFO of that name is no settings file: the defaults, without waiting for a writer.
  std::filesystem::remove(m_dir.file("qltfsdk.ini"));
  ASSERT_EQ(::mkfifo(m_dir.file("qltfsdk.ini").c_str(), 0644), 0);
  EXPECT_TRUE(
      ReturnsWithoutAWriter(m_dir.file("qltfsdk.ini"), [&] { LoadSdkSettingsFrom(m_dir.wpath("qltfsdk.ini")); }));
  EXPECT_EQ(Current(), kDefaults);
#endif
}

// Attach reads the drive map and settings from the library's directory,
// picks the second fixed drive for the cache and hands the block size to the
// utility library; an ini beside the executable wins over that one.
TEST_F(DiagnosticsTest, AttachLoadsSettingsAndDrivesBesideTheLibrary) {
  TempDir c, d, e, exeDir;
  ASSERT_TRUE(WriteWholeFile(m_dir.file("qltfsdk.ini"), "[FILERW]\nWriteBufSize=64\n[DRIVES]\nC=" + c.path() +
                                                            "\nD=" + d.path() + ";removable\nE=" + e.path()));
  SetCacheDriveRoot(L"");
  EXPECT_EQ(QltSdkDllMain(nullptr, DLL_PROCESS_ATTACH), TRUE);
  EXPECT_EQ(SdkSettings.WriteBufSize, 65536);
  EXPECT_EQ(std::wstring(CacheDriveRoot), L"E:\\");
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"no-entry.dat")), 65536);
  QLT_WriterOption::SetDefaultWriteBlockSize(524288);
  QltResetDriveMap();  // C: is mapped away from the folders the checks below make
  std::wstring exe = QltWindowsPath(exeDir.path());
  EXPECT_EQ(ChooseConfigDirectory(exe, m_dir.wpath()), m_dir.wpath());
#if defined(_WIN32)
  ASSERT_TRUE(
      std::filesystem::create_directory(std::filesystem::u8path(exeDir.file("qltfsdk.ini"))));  // no settings file
#else
  ASSERT_EQ(::mkfifo(exeDir.file("qltfsdk.ini").c_str(), 0644), 0);  // readable, but no settings file
#endif
  EXPECT_EQ(ChooseConfigDirectory(exe, m_dir.wpath()), m_dir.wpath());
  std::filesystem::remove(std::filesystem::u8path(exeDir.file("qltfsdk.ini")));
  ASSERT_TRUE(WriteWholeFile(exeDir.file("qltfsdk.ini"), "[FILERW]\nWriteRetryCount=2\n"));
  EXPECT_EQ(ChooseConfigDirectory(exe, m_dir.wpath()), exe);
}

TEST_F(DiagnosticsTest, ErrorEntriesAreThreeLinesAppendedToNewestFileOfFamily) {
  WriteSeekEntry();  // logging off: nothing touched
  SdkSettings.LogFileOn = 1;
  WriteSeekEntry();                // the folder is missing: nothing written, nothing created
  EXPECT_EQ(GetLastError(), 87u);  // before the check below, whose system calls set their own
  EXPECT_FALSE(FileExists(m_dir.path() + "/sdk-log"));
  const std::string log = m_dir.path() + "/sdk-log/ErrorLog/ErrorLogFileForTarnwell";
  ASSERT_TRUE(std::filesystem::create_directories(m_dir.path() + "/sdk-log/ErrorLog"));
  WriteSeekEntry();  // empty folder: the file is created
  WriteSeekEntry();  // and appended to, never emptied
  ExpectEntries(log + ".txt", "", 2);
  // The highest number in numeric order takes the entry, even past the size limit.
  const std::string big(300, 'x');
  ASSERT_TRUE(WriteWholeFile(log + "[3].txt", "three\r\n"));
  ASSERT_TRUE(WriteWholeFile(log + "[12].txt", big));
  LogFileOptions options;
  options.nSizeLimit = 100;  // every line reopens the file at its end
  ASSERT_EQ(m_log.SetOptions(options), 1);
  WriteSeekEntry();
  ExpectEntries(log + ".txt", "", 2);
  ExpectEntries(log + "[12].txt", big, 1);
}

// The entries no component test reads back: their bytes are what readers
// of the log match on, so each is pinned here; a title without a detail
// puts the last error on the title's line.
TEST_F(DiagnosticsTest, EventEntriesKeepTheirTextsByteForByte) {
  const struct {
    CErrorLogEntry entry;
    const char* title;
    const wchar_t* detail;
  } cases[] = {
      {WriteFailedEntry(1000, 7), "\n    write file  :   ", L"To write bytes :1000   written bytes 7: \n"},
      {ReadFailedEntry(10, 0), "\n    read file  :   ", L"To read bytes :10   readed bytes 0: \n"},
      {SeekFailedEntry(-5, 0), "\n    seek file pos :   ", L"Mov pos :-5   new pos 0: \n"},
      {SeekBeforeReadFailedEntry(5100, 0), "\n    seek file pos when read:   ", L"Mov pos :5100   new pos 0: \n"},
      {RetrySeekFailedEntry(0, 4096), "\n    seek file pos when writeretry:   ", L"Mov pos :0   new pos 4096: \n"},
      {SeekExceptionEntry(8589934592, 0), "\n    seek file pos exception :   ", L"Mov pos :8589934592   new pos 0: \n"},
      {ReadExceptionEntry(10, 3), "\n    read file exception  :   ", L"To read bytes :10   readed bytes 3: \n"},
      {AccessSeekExceptionEntry(4096, 0), "\n  seek file pos Exception :   ", L"Mov pos :4096   new pos 0: \n"},
      {AccessReadExceptionEntry(262144, 0),
       "\n    read file  exception :   ", L"To read bytes :262144   readed bytes 0: \n"},
      {AccessWriteExceptionEntry(1000, 0),
       "\n    write file exception   :   ", L"To write bytes :1000   written bytes 0: \n"},
      {VirtualSizeEntry(12), "\n    Get file size:   ", L"size :12   \n"},
      {VirtualShortReadEntry(100, -1), "\n    read file :   ", L"size to read  :100  real size  :-1  \n"},
      {VirtualSeekMissedEntry(70, 64), "\n   mov file postion :   ", L"position to mov  :70 new  position :64  \n"},
  };
  for (const auto& c : cases) {
    EXPECT_STREQ(c.entry.pszTitle, c.title);
    EXPECT_EQ(c.entry.strDetail, c.detail) << c.title;
  }
  SdkSettings.LogFileOn = 1;
  ASSERT_TRUE(std::filesystem::create_directories(m_dir.path() + "/sdk-log/ErrorLog"));
  SetLastError(5);
  WriteErrorLogEntry(m_log, L"C:\\v.dat", VirtualOpenFailedEntry());
  EXPECT_EQ(GetLastError(), 5u);
  const std::vector<std::string> lines = Lines(m_dir.path() + "/sdk-log/ErrorLog/ErrorLogFileForTarnwell.txt");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "    open file fail!   GetLastError :  5\r");
}

TEST_F(DiagnosticsTest, ReportsReachRegisterFoundByNameAndItsAbsenceIsHarmless) {
  CErrorCodeRegister reg;
  ASSERT_TRUE(reg.IsAvailable());
  SetLastError(87);
  reg.Report(200, L"write file error");
  EXPECT_EQ(GetLastError(), 87u);
  HMODULE h = LoadLibraryW(L"qltUtilBase.dll");
  auto pfnLast = reinterpret_cast<PFN_GerLastErrorCodeInfo>(GetProcAddress(h, "GerLastErrorCodeInfo"));
  ASSERT_NE(pfnLast, nullptr);
  ErrorCodeRecord last{};
  ASSERT_EQ(pfnLast(&last), 1);
  EXPECT_EQ(last.nThreadId, GetCurrentThreadId());
  EXPECT_EQ(last.nErrorCode, 200);
  EXPECT_TRUE(CComBSTR(last.bstrMessage) == L"write file error");
  SysFreeString(last.bstrMessage);
  FreeLibrary(h);
  qlt::fault::ScopedFault f(Fault(qlt::fault::kLoadLibrary, L"qltUtilBase.dll", ERROR_MOD_NOT_FOUND, -1));
  CErrorCodeRegister hidden;  // a host without the utility library
  EXPECT_FALSE(hidden.IsAvailable());
  hidden.Report(200, nullptr);  // a no-op, not a crash
  EXPECT_EQ(f.Fired(), 1);
}

// Entries for a log that cannot be opened cost the failing operation
// nothing more than a look: the file is tried once, not once per entry.
TEST_F(DiagnosticsTest, AnUnwritableErrorLogIsNotTriedForEveryEntry) {
  SdkSettings.LogFileOn = 1;
  ASSERT_TRUE(std::filesystem::create_directories(m_dir.path() + "/sdk-log/ErrorLog"));
  qlt::fault::ScopedFault denied(Fault(qlt::fault::kOpen, L"*ErrorLogFileForTarnwell*", ERROR_ACCESS_DENIED, -1));
  for (int i = 0; i < 50; ++i) {
    WriteSeekEntry();
    EXPECT_EQ(GetLastError(), 87u);  // the caller's error stands
  }
  EXPECT_EQ(denied.Fired(), 1);
}

class TimingLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QLTFS_LOG_ROOT", m_logRoot.path().c_str(), 1);
    SdkSettings.IOWriteTimeOn = 1;
    AcquireWriteTimingLog();
    ASSERT_NE(CurrentWriteTimingLog(), nullptr);
    // Shared for reading: the test reads the file back while it is open.
    m_hFile = CreateFileW(m_dir.wpath("slow.dat").c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0,
                          nullptr);
  }
  void TearDown() override {
    CloseHandle(m_hFile);
    ReleaseWriteTimingLog();
    SdkSettings.IOWriteTimeOn = 0;
    SdkSettings.IOWriteBlockTimeTh = 100;
    unsetenv("QLTFS_LOG_ROOT");
  }
  BOOL Write(int nBuffered = 1, OVERLAPPED* pOverlapped = nullptr) {
    DWORD written = 0;
    return TimedWriteFile(m_hFile, "0123456789", 10, &written, pOverlapped, 4096, nBuffered, 1234);
  }

  TempDir m_dir, m_logRoot;
  HANDLE m_hFile = INVALID_HANDLE_VALUE;
};

TEST_F(TimingLogTest, LogsSlowWritesKeepsResultsAndLivesFromFirstToLastHolder) {
  const std::string path = CurrentWriteTimingLog()->FilePath();
  EXPECT_TRUE(Write());  // fast: no line
  qlt::fault::Rule slow = Fault(qlt::fault::kWrite, L"*slow.dat", 0);
  slow.action = qlt::fault::Action::kDelay;
  slow.delayMs = 150;
  {
    qlt::fault::ScopedFault fault(slow);
    EXPECT_TRUE(Write());
  }
  EXPECT_EQ(ReadWholeFile(m_dir.file("slow.dat")), "01234567890123456789");
  SdkSettings.IOWriteBlockTimeTh = -1;  // a negative threshold logs every write
  {
    qlt::fault::ScopedFault fault(Fault(qlt::fault::kWrite, L"*slow.dat", ERROR_DISK_FULL));
    EXPECT_FALSE(Write(0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));  // the write's own error
  }
  qlt::fault::ScopedFault pending(Fault(qlt::fault::kWrite, L"*slow.dat", ERROR_IO_PENDING));
  OVERLAPPED overlapped{};
  EXPECT_TRUE(Write(1, &overlapped));  // a pending overlapped write counts as success
  SdkSettings.IOWriteTimeOn = 0;       // the switch off: nothing timed
  EXPECT_TRUE(Write());
  std::vector<std::string> lines = Lines(path);
  ASSERT_EQ(lines.size(), 3u);
  const std::regex kLine(
      R"(.*this: 1234 <(No)?BufferWriteFile> Offset = 4096 Length = 10 CostTime\(ms\): ([0-9.e+-]+))");
  std::smatch m[3];
  for (size_t i = 0; i < 3; ++i) ASSERT_TRUE(std::regex_match(lines[i], m[i], kLine)) << lines[i];
  EXPECT_GE(std::stod(m[0][2]), 150.0);
  EXPECT_EQ(m[1][1], "No");                        // the unbuffered write
  QLT_LogBookU* pFirst = CurrentWriteTimingLog();  // the fixture holds one reference
  AcquireWriteTimingLog();
  ReleaseWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), pFirst);
  ReleaseWriteTimingLog();
  EXPECT_EQ(CurrentWriteTimingLog(), nullptr);
  ReleaseWriteTimingLog();  // unbalanced: ignored
  EXPECT_EQ(WriteTimingLogHolders(), 0);
  EXPECT_TRUE(Write());     // no holder: the write still works, unlogged
  AcquireWriteTimingLog();  // the fixture's reference again
}

// A timing log that cannot be written neither fails nor slows the writes it
// times: every write succeeds and the log file is tried once, not per line.
TEST_F(TimingLogTest, AnUnwritableLogIsTriedOnceNotOncePerWrite) {
  SdkSettings.IOWriteBlockTimeTh = -1;  // every write makes a line
  ASSERT_TRUE(WriteWholeFile(m_logRoot.file("plain"), "a file, not a folder"));
  const struct {
    std::string root;
    qlt::fault::Action action;
  } cases[] = {
      {m_logRoot.file("plain/logs"), qlt::fault::Action::kDelay},  // folder cannot be made; the rule only counts
      {m_logRoot.file("denied"), qlt::fault::Action::kFail},       // the open is refused
  };
  int nWrites = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.root);
    setenv("QLTFS_LOG_ROOT", c.root.c_str(), 1);
    qlt::fault::Rule rule = Fault(qlt::fault::kOpen, L"*SDKWriteIO.log", ERROR_ACCESS_DENIED, -1);
    rule.action = c.action;
    qlt::fault::ScopedFault opens(rule);
    for (int i = 0; i < 100; ++i, ++nWrites) ASSERT_TRUE(Write());
    EXPECT_EQ(opens.Fired(), 1);
    EXPECT_FALSE(FileExists(c.root + "/SDKWriteIO/SDKWriteIO.log"));
  }
  EXPECT_EQ(ReadWholeFile(m_dir.file("slow.dat")).size(), nWrites * 10u);
}

TEST_F(TimingLogTest, LinesFromSeveralThreadsStayWhole) {
  SdkSettings.IOWriteBlockTimeTh = -1;
  std::vector<std::thread> threads;
  for (DWORD owner = 0; owner < 4; ++owner) {
    threads.emplace_back([this, owner] {
      HANDLE h = CreateFileW(m_dir.wpath("w" + std::to_string(owner)).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                             0, nullptr);
      char block[64] = {};
      DWORD written = 0;
      for (int i = 0; i < 50; ++i) TimedWriteFile(h, block, sizeof(block), &written, nullptr, i * 64, 1, owner);
      CloseHandle(h);
    });
  }
  for (auto& thread : threads) thread.join();
  // 200 whole lines, each from one of the owners.
  const std::regex kLine(R"(.*this: [0-3] <BufferWriteFile> Offset = \d+ Length = 64 CostTime\(ms\): [0-9.e+-]+)");
  std::vector<std::string> lines = Lines(CurrentWriteTimingLog()->FilePath());
  EXPECT_EQ(lines.size(), 200u);
  for (const std::string& line : lines) ASSERT_TRUE(std::regex_match(line, kLine)) << line;
}

}  // namespace
