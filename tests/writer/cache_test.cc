// The writer's write cache: what reaches the file, the cache folder, the
// registry's cache requests, failures on the cache thread, and the status a
// host reads through the registry while a cached file is open.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "tests/writer/writer_test_util.h"

namespace qlt::test {
namespace {

namespace fs = std::filesystem;

class WriteCacheTest : public WriterTest {
 protected:
  void SetUp() override {
    WriterTest::SetUp();
    fs::create_directories(m_dir.file("drive-q"));
    QltSetDrive(L'Q', m_dir.wpath("drive-q").c_str(), DRIVE_FIXED);
    m_savedRoot = CacheDriveRoot;
    SetCacheDriveRoot(L"Q:\\");
  }
  void TearDown() override {
    SetCacheDriveRoot(m_savedRoot);
    QltSetDrive(L'Q', L"", DRIVE_UNKNOWN);
    QltSetDrive(L'R', L"", DRIVE_UNKNOWN);
    WriterTest::TearDown();
  }

  static FileExPtr MakeCachedWriter(int nCacheMode, int nOpMode = 2, DWORD nPoolBytes = 33554432) {
    FileExPtr w(QLCT_CreateFileExObj());
    QLCT_FIlEACCESSINFO_ST info{nCacheMode, nOpMode, 0, nPoolBytes, nullptr, 4194304, nPoolBytes / 2};
    if (w && !w->Initialize(&info)) w.reset();
    return w;
  }
  // Folders on a drive's directory (the cache folders).
  size_t FoldersIn(const std::string& dir) const {
    size_t n = 0;
    for (const auto& entry : fs::directory_iterator(m_dir.file(dir))) n += entry.is_directory() ? 1 : 0;
    return n;
  }
  // Waits (bounded) until the cache thread has recorded n user-data values.
  static bool WaitForUserData(QLCT_FileEx& w, int n, CArray<DWORD, DWORD>* pList) {
    for (int i = 0; i < 10000; ++i) {
      if (w.GetUserDataList(*pList, 1) && pList->GetSize() >= n) return true;
      Sleep(1);
    }
    return false;
  }

  // The same random writes and seeks, with and without the cache.
  static void WriteScript(QLCT_FileEx& w, uint32_t seed) {
    std::mt19937 rng(seed);
    uint64_t size = 0, pos = 0;
    for (int step = 0; step < 60; ++step) {
      if (step % 7 == 6 && size > 0) {
        pos = rng() % (size + 1);
        LARGE_INTEGER to{};
        to.QuadPart = static_cast<LONGLONG>(pos);
        ASSERT_TRUE(w.SetFilePointerEx(to, nullptr, FILE_BEGIN));
        continue;
      }
      size_t n = step == 30 ? 2000000 : rng() % 70000;
      ASSERT_TRUE(Put(w, pos * 7 + step, n));
      pos += n;
      if (pos > size) size = pos;
    }
  }

  std::wstring m_savedRoot;
};

TEST_F(WriteCacheTest, CachedFileIsByteForByteTheUncachedFile) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    FileExPtr plain = MakeWriter(2);
    FileExPtr cached = MakeCachedWriter(1);
    ASSERT_NE(Create(*plain, "plain.dat", 4096), nullptr);
    ASSERT_NE(Create(*cached, "cached.dat", 4096), nullptr);
    WriteScript(*plain, seed);
    WriteScript(*cached, seed);
    EXPECT_EQ(cached->CloseHandle(), 1);
    EXPECT_EQ(plain->CloseHandle(), 1);
    EXPECT_EQ(Content("cached.dat"), Content("plain.dat")) << "seed " << seed;
  }
}

TEST_F(WriteCacheTest, WritesLongerThanOneRecordAndUserDataInOrder) {
  FileExPtr w = MakeCachedWriter(1, 2, 65536);  // records of at most 32 KiB - 4
  ASSERT_NE(Create(*w, "long.dat", 4096), nullptr);
  ASSERT_TRUE(Put(*w, 0, 200000, 1));
  ASSERT_TRUE(Put(*w, 200000, 10, 2));
  ASSERT_TRUE(Put(*w, 200010, 0, 3));
  CArray<DWORD, DWORD> list;
  ASSERT_TRUE(WaitForUserData(*w, 3, &list));
  ASSERT_EQ(list.GetSize(), 3);
  EXPECT_EQ(list[0] * 100 + list[1] * 10 + list[2], 123u);
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(Content("long.dat"), Pattern(0, 200010));
}

TEST_F(WriteCacheTest, DiskCacheFolderLivesWhileTheFileIsOpen) {
  const struct {
    int nCacheMode;
    size_t foldersWhileOpen;
  } cases[] = {{1, 0}, {2, 1}};
  for (const auto& c : cases) {
    FileExPtr w = MakeCachedWriter(c.nCacheMode);
    ASSERT_NE(Create(*w, "mode.dat", 4096), nullptr);
    EXPECT_EQ(FoldersIn("drive-q"), c.foldersWhileOpen) << c.nCacheMode;
    ASSERT_TRUE(Put(*w, 0, 5000));
    EXPECT_EQ(w->CloseHandle(), 1);
    EXPECT_EQ(FoldersIn("drive-q"), 0u) << c.nCacheMode;
    EXPECT_EQ(Content("mode.dat"), Pattern(0, 5000));
  }
}

