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
    for (wchar_t drive : {L'Q', L'R'}) {
      fs::create_directories(m_dir.file(std::string("drive-") + static_cast<char>(drive)));
      QltSetDrive(drive, m_dir.wpath(std::string("drive-") + static_cast<char>(drive)).c_str(), DRIVE_FIXED);
    }
    m_savedRoot = CacheDriveRoot;
    SetCacheDriveRoot(L"Q:\\");
  }
  void TearDown() override {
    SetCacheDriveRoot(m_savedRoot);
    QltSetDrive(L'Q', L"", DRIVE_UNKNOWN);
    QltSetDrive(L'R', L"", DRIVE_UNKNOWN);
    WriterTest::TearDown();
  }
  // Cache folders on drive Q and drive R, as a two-digit number.
  size_t Folders() const {
    size_t n = 0;
    for (const char* dir : {"drive-Q", "drive-R"})
      for (const auto& entry : fs::directory_iterator(m_dir.file(dir)))
        n += entry.is_directory() ? (dir[6] == 'Q' ? 10 : 1) : 0;
    return n;
  }
  std::wstring m_savedRoot;
};

// The same random writes and seeks, the 31st a write of 2,000,000 bytes.
void WriteScript(QLCT_FileEx& w, uint32_t seed) {
  std::mt19937 rng(seed);
  uint64_t size = 0, pos = 0;
  for (int step = 0; step < 60; ++step) {
    if (step % 7 == 6 && size > 0) {
      LARGE_INTEGER to{};
      to.QuadPart = static_cast<LONGLONG>(pos = rng() % (size + 1));
      ASSERT_TRUE(w.SetFilePointerEx(to, nullptr, FILE_BEGIN));
      continue;
    }
    size_t n = step == 30 ? 2000000 : rng() % 70000;
    ASSERT_TRUE(WriterTest::Put(w, pos * 7 + step, n));
    size = std::max(size, pos += n);
  }
}

TEST_F(WriteCacheTest, CachedFileIsByteForByteTheUncachedFile) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    FileExPtr plain = MakeWriter(2), cached = MakeWriter(2, 1);
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
  FileExPtr w = MakeWriter(2, 1, 65536);  // records of at most 32 KiB - 4
  ASSERT_NE(Create(*w, "long.dat", 4096), nullptr);
  ASSERT_TRUE(Put(*w, 0, 200000, 1) && Put(*w, 200000, 10, 2) && Put(*w, 200010, 0, 3));
  CArray<DWORD, DWORD> list;
  for (int i = 0; i < 10000 && !(w->GetUserDataList(list, 1) && list.GetSize() >= 3); ++i) Sleep(1);
  ASSERT_EQ(list.GetSize(), 3);
  EXPECT_EQ(list[0] * 100 + list[1] * 10 + list[2], 123u);
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(Content("long.dat"), Pattern(0, 200010));
}

TEST_F(WriteCacheTest, CacheFolderLivesWhileTheFileIsOpenOnTheDriveAsked) {
  std::wstring path = m_dir.wpath("asked.dat");
  QLCT_DataPoolAccess access;
  const struct {
    int nCacheMode;     // the host's request
    DWORD registryAsk;  // a cache request with drive R in the registry
    size_t folders;     // while open: tens on drive Q, ones on drive R
  } cases[] = {{1, 0, 0}, {2, 0, 10}, {0, 1, 1}};
  for (const auto& c : cases) {
    QLCT_WRITEFILE_PROPS_ST props{SysAllocString(path.c_str()), c.registryAsk, 0, c.registryAsk ? 'R' : 0u};
    ASSERT_EQ(access.Operation(CComBSTR(L"set_WriteFileProps"), &props), 1);
    SysFreeString(props.bstrFileName);
    FileExPtr w = MakeWriter(2, c.nCacheMode);
    ASSERT_NE(Create(*w, "asked.dat", 4096), nullptr);
    EXPECT_EQ(Folders(), c.folders) << c.nCacheMode;
    char buf[4];
    DWORD n = 0;
    EXPECT_EQ(w->ReadFile(buf, 4, &n, nullptr), 0);  // cached files are not read back
    ASSERT_TRUE(Put(*w, 0, 3000));
    EXPECT_EQ(w->CloseHandle(), 1);
    EXPECT_EQ(Folders(), 0u);
    EXPECT_EQ(Content("asked.dat"), Pattern(0, 3000));
  }
  QLCT_WRITEFILE_PROPS_ST props{SysAllocString(path.c_str()), 0, 0, 0};  // withdraw the request
  access.Operation(CComBSTR(L"set_WriteFileProps"), &props);
  SysFreeString(props.bstrFileName);
}

TEST_F(WriteCacheTest, RefusedCacheSetUpOrOperatingMode) {
  SetCacheDriveRoot(L"Y:\\");  // an unmapped drive: the folder cannot be made
  EXPECT_EQ(Create(*MakeWriter(2, 2), "nofolder.dat", 4096), nullptr);
  EXPECT_TRUE(DeleteFileW(m_dir.wpath("nofolder.dat").c_str()));  // created, then closed again
  FileExPtr w = MakeWriter(1, 1);  // outside managed mode: writes, seeks and reads refused
  ASSERT_NE(Create(*w, "mode1.dat", 4096), nullptr);
  LARGE_INTEGER zero{};
  char buf[4] = {};
  DWORD n = 0;
  EXPECT_EQ(w->SetFilePointerEx(zero, nullptr, FILE_BEGIN), 0);
  EXPECT_EQ(w->ReadFile(buf, 4, &n, nullptr), 0);
  EXPECT_EQ(w->WriteFile(buf, 4, &n, nullptr), 0);
  w->CloseHandle();
}

TEST_F(WriteCacheTest, FailuresOnTheCacheThreadEndInAClosedFileAndTheErrorLog) {
  EnableErrorLog();
  FileExPtr w = MakeWriter(2, 1);
  ASSERT_NE(Create(*w, "faulty.dat", 4096), nullptr);
  qlt::fault::ScopedFault failing(FaultRule(qlt::fault::kWrite, L"*faulty.dat", qlt::fault::Action::kFail, 2, 2));
  for (int i = 0; i < 6; ++i) ASSERT_TRUE(Put(*w, i * 4096u, 4096));
  // A live cached writer answers the pool status; no more once closed.
  QLCT_DataPoolAccess access;
  QLCT_POOL_STATUS_ST status{SysAllocString(m_dir.wpath("FAULTY.DAT").c_str()), 0, 0, 0, 0};
  ASSERT_EQ(access.Operation(CComBSTR(L"get_PoolStatus"), &status), 1);
  EXPECT_EQ(status.dwFound, 1u);
  EXPECT_EQ(std::wstring(status.bstrFileName), m_dir.wpath("faulty.dat"));
  EXPECT_EQ(status.nFileLength, 6u * 4096);
  EXPECT_EQ(w->CloseHandle(), 1);  // cached failures show only in the log
  EXPECT_EQ(access.Operation(CComBSTR(L"get_PoolStatus"), &status), 0);
  SysFreeString(status.bstrFileName);
  EXPECT_EQ(failing.Fired(), 2);
  EXPECT_EQ(SizeOf("faulty.dat"), 4u * 4096);
  EXPECT_TRUE(DeleteFileW(m_dir.wpath("faulty.dat").c_str()));
  int entries = 0;
  for (const std::string& line : ErrorLogLines()) entries += line.find("write file") != std::string::npos ? 1 : 0;
  EXPECT_EQ(entries, 2);
}

}  // namespace
}  // namespace qlt::test
