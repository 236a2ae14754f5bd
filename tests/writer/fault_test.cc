// The writer under injected faults: close's result after a failed block,
// the error-log entry of each failing operation, the retry that reopens the
// file and rewrites the block, a reopen that keeps failing, and a file
// system that fills up.
#include <gtest/gtest.h>
#if !defined(_WIN32)
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <fstream>
#include <regex>

#include "companions/utilbase/utilbase_api.h"
#include "companions/virtualfile/qvf_virtual_file.h"
#include "tests/writer/writer_test_util.h"

namespace qlt::test {
namespace {

using qlt::fault::Action;
using qlt::fault::ScopedFault;

// The calling thread's last record in the utility library's register: "code message".
std::wstring LastCode() {
  HMODULE h = LoadLibraryW(QLT_UTILBASE_DLL);
  auto pfn = h ? reinterpret_cast<PFN_GerLastErrorCodeInfo>(GetProcAddress(h, "GerLastErrorCodeInfo")) : nullptr;
  ErrorCodeRecord rec{};
  std::wstring out = L"none";
  if (pfn && pfn(&rec) == 1) out = std::to_wstring(rec.nErrorCode) + L" " + (rec.bstrMessage ? rec.bstrMessage : L"");
  if (pfn) SysFreeString(rec.bstrMessage);
  if (h) FreeLibrary(h);
  return out;
}

TEST_F(WriterTest, FailedBlockFailsTheWriteAndCloseAndIsLogged) {
  EnableErrorLog();
  FileExPtr w = MakeWriter();
  ASSERT_NE(Create(*w, "e.dat", 1000), nullptr);
  {
    ScopedFault second(FaultRule(qlt::fault::kWrite, L"*e.dat", Action::kFail, 2, 1));
    EXPECT_EQ(Put(*w, 0, 2500), 0);  // written still says 2500 (checked in Put)
    EXPECT_EQ(second.Fired(), 1);
  }
  EXPECT_EQ(LastCode(), L"200 ");
  EXPECT_EQ(Put(*w, 2500, 100), 1);   // later writes go on
  EXPECT_EQ(w->CloseHandle(), 0);     // the file is closed, but not everything reached it
  EXPECT_EQ(SizeOf("e.dat"), 1600u);  // the failed block was dropped, not kept
  std::vector<std::string> lines = ErrorLogLines();
  ASSERT_EQ(lines.size(), 3u);
  std::string path = QltWideToUtf8(m_dir.wpath("e.dat"));
  EXPECT_EQ(lines[0].rfind(path, 0), 0u) << lines[0];
  EXPECT_TRUE(
      std::regex_match(lines[0].substr(path.size()), std::regex(R"(\d+-\d+-\d+ [ \d]\d:[ \d]\d:[ \d]\d:[ \d]{2}\d)")))
      << lines[0];
  EXPECT_EQ(lines[1], "    write file  :   To write bytes :1000   written bytes 0: ");
  EXPECT_EQ(lines[2], "GetLastError :  29");
}

TEST_F(WriterTest, EachFailingOperationWritesItsEntry) {
  EnableErrorLog();
  FileExPtr w = MakeWriter();
  std::wstring path = m_dir.wpath("ops.dat");
  ASSERT_NE(w->CreateKXFile(CComBSTR(path.c_str()), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr), nullptr);
  EXPECT_EQ(w->SetFilePointer(-5, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
  char buf[10];
  DWORD got = 0;
  EXPECT_EQ(w->ReadFile(buf, 10, &got, nullptr), 0);  // a write-only file
  // A retry whose first attempt fails and whose seek back after the reopen fails too.
  SdkSettings.WriteRetryCount = 1;
  ScopedFault write(FaultRule(qlt::fault::kWrite, L"*ops.dat", Action::kFail, 1, 1));
  ScopedFault seek(FaultRule(qlt::fault::kSeek, L"*ops.dat", Action::kFail, 1, 1));
  EXPECT_EQ(w->WriteFile("abc", 3, nullptr, nullptr), 1);
  EXPECT_EQ(w->SetFilePointer(0, nullptr, FILE_CURRENT), 3u);  // writes "abc" out through the retry
  std::vector<std::string> lines = ErrorLogLines();
  const char* middles[] = {
      "    seek file pos :   Mov pos :-5   new pos 0: ", "    read file  :   To read bytes :10   readed bytes 0: ",
      "    write file  :   To write bytes :3   written bytes 0: ",
      "    seek file pos when writeretry:   Mov pos :0   new pos 0: "};
  ASSERT_EQ(lines.size(), 12u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(lines[i * 3 + 1], middles[i]);
    EXPECT_TRUE(std::regex_match(lines[i * 3 + 2], std::regex(R"(GetLastError :  \d+)"))) << lines[i * 3 + 2];
  }
  SdkSettings.WriteRetryCount = 0;
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(ReadWholeFile(QltNativePath(path.c_str())), "abc");
}

TEST_F(WriterTest, RetryRewritesAFailedBlockFromTheLastGoodPosition) {
  SdkSettings.WriteRetryCount = 2;
  for (Action action : {Action::kShort, Action::kFail}) {
    SCOPED_TRACE(action == Action::kShort ? "short" : "fail");
    FileExPtr w = MakeWriter();
    ASSERT_NE(Create(*w, "r.dat", 1000), nullptr);
    ScopedFault flushes(FaultRule(qlt::fault::kFlush, L"*r.dat"));
    ScopedFault opens(FaultRule(qlt::fault::kOpen, L"*r.dat"));
    qlt::fault::Rule third = FaultRule(qlt::fault::kWrite, L"*r.dat", action, 3, 1);
    third.shortBytes = 300;
    ScopedFault fault(third);
    EXPECT_EQ(Put(*w, 0, 5000), 1);
    EXPECT_EQ(fault.Fired(), 1);
    EXPECT_EQ(opens.Fired(), 1);    // one reopen was enough
    EXPECT_GE(flushes.Fired(), 5);  // every block was flushed
    EXPECT_EQ(Put(*w, 5000, 700), 1);
    EXPECT_EQ(w->CloseHandle(), 1);
    EXPECT_EQ(Content("r.dat"), Pattern(0, 5700));  // nothing lost or duplicated: partial bytes overwritten
  }
}

// The rewrite after a failed first attempt goes where the block was to be
// written, wherever the file position came from: a seek outside managed
// mode, a read-back, an attached handle not at 0. The failing attempt leaves
// part of the block behind; a preset trim must not count it twice.
TEST_F(WriterTest, RetryRewritesWhereTheFailedBlockWasToGo) {
  SdkSettings.WriteRetryCount = 1;
  const std::string a(2000, 'a'), b(1000, 'b');
  enum How { kSeek, kRead, kAttach, kPreset };
  const struct {
    How how;
    int nOpMode;
    std::string expect;
  } cases[] = {
      {kSeek, 1, a.substr(0, 500) + b + a.substr(0, 500)},
      {kRead, 2, a.substr(0, 500) + b + a.substr(0, 500)},
      {kAttach, 1, a + b},
      {kPreset, 2, a + b},  // trimmed to the block's end, not past it
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.how));
    std::wstring path = m_dir.wpath("p.dat");
    QLT_WriterOption::SetWriteBlockSize(CComBSTR(path.c_str()), 1000);
    if (c.how == kPreset) QLT_WriterOption2::SetPresetFileSize(CComBSTR(path.c_str()), 1 << 20);
    FileExPtr w = MakeWriter(c.nOpMode);
    DWORD n = 0;
    if (c.how == kAttach) {
      HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
      ASSERT_NE(h, INVALID_HANDLE_VALUE);
      ASSERT_TRUE(::WriteFile(h, a.data(), 2000, &n, nullptr));
      ASSERT_EQ(w->Attach(h, CComBSTR(path.c_str())), 1);
    } else {
      ASSERT_NE(Create(*w, "p.dat", 1000), nullptr);
      ASSERT_EQ(w->WriteFile(a.data(), 2000, &n, nullptr), 1);
    }
    if (c.how == kSeek) {
      ASSERT_EQ(w->SetFilePointer(500, nullptr, FILE_BEGIN), 500u);
    }
    if (c.how == kRead) {
      char buf[500];
      ASSERT_EQ(w->SetFilePointer(0, nullptr, FILE_BEGIN), 0u);
      ASSERT_EQ(w->ReadFile(buf, 500, &n, nullptr), 1);
      ASSERT_EQ(n, 500u);
    }
    qlt::fault::Rule partial = FaultRule(qlt::fault::kWrite, L"*p.dat", Action::kPartialFail, 1, 1);
    partial.shortBytes = 300;
    ScopedFault fault(partial);
    ScopedFault opens(FaultRule(qlt::fault::kOpen, L"*p.dat"));
    EXPECT_EQ(w->WriteFile(b.data(), 1000, &n, nullptr), 1);
    EXPECT_EQ(fault.Fired(), 1);
    EXPECT_EQ(opens.Fired(), 1);
    EXPECT_EQ(w->CloseHandle(), 1);
    EXPECT_EQ(Content("p.dat"), c.expect);
  }
}

TEST_F(WriterTest, ReopenThatKeepsFailingGivesUpCleanly) {
  SdkSettings.WriteRetryCount = 3;
  SdkSettings.WriteRetryTime = 1;
  FileExPtr w = MakeWriter(2);
  ASSERT_NE(Create(*w, "k.dat", 1000), nullptr);
  ASSERT_EQ(Put(*w, 0, 1500), 1);  // one good block, 500 staged
  {
    ScopedFault write(FaultRule(qlt::fault::kWrite, L"*k.dat", Action::kFail, 1, 1));
    ScopedFault opens(FaultRule(qlt::fault::kOpen, L"*k.dat", Action::kFail));
    LARGE_INTEGER zero{};
    EXPECT_EQ(w->SetFilePointerEx(zero, nullptr, FILE_BEGIN), 0);  // the staged bytes cannot go out
    EXPECT_EQ(opens.Fired(), 3);                                   // exactly WriteRetryCount attempts
    EXPECT_EQ(LastCode(), L"200 write file error");
    EXPECT_EQ(Put(*w, 1500, 600), 0);  // later calls fail at once and try to reopen again
    EXPECT_EQ(opens.Fired(), 6);
    EXPECT_EQ(w->CloseHandle(), 0);
  }
  EXPECT_EQ(Content("k.dat"), Pattern(0, 1000));   // what reached the file is intact
  ASSERT_NE(Create(*w, "k2.dat", 1000), nullptr);  // the writer itself is fine
  ASSERT_EQ(Put(*w, 0, 1500), 1);
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(Content("k2.dat"), Pattern(0, 1500));
}

// How a full disk is written to: plain, through either write cache, or into
// the virtual storage.
enum FillRoute { kPlain, kMemoryCache, kDiskCache, kVirtual };

// Writes 2 MiB into dir, which holds at most 1 MiB (a small tmpfs, or a
// fault rule that reports a full disk after 1 MiB). 0: the writer reported
// the failure (close, and WriteFile outside the caches, which may still be
// taking bytes when the disk fills) and what reached the file is intact.
int FillUp(const std::string& dir, FillRoute route) {
  std::wstring path = route == kVirtual ? std::wstring(L"qvf:\\full.dat") : QltWindowsPath(dir + "/full.dat");
  if (route == kVirtual) {
    HMODULE h = LoadLibraryW(QLT_VIRTUALFILE_DLL);  // kept loaded: the writer uses it
    auto pfnSetRoot =
        h ? reinterpret_cast<PFN_QltSetVirtualStorageRoot>(GetProcAddress(h, "QltSetVirtualStorageRoot")) : nullptr;
    if (!pfnSetRoot) return 6;
    pfnSetRoot(QltWindowsPath(dir).c_str());
  }
  QLT_WriterOption::SetWriteBlockSize(CComBSTR(path.c_str()), 65536);
  FileExPtr w(QLCT_CreateFileExObj());
  QLCT_FIlEACCESSINFO_ST info{
      route == kMemoryCache ? 1 : route == kDiskCache ? 2 : 0, 2, 0, 33554432, nullptr, 4194304, 16777216};
  if (!w || !w->Initialize(&info)) return 1;
  if (!w->CreateKXFile(CComBSTR(path.c_str()), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr)) return 2;
  int nFailed = 0;
  for (uint64_t at = 0; at < (2u << 20); at += 40000) {
    std::string data = Pattern(at, 40000);
    DWORD n = 0;
    nFailed += w->WriteFile(data.data(), 40000, &n, nullptr) ? 0 : 1;
  }
  if (route != kMemoryCache && route != kDiskCache && nFailed == 0) return 3;
  SetLastError(NO_ERROR);
  if (w->CloseHandle() || GetLastError() != ERROR_DISK_FULL) return 4;
  std::string got = ReadWholeFile(dir + "/full.dat");
  if (route == kVirtual) {
    HMODULE h = LoadLibraryW(QLT_VIRTUALFILE_DLL);
    auto pfnSetRoot = reinterpret_cast<PFN_QltSetVirtualStorageRoot>(GetProcAddress(h, "QltSetVirtualStorageRoot"));
    pfnSetRoot(nullptr);
    FreeLibrary(h);
    FreeLibrary(h);
  }
  return !got.empty() && got.size() <= (1u << 20) && got == Pattern(0, got.size()) ? 0 : 5;
}

#if !defined(_WIN32)
// Runs in a child process: mounts a 1 MiB tmpfs over dir in a new user and
// mount namespace and fills it. 77: no namespace here.
int FillUpInChild(const std::string& dir, FillRoute route) {
  uid_t uid = getuid();
  gid_t gid = getgid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return 77;
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
  std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  if (mount("none", dir.c_str(), "tmpfs", 0, "size=1m") != 0) return 77;
  return FillUp(dir, route);
}
#endif

TEST_F(WriterTest, FullDiskFailsWritesAndCloseWithoutHolesOnEveryRoute) {
  for (FillRoute route : {kPlain, kMemoryCache, kDiskCache, kVirtual}) {
    SCOPED_TRACE(static_cast<int>(route));
    std::string dir = m_dir.file("small" + std::to_string(route));
    std::filesystem::create_directories(std::filesystem::u8path(dir));
#if !defined(_WIN32)  // Windows: no small disk to mount; the fault control fills it below
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(FillUpInChild(dir, route));
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) != 77) {
      EXPECT_EQ(WEXITSTATUS(status), 0);
      continue;
    }
#endif
    // No namespace here: the disk fills up through the fault control, after
    // 1 MiB, the write that crosses it writing what still fits.
    qlt::fault::Rule full = FaultRule(qlt::fault::kWrite, L"*full.dat", Action::kPartialFail, 16, 1);
    full.shortBytes = 1000, full.error = ERROR_DISK_FULL;
    // (A call that the first rule takes is not counted by the second.)
    qlt::fault::Rule none = FaultRule(qlt::fault::kWrite, L"*full.dat", Action::kFail, 16, -1);
    none.error = ERROR_DISK_FULL;
    ScopedFault crossing(full), after(none);
    EXPECT_EQ(FillUp(dir, route), 0) << "(a fault rule stood in for a small disk: no user namespace here)";
  }
}

}  // namespace
}  // namespace qlt::test
