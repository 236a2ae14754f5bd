// File calls: dispositions, share modes, errors, 64-bit positions and the
// fault control.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

HANDLE Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition, DWORD flags = 0) {
  return CreateFileW(path.c_str(), access, share, nullptr, disposition, flags | FILE_ATTRIBUTE_NORMAL, nullptr);
}

class PlatformFilesTest : public ::testing::Test {
 protected:
  void TearDown() override { qlt::fault::DisarmAll(); }
  TempDir m_dir;
};

TEST_F(PlatformFilesTest, DispositionsFollowWindowsRules) {
  std::wstring p = m_dir.wpath("a.bin");
  HANDLE h = Open(p, GENERIC_READ, 0, OPEN_EXISTING);
  EXPECT_EQ(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));

  h = Open(p, GENERIC_WRITE, 0, CREATE_NEW);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "hello", 5, &n, nullptr));
  EXPECT_EQ(n, 5u);
  CloseHandle(h);

  EXPECT_EQ(Open(p, GENERIC_WRITE, 0, CREATE_NEW), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_EXISTS));

  h = Open(p, GENERIC_READ, 0, OPEN_ALWAYS);  // keeps the content, reports it existed
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(GetFileSize(h, nullptr), 5u);
  CloseHandle(h);

  h = Open(p, GENERIC_WRITE, 0, CREATE_ALWAYS);  // empties it
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  LARGE_INTEGER size{};
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, 0);
  CloseHandle(h);

  EXPECT_EQ(Open(m_dir.wpath("missing\\x.bin"), GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(Open(p, GENERIC_READ, 0, TRUNCATE_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(PlatformFilesTest, ShareModesAreEnforcedBetweenHandles) {
  std::wstring p = m_dir.wpath("s.bin");
  HANDLE w = Open(p, GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS);
  ASSERT_NE(w, INVALID_HANDLE_VALUE);
  // A reader that shares writing may join; a second writer may not.
  HANDLE r = Open(p, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  EXPECT_NE(r, INVALID_HANDLE_VALUE);
  EXPECT_EQ(Open(p, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  // A reader that does not share writing conflicts with the open writer.
  EXPECT_EQ(Open(p, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
  // CREATE_ALWAYS must not empty a file it may not open.
  EXPECT_EQ(Open(p, GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
  // Deleting needs FILE_SHARE_DELETE from every open handle.
  EXPECT_FALSE(DeleteFileW(p.c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  CloseHandle(r);
  CloseHandle(w);
  EXPECT_TRUE(DeleteFileW(p.c_str()));
  EXPECT_FALSE(FileExists(m_dir.file("s.bin")));
}

TEST_F(PlatformFilesTest, SixtyFourBitPositionsAndEndOfFile) {
  std::wstring p = m_dir.wpath("big.bin");
  HANDLE h = Open(p, GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  LARGE_INTEGER at, pos{};
  at.QuadPart = 5LL * 1024 * 1024 * 1024 + 3;  // past 4 GiB: sparse
  ASSERT_TRUE(SetFilePointerEx(h, at, &pos, FILE_BEGIN));
  EXPECT_EQ(pos.QuadPart, at.QuadPart);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "xyz", 3, &n, nullptr));
  DWORD high = 0;
  DWORD low = GetFileSize(h, &high);
  EXPECT_EQ((static_cast<uint64_t>(high) << 32) | low, static_cast<uint64_t>(at.QuadPart + 3));

  LONG hi = 1;  // SetFilePointer's split form: 4 GiB + 10
  EXPECT_EQ(SetFilePointer(h, 10, &hi, FILE_BEGIN), 10u);
  EXPECT_EQ(hi, 1);
  ASSERT_TRUE(SetEndOfFile(h));
  LARGE_INTEGER size{};
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, (1LL << 32) + 10);

  at.QuadPart = -1;
  EXPECT_FALSE(SetFilePointerEx(h, at, &pos, FILE_BEGIN));
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
  EXPECT_TRUE(CloseHandle(h));
  EXPECT_FALSE(CloseHandle(h));  // closed already
}

TEST_F(PlatformFilesTest, FaultControlFailsShortensAndCounts) {
  std::wstring p = m_dir.wpath("f.bin");
  HANDLE h = Open(p, GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  std::vector<char> block(1000, 'a');
  DWORD n = 0;
  {
    qlt::fault::Rule r;
    r.ops = qlt::fault::kWrite;
    r.pathPattern = L"*f.bin";
    r.nth = 2;  // the second write fails with disk full
    r.error = ERROR_DISK_FULL;
    qlt::fault::ScopedFault f(r);
    EXPECT_TRUE(WriteFile(h, block.data(), 1000, &n, nullptr));
    EXPECT_FALSE(WriteFile(h, block.data(), 1000, &n, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(WriteFile(h, block.data(), 1000, &n, nullptr));  // fired once only
    EXPECT_EQ(f.Fired(), 1);
  }
  {
    qlt::fault::Rule r;
    r.ops = qlt::fault::kWrite;
    r.handle = h;
    r.action = qlt::fault::Action::kShort;
    r.shortBytes = 100;
    qlt::fault::ScopedFault f(r);
    EXPECT_TRUE(WriteFile(h, block.data(), 1000, &n, nullptr));
    EXPECT_EQ(n, 100u);
  }
  LARGE_INTEGER size{};
  ASSERT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, 2100);
  CloseHandle(h);

  qlt::fault::Rule reopen;  // a reopen (second open of the path) fails
  reopen.ops = qlt::fault::kOpen;
  reopen.pathPattern = L"*f.bin";
  reopen.nth = 2;
  reopen.error = ERROR_ACCESS_DENIED;
  qlt::fault::ScopedFault f(reopen);
  HANDLE first = Open(p, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
  EXPECT_NE(first, INVALID_HANDLE_VALUE);
  EXPECT_EQ(Open(p, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  CloseHandle(first);
}

TEST_F(PlatformFilesTest, DirectoriesAndSearch) {
  std::wstring d = m_dir.wpath("logs");
  ASSERT_TRUE(CreateDirectoryW(d.c_str(), nullptr));
  EXPECT_FALSE(CreateDirectoryW(d.c_str(), nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_FALSE(CreateDirectoryW(m_dir.wpath("no\\such\\level").c_str(), nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));

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
  EXPECT_EQ(FindFirstFileW(m_dir.wpath("gone\\*.txt").c_str(), &fd), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_FALSE(RemoveDirectoryW(d.c_str()));  // not empty
}

TEST_F(PlatformFilesTest, DriveMapTranslatesAndReportsTypes) {
  ASSERT_TRUE(CreateDirectoryW(m_dir.wpath("e").c_str(), nullptr));
  ASSERT_TRUE(CreateDirectoryW(m_dir.wpath("d").c_str(), nullptr));
  QltSetDrive(L'e', m_dir.wpath("e").c_str(), DRIVE_UNKNOWN);
  QltSetDrive(L'D', m_dir.wpath("d").c_str(), DRIVE_REMOVABLE);
  EXPECT_EQ(QltNativePath(L"E:\\x\\y.dat"), m_dir.file("e/x/y.dat"));
  EXPECT_EQ(GetDriveTypeW(L"E:\\"), static_cast<UINT>(DRIVE_FIXED));
  EXPECT_EQ(GetDriveTypeW(L"D:\\"), static_cast<UINT>(DRIVE_REMOVABLE));
  EXPECT_EQ(GetDriveTypeW(L"Q:\\"), static_cast<UINT>(DRIVE_NO_ROOT_DIR));
  EXPECT_EQ(Open(L"Q:\\a.bin", GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));

  wchar_t buf[MAX_PATH];
  DWORD len = GetLogicalDriveStringsW(MAX_PATH, buf);
  EXPECT_EQ(std::wstring(buf, len), std::wstring(L"C:\\\0D:\\\0E:\\\0", 12));

  // The default C: is a private directory the library may create files in.
  HANDLE h = Open(L"C:\\qlt-platform-test.tmp", GENERIC_WRITE, 0, CREATE_ALWAYS);
  EXPECT_NE(h, INVALID_HANDLE_VALUE);
  CloseHandle(h);
  EXPECT_TRUE(DeleteFileW(L"C:\\qlt-platform-test.tmp"));
  QltResetDriveMap();
}

}  // namespace