TEST_F(WriteCacheTest, RegistryRequestForcesTheCacheOnItsDrive) {
  fs::create_directories(m_dir.file("drive-r"));
  QltSetDrive(L'R', m_dir.wpath("drive-r").c_str(), DRIVE_FIXED);
  std::wstring path = m_dir.wpath("asked.dat");
  QLCT_WRITEFILE_PROPS_ST props{SysAllocString(path.c_str()), 1, 0, 'R'};
  QLCT_DataPoolAccess access;
  ASSERT_EQ(access.Operation(CComBSTR(L"set_WriteFileProps"), &props), 1);
  SysFreeString(props.bstrFileName);

  FileExPtr w = MakeWriter(2);  // no cache asked for by the host
  ASSERT_NE(Create(*w, "asked.dat", 4096), nullptr);
  EXPECT_EQ(FoldersIn("drive-r"), 1u);
  EXPECT_EQ(FoldersIn("drive-q"), 0u);
  char buf[4];
  DWORD n = 0;
  EXPECT_EQ(w->ReadFile(buf, 4, &n, nullptr), 0);  // cached files are not read back
  ASSERT_TRUE(Put(*w, 0, 3000));
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(FoldersIn("drive-r"), 0u);
  EXPECT_EQ(Content("asked.dat"), Pattern(0, 3000));

  props = {SysAllocString(path.c_str()), 0, 0, 0};  // withdraw the request for later tests
  access.Operation(CComBSTR(L"set_WriteFileProps"), &props);
  SysFreeString(props.bstrFileName);
}

TEST_F(WriteCacheTest, FailedCacheSetUpFailsTheOpenAndClosesTheFile) {
  SetCacheDriveRoot(L"Y:\\");  // an unmapped drive: the folder cannot be made
  FileExPtr w = MakeCachedWriter(2);
  EXPECT_EQ(Create(*w, "nofolder.dat", 4096), nullptr);
  // The file was created and closed again: nothing holds it open.
  EXPECT_TRUE(DeleteFileW(m_dir.wpath("nofolder.dat").c_str()));
}

TEST_F(WriteCacheTest, CacheOutsideManagedModeRefusesWritesSeeksAndReads) {
  FileExPtr w = MakeCachedWriter(1, 1);
  ASSERT_NE(Create(*w, "mode1.dat", 4096), nullptr);
  LARGE_INTEGER zero{};
  char buf[4] = {};
  DWORD n = 0;
  EXPECT_EQ(w->SetFilePointerEx(zero, nullptr, FILE_BEGIN), 0);
  EXPECT_EQ(w->ReadFile(buf, 4, &n, nullptr), 0);
  EXPECT_EQ(w->WriteFile(buf, 4, &n, nullptr), 0);
  w->CloseHandle();
}

TEST_F(WriteCacheTest, WriteFailuresOnTheCacheThreadEndInAClosedFileAndTheErrorLog) {
  EnableErrorLog();
  FileExPtr w = MakeCachedWriter(1);
  ASSERT_NE(Create(*w, "faulty.dat", 4096), nullptr);
  qlt::fault::Rule rule;
  rule.ops = qlt::fault::kWrite;
  rule.pathPattern = L"*faulty.dat";
  rule.nth = 2;
  rule.times = 2;
  qlt::fault::ScopedFault failing(rule);
  for (int i = 0; i < 6; ++i) ASSERT_TRUE(Put(*w, i * 4096u, 4096));
  EXPECT_EQ(w->CloseHandle(), 1);  // cached failures show only in the log
  EXPECT_EQ(failing.Fired(), 2);
  EXPECT_EQ(SizeOf("faulty.dat"), 4u * 4096);
  EXPECT_TRUE(DeleteFileW(m_dir.wpath("faulty.dat").c_str()));
  int entries = 0;
  for (const std::string& line : ErrorLogLines()) entries += line.find("write file") != std::string::npos ? 1 : 0;
  EXPECT_EQ(entries, 2);
}

TEST_F(WriteCacheTest, LiveWriterAnswersPoolStatusUntilClosed) {
  FileExPtr w = MakeCachedWriter(1);
  ASSERT_NE(Create(*w, "live.dat", 4096), nullptr);
  ASSERT_TRUE(Put(*w, 0, 10000));
  QLCT_DataPoolAccess access;
  QLCT_POOL_STATUS_ST status{SysAllocString(m_dir.wpath("LIVE.DAT").c_str()), 0, 0, 0, 0};
  ASSERT_EQ(access.Operation(CComBSTR(L"get_PoolStatus"), &status), 1);
  EXPECT_EQ(status.dwFound, 1u);
  EXPECT_EQ(std::wstring(status.bstrFileName), m_dir.wpath("live.dat"));
  EXPECT_EQ(status.nFileLength, 10000u);
  EXPECT_EQ(status.nPendingBytes, 10000u);
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(access.Operation(CComBSTR(L"get_PoolStatus"), &status), 0);
  SysFreeString(status.bstrFileName);
}

}  // namespace
}  // namespace qlt::test
