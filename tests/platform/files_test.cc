// File calls: dispositions, share modes, errors, 64-bit positions and the
// fault control.
#include <gtest/gtest.h>
#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

HANDLE Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition, DWORD flags = 0) {
  return CreateFileW(path.c_str(), access, share, nullptr, disposition, flags | FILE_ATTRIBUTE_NORMAL, nullptr);
}

// A fault on the Nth matching call to f.bin.
qlt::fault::Rule Rule(unsigned nOps, int nNth, DWORD nError) {
  qlt::fault::Rule r;
  r.ops = nOps;
  r.pathPattern = L"*f.bin";
  r.nth = nNth;
  r.error = nError;
  return r;
}

class PlatformFilesTest : public ::testing::Test {
 protected:
  void TearDown() override { qlt::fault::DisarmAll(); }
  TempDir m_dir;
};

// Each step opens a.bin as the steps before it left it; every open writes
// "hello" at its start.
TEST_F(PlatformFilesTest, DispositionsFollowWindowsRules) {
  const struct {
    DWORD nDisposition;
    DWORD nError;
    LONGLONG nSizeAtOpen;  // -1: the open fails
  } steps[] = {
      {OPEN_EXISTING, ERROR_FILE_NOT_FOUND, -1}, {CREATE_NEW, ERROR_SUCCESS, 0},
      {CREATE_NEW, ERROR_FILE_EXISTS, -1},       {OPEN_ALWAYS, ERROR_ALREADY_EXISTS, 5},  // keeps the content
      {CREATE_ALWAYS, ERROR_ALREADY_EXISTS, 0},                                           // empties it
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.nDisposition);
    HANDLE h = Open(m_dir.wpath("a.bin"), GENERIC_READ | GENERIC_WRITE, 0, step.nDisposition);
    EXPECT_EQ(GetLastError(), step.nError);
    EXPECT_EQ(h != INVALID_HANDLE_VALUE, step.nSizeAtOpen >= 0);
    if (h == INVALID_HANDLE_VALUE) continue;
    LARGE_INTEGER size{};
    EXPECT_TRUE(GetFileSizeEx(h, &size));
    EXPECT_EQ(size.QuadPart, step.nSizeAtOpen);
    DWORD n = 0;
    EXPECT_TRUE(WriteFile(h, "hello", 5, &n, nullptr));
    CloseHandle(h);
  }
  EXPECT_EQ(Open(m_dir.wpath("missing\\x.bin"), GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(PlatformFilesTest, ShareModesAreEnforcedBetweenHandles) {
  std::wstring p = m_dir.wpath("s.bin");
  HANDLE w = Open(p, GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS);
  ASSERT_NE(w, INVALID_HANDLE_VALUE);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(w, "content", 7, &n, nullptr));
  // A reader that shares writing may join; a second writer may not.
  HANDLE r = Open(p, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  EXPECT_NE(r, INVALID_HANDLE_VALUE);
  EXPECT_EQ(Open(p, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  // A reader that does not share writing conflicts with the open writer.
  EXPECT_EQ(Open(p, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
  // Neither CREATE_ALWAYS nor TRUNCATE_EXISTING may empty a file they may not open.
  for (DWORD disposition : {DWORD(CREATE_ALWAYS), DWORD(TRUNCATE_EXISTING)}) {
    EXPECT_EQ(Open(p, GENERIC_WRITE, FILE_SHARE_READ, disposition), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  }
  EXPECT_EQ(ReadWholeFile(m_dir.file("s.bin")), "content");
  // Deleting needs FILE_SHARE_DELETE from every open handle.
  EXPECT_FALSE(DeleteFileW(p.c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  CloseHandle(r);
  CloseHandle(w);
  EXPECT_TRUE(DeleteFileW(p.c_str()));
}

TEST_F(PlatformFilesTest, SixtyFourBitPositionsAndEndOfFile) {
  std::wstring p = m_dir.wpath("big.bin");
  HANDLE h = Open(p, GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  LARGE_INTEGER at;
  at.QuadPart = 5LL * 1024 * 1024 * 1024 + 3;  // past 4 GiB: sparse
  ASSERT_TRUE(SetFilePointerEx(h, at, nullptr, FILE_BEGIN));
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "xyz", 3, &n, nullptr));
  DWORD high = 0;
  DWORD low = GetFileSize(h, &high);
  EXPECT_EQ((static_cast<uint64_t>(high) << 32) | low, static_cast<uint64_t>(at.QuadPart + 3));

  at.QuadPart = (1LL << 32) + 10;  // cut back to just past 4 GiB
  ASSERT_TRUE(SetFilePointerEx(h, at, nullptr, FILE_BEGIN));
  ASSERT_TRUE(SetEndOfFile(h));
  LARGE_INTEGER size{};
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, at.QuadPart);

  at.QuadPart = -1;
  EXPECT_FALSE(SetFilePointerEx(h, at, nullptr, FILE_BEGIN));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
  CloseHandle(h);
}

TEST_F(PlatformFilesTest, BadHandlesAndBuffersFailCleanly) {
  DWORD n = 7;
  EXPECT_FALSE(ReadFile(nullptr, &n, 4, &n, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(n, 0u);
  int notAHandle = 0;
  EXPECT_FALSE(CloseHandle(&notAHandle));
  EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));

  HANDLE h = Open(m_dir.wpath("b.bin"), GENERIC_WRITE, 0, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_FALSE(WriteFile(h, nullptr, 10, &n, nullptr));
  char c;
  EXPECT_FALSE(ReadFile(h, &c, 1, &n, nullptr));  // opened for writing only
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  // The write-back start: a written range and the rest of the file are
  // taken, a range past the largest offset is refused.
  ASSERT_TRUE(WriteFile(h, "abc", 3, &n, nullptr));
  EXPECT_TRUE(QltStartWriteBack(h, 0, 3));
  EXPECT_TRUE(QltStartWriteBack(h, 1, 0));
  EXPECT_FALSE(QltStartWriteBack(h, ~0ULL >> 1, 2));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_TRUE(CloseHandle(h));
  EXPECT_FALSE(CloseHandle(h));  // closed already
  EXPECT_FALSE(QltStartWriteBack(h, 0, 0));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  HANDLE r = Open(m_dir.wpath("b.bin"), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
  ASSERT_NE(r, INVALID_HANDLE_VALUE);
  EXPECT_FALSE(QltStartWriteBack(r, 0, 3));  // opened for reading only
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_TRUE(CloseHandle(r));
}

TEST_F(PlatformFilesTest, FaultControlFailsTheNthMatchingCallOnce) {
  std::wstring p = m_dir.wpath("f.bin");
  HANDLE h = Open(p, GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  std::vector<char> block(1000, 'a');
  DWORD n = 0;
  int id = qlt::fault::Arm(Rule(qlt::fault::kWrite, 2, ERROR_DISK_FULL));  // the second write fails
  EXPECT_TRUE(WriteFile(h, block.data(), 1000, &n, nullptr));
  EXPECT_FALSE(WriteFile(h, block.data(), 1000, &n, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));
  EXPECT_EQ(n, 0u);
  EXPECT_TRUE(WriteFile(h, block.data(), 1000, &n, nullptr));  // fired once only
  EXPECT_EQ(qlt::fault::Fired(id), 1);
  LARGE_INTEGER size{};
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, 2000);  // the failed write wrote nothing
  CloseHandle(h);

  qlt::fault::Arm(Rule(qlt::fault::kOpen, 2, ERROR_ACCESS_DENIED));  // a reopen fails
  HANDLE first = Open(p, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
  EXPECT_NE(first, INVALID_HANDLE_VALUE);
  EXPECT_EQ(Open(p, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  CloseHandle(first);
}

// An OVERLAPPED offset places the transfer; afterwards the file pointer
// stands after it, as for a synchronous handle on Windows.
TEST_F(PlatformFilesTest, OverlappedOffsetsPlaceReadsAndWrites) {
  HANDLE h = Open(m_dir.wpath("o.bin"), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "0123456789", 10, &n, nullptr));
  auto At = [](uint64_t offset) {
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(offset);
    ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return ov;
  };
  auto Pointer = [&] {
    LARGE_INTEGER zero{}, pos{};
    EXPECT_TRUE(SetFilePointerEx(h, zero, &pos, FILE_CURRENT));
    return pos.QuadPart;
  };
  char buf[8] = {};
  OVERLAPPED ov = At(3);
  ASSERT_TRUE(ReadFile(h, buf, 4, &n, &ov));
  EXPECT_EQ(std::string(buf, n), "3456");
  EXPECT_EQ(Pointer(), 7);

  ov = At(12);  // past the end: the gap reads as zeros
  ASSERT_TRUE(WriteFile(h, "ab", 2, &n, &ov));
  EXPECT_EQ(Pointer(), 14);
  ov = At(9);
  ASSERT_TRUE(ReadFile(h, buf, 8, &n, &ov));
  EXPECT_EQ(std::string(buf, n), std::string("9\0\0ab", 5));

  ov = At(14);  // at the end: success with nothing read
  EXPECT_TRUE(ReadFile(h, buf, 8, &n, &ov));
  EXPECT_EQ(n, 0u);

  ov = At((1ull << 32) + 1);  // the high part counts
  ASSERT_TRUE(WriteFile(h, "z", 1, &n, &ov));
  LARGE_INTEGER size{};
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, (1LL << 32) + 2);
  CloseHandle(h);
}

TEST_F(PlatformFilesTest, MoveFileExReplacesOnlyWhenAsked) {
  std::wstring a = m_dir.wpath("a.txt"), b = m_dir.wpath("b.txt"), c = m_dir.wpath("c.txt");
  ASSERT_TRUE(WriteWholeFile(m_dir.file("a.txt"), "A"));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("b.txt"), "B"));
  const struct {
    const wchar_t* from;
    const wchar_t* to;
    DWORD flags;
    DWORD error;  // ERROR_SUCCESS: the move works
  } steps[] = {
      {a.c_str(), b.c_str(), 0, ERROR_ALREADY_EXISTS},                          // b stays as it was
      {a.c_str(), c.c_str(), 0, ERROR_SUCCESS},                                 // a -> c
      {a.c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING, ERROR_FILE_NOT_FOUND},  // a is gone
      {c.c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING, ERROR_SUCCESS},         // "A" replaces "B"
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(testing::Message() << "step " << (&step - steps));
    SetLastError(0);
    EXPECT_EQ(MoveFileExW(step.from, step.to, step.flags) != FALSE, step.error == ERROR_SUCCESS);
    if (step.error != ERROR_SUCCESS) {
      EXPECT_EQ(GetLastError(), step.error);
    }
  }
  EXPECT_EQ(ReadWholeFile(m_dir.file("b.txt")), "A");

  // An open file that does not share deletion can be neither moved nor
  // replaced; both stay as they were. The system may call the refused move
  // ERROR_ACCESS_DENIED; our POSIX layer always says ERROR_SHARING_VIOLATION.
  auto refusedAsShared = [](DWORD nError) {
#if defined(_WIN32)
    return nError == ERROR_SHARING_VIOLATION || nError == ERROR_ACCESS_DENIED;
#else
    return nError == ERROR_SHARING_VIOLATION;
#endif
  };
  HANDLE h = Open(b, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
  ASSERT_TRUE(WriteWholeFile(m_dir.file("d.txt"), "D"));
  EXPECT_FALSE(MoveFileExW(b.c_str(), c.c_str(), 0));
  EXPECT_TRUE(refusedAsShared(GetLastError())) << GetLastError();
  EXPECT_FALSE(MoveFileExW(m_dir.wpath("d.txt").c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_TRUE(refusedAsShared(GetLastError())) << GetLastError();
  CloseHandle(h);
  EXPECT_EQ(ReadWholeFile(m_dir.file("b.txt")), "A");
  EXPECT_FALSE(FileExists(m_dir.file("c.txt")));
  EXPECT_TRUE(MoveFileExW(m_dir.wpath("d.txt").c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(ReadWholeFile(m_dir.file("b.txt")), "D");
}

TEST_F(PlatformFilesTest, DirectoriesAndSearch) {
  std::wstring d = m_dir.wpath("logs");
  ASSERT_TRUE(CreateDirectoryW(d.c_str(), nullptr));
  EXPECT_FALSE(CreateDirectoryW(d.c_str(), nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));

  for (const char* name : {"log.txt", "log[2].txt", "LOG[10].TXT", "other.dat"})
    ASSERT_TRUE(WriteWholeFile(m_dir.file(std::string("logs/") + name), "x"));
  WIN32_FIND_DATAW fd;
  HANDLE f = FindFirstFileW((d + L"\\log*.txt").c_str(), &fd);
  ASSERT_NE(f, INVALID_HANDLE_VALUE);
  int found = 1;
  while (FindNextFileW(f, &fd)) ++found;
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_FILES));
  EXPECT_TRUE(FindClose(f));
  EXPECT_EQ(found, 3);  // names match without regard to case

  EXPECT_EQ(FindFirstFileW((d + L"\\*.none").c_str(), &fd), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(RemoveDirectoryW(d.c_str()));  // not empty
}

// A name the search hands back opens the very file it names, whatever its
// bytes; wide text that no native name stands for is refused, not renamed.
TEST_F(PlatformFilesTest, NamesFromSearchOpenTheSameFile) {
  for (const char* name : {"\xC3\xBC.bin",
                           "\xC3\x9Cn\xC3\xAF"
                           "c\xC3\xB8"
                           "d\xC3\xA9-\xE6\x96\x87\xE4\xBB\xB6.bin",
                           "\xE9.bin", "\xC0\xAF.bin"}) {
    SCOPED_TRACE(testing::PrintToString(std::string(name)));
#if defined(_WIN32)
    // Names there are wide text: bytes that are not UTF-8 name no file.
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, name, -1, nullptr, 0) == 0) continue;
#endif
    ASSERT_TRUE(WriteWholeFile(m_dir.file(name), name));
    WIN32_FIND_DATAW fd;
    HANDLE f = FindFirstFileW((m_dir.wpath("") + L"\\*.bin").c_str(), &fd);
    ASSERT_NE(f, INVALID_HANDLE_VALUE);
    FindClose(f);
    std::wstring found = m_dir.wpath("") + L"\\" + fd.cFileName;
    HANDLE h = Open(found, GENERIC_READ | GENERIC_WRITE, 0, TRUNCATE_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD n = 0;
    EXPECT_TRUE(WriteFile(h, "again", 5, &n, nullptr));
    CloseHandle(h);
    EXPECT_EQ(ReadWholeFile(m_dir.file(name)), "again");  // the same file, not a look-alike
    EXPECT_TRUE(DeleteFileW(found.c_str()));
    EXPECT_FALSE(FileExists(m_dir.file(name)));
  }
#if !defined(_WIN32)  // there every wide name is the system's to judge
  std::wstring bad = m_dir.wpath("") + L"\\x" + wchar_t(0xD800) + L".bin";
  EXPECT_EQ(Open(bad, GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_NAME));
#endif
}

// Opening a FIFO does not wait for its other end: with no writer a reader
// opens and reads end of file, a writer without a reader fails. The test
// releases an open that waits anyway, so its thread can always be joined.
#if defined(_WIN32)
TEST_F(PlatformFilesTest, AFifoOpensWithoutWaitingForItsOtherEnd) {
  GTEST_SKIP() << "Windows file systems hold no FIFOs";
}
#else
TEST_F(PlatformFilesTest, AFifoOpensWithoutWaitingForItsOtherEnd) {
  const std::string fifo = m_dir.file("pipe");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  EXPECT_EQ(GetFileAttributesW(m_dir.wpath("pipe").c_str()), FILE_ATTRIBUTE_DEVICE);
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  HANDLE r = INVALID_HANDLE_VALUE, w = INVALID_HANDLE_VALUE;
  BOOL bRead = FALSE;
  DWORD n = 1;
  std::thread opener([&] {
    r = Open(m_dir.wpath("pipe"), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
    char c = 0;
    bRead = ReadFile(r, &c, 1, &n, nullptr);  // no writer: end of file at once
    w = Open(m_dir.wpath("pipe"), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
    done.set_value();
  });
  bool byItself = finished.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  while (finished.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
    int fd = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);  // the other end, for either open
    if (fd >= 0) ::close(fd);
  }
  opener.join();
  EXPECT_TRUE(byItself);
  ASSERT_NE(r, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(bRead);
  EXPECT_EQ(n, 0u);
  EXPECT_NE(w, INVALID_HANDLE_VALUE);  // the reader above is its other end now
  if (w != INVALID_HANDLE_VALUE) CloseHandle(w);
  CloseHandle(r);
}
#endif

TEST_F(PlatformFilesTest, DriveMapTranslatesAndReportsTypes) {
  ASSERT_TRUE(CreateDirectoryW(m_dir.wpath("e").c_str(), nullptr));
  QltSetDrive(L'e', m_dir.wpath("e").c_str(), DRIVE_UNKNOWN);
#if defined(_WIN32)
  // Native paths keep the system's backslashes there.
  EXPECT_EQ(QltNativePath(L"E:\\x\\y.dat"), QltWideToUtf8(m_dir.wpath("e/x/y.dat")));
#else
  EXPECT_EQ(QltNativePath(L"E:\\x\\y.dat"), m_dir.file("e/x/y.dat"));
#endif
  EXPECT_EQ(GetDriveTypeW(L"E:\\"), static_cast<UINT>(DRIVE_FIXED));  // a local directory
  EXPECT_EQ(GetDriveTypeW(L"Q:\\"), static_cast<UINT>(DRIVE_NO_ROOT_DIR));
  EXPECT_EQ(Open(L"Q:\\a.bin", GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
#if defined(_WIN32)
  // Wine answers ERROR_FILE_NOT_FOUND for a file on a drive it does not have.
  EXPECT_TRUE(GetLastError() == ERROR_PATH_NOT_FOUND || GetLastError() == ERROR_FILE_NOT_FOUND) << GetLastError();
#else
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
#endif

  // The default C: is a private directory the library may create files in.
  HANDLE h = Open(L"C:\\qlt-platform-test.tmp", GENERIC_WRITE, 0, CREATE_ALWAYS);
  EXPECT_NE(h, INVALID_HANDLE_VALUE);
  CloseHandle(h);
  EXPECT_TRUE(DeleteFileW(L"C:\\qlt-platform-test.tmp"));
  QltResetDriveMap();
}

}  // namespace
