// The writer's write cache: what reaches the file, the cache folder, the
// registry's cache requests, failures on the cache thread, and the status a
// host reads through the registry while a cached file is open.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <random>
#include <regex>

#include "tests/writer/writer_test_util.h"

// Allocations of more than this many bytes (0: none) and up to 3,000,000
// fail once, anywhere in the process: a test uses it to run the cache
// thread out of memory for a long record's buffer.
std::atomic<size_t> g_nFailAllocAbove{0};

void* Allocate(size_t n) {
  size_t above = g_nFailAllocAbove.load();
  if (above != 0 && n > above && n <= 3000000 && g_nFailAllocAbove.compare_exchange_strong(above, 0))
    throw std::bad_alloc();
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}

// Out of line, so the compiler does not pair a free() it sees with the
// operator new at the call site.
[[gnu::noinline]] void Release(void* p) noexcept { std::free(p); }

void* operator new(size_t n) { return Allocate(n); }
void* operator new[](size_t n) { return Allocate(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  try {
    return Allocate(n);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { Release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { Release(p); }

namespace qlt::test {
namespace {

namespace fs = std::filesystem;
using ::g_nFailAllocAbove;

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
  // Cache folders on drive Q and drive R, as a two-digit number; each is
  // named by the writer's GUID text.
  size_t Folders() const {
    size_t n = 0;
    const std::regex guidText("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{8}-[0-9a-f]{8}");
    for (const char* dir : {"drive-Q", "drive-R"})
      for (const auto& entry : fs::directory_iterator(m_dir.file(dir))) {
        if (!entry.is_directory()) continue;
        EXPECT_TRUE(std::regex_match(entry.path().filename().string(), guidText)) << entry.path();
        n += dir[6] == 'Q' ? 10 : 1;
      }
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

// A cache that cannot be set up fails the open with its real cause and
// leaves nothing behind: a file the open made is removed, a file that was
// there gets its length back, the preset is forgotten, no folder remains.
TEST_F(WriteCacheTest, RefusedCacheSetUpLeavesNothingAndSaysWhy) {
  const DWORD kHuge = 0x80000000u;
  const struct {
    int nCacheMode;
    DWORD nPool, nCache;  // ring sizes
    bool bUnmapped;       // the cache folder's drive is not mapped
    bool bExisting;       // the file was there before (1,234 bytes)
    DWORD error;
  } cases[] = {
      {2, 33554432, 16777216, true, false, ERROR_PATH_NOT_FOUND},
      {2, 33554432, 16777216, true, true, ERROR_PATH_NOT_FOUND},
      {1, 0, 16777216, false, false, ERROR_INVALID_PARAMETER},
      {2, 33554432, 16, false, false, ERROR_INVALID_PARAMETER},
      {1, kHuge, 16777216, false, true, ERROR_INVALID_PARAMETER},
      {1, 33554432, 0xFFFFFFFFu, false, false, ERROR_INVALID_PARAMETER},
  };
  std::wstring path = m_dir.wpath("refused.dat");
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.nPool) + " " + std::to_string(c.nCache));
    SetCacheDriveRoot(c.bUnmapped ? L"Y:\\" : L"Q:\\");
    if (c.bExisting) {
      ASSERT_TRUE(WriteWholeFile(m_dir.file("refused.dat"), std::string(1234, 'e')));
    }
    QLT_WriterOption2::SetPresetFileSize(CComBSTR(path.c_str()), 1 << 20);
    FileExPtr w(QLCT_CreateFileExObj());
    QLCT_FIlEACCESSINFO_ST info{c.nCacheMode, 2, 0, c.nPool, nullptr, 4194304, c.nCache};
    ASSERT_EQ(w->Initialize(&info), 1);
    SetLastError(NO_ERROR);
    EXPECT_EQ(w->CreateKXFile(CComBSTR(path.c_str()), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), c.error);
    EXPECT_EQ(FileExists(m_dir.file("refused.dat")) ? SizeOf("refused.dat") : 0, c.bExisting ? 1234u : 0u);
    EXPECT_EQ(FileExists(m_dir.file("refused.dat")), c.bExisting);
    ULONGLONG left = 0;
    EXPECT_EQ(QLT_WriterOption2::GetPresetFileSize(CComBSTR(path.c_str()), left), 0);
    EXPECT_EQ(Folders(), 0u);
    std::filesystem::remove(m_dir.file("refused.dat"));
  }
}

// A cache outside managed mode takes no writes, seeks or reads; close then
// reports that the accepted bytes never arrived.
TEST_F(WriteCacheTest, CacheOutsideManagedModeRefusesAndCloseSaysSo) {
  FileExPtr w = MakeWriter(1, 1);
  ASSERT_NE(Create(*w, "mode1.dat", 4096), nullptr);
  LARGE_INTEGER zero{};
  char buf[4] = {};
  DWORD n = 0;
  EXPECT_EQ(w->SetFilePointerEx(zero, nullptr, FILE_BEGIN), 0);
  EXPECT_EQ(w->ReadFile(buf, 4, &n, nullptr), 0);
  EXPECT_EQ(w->WriteFile(buf, 4, &n, nullptr), 0);
  EXPECT_EQ(w->CloseHandle(), 0);
  EXPECT_EQ(SizeOf("mode1.dat"), 0u);
}

// A block the cache thread fails to write shows in the close's result and
// error (the error log keeps its entries), and later writes fail once the
// thread has met the failure.
TEST_F(WriteCacheTest, FailuresOnTheCacheThreadFailTheCloseAndAreLogged) {
  EnableErrorLog();
  FileExPtr w = MakeWriter(2, 1);
  ASSERT_NE(Create(*w, "faulty.dat", 4096), nullptr);
  qlt::fault::ScopedFault failing(FaultRule(qlt::fault::kWrite, L"*faulty.dat", qlt::fault::Action::kFail, 2, 2));
  for (int i = 0; i < 6; ++i) Put(*w, i * 4096u, 4096);  // some may already be refused
  // A live cached writer answers the pool status; no more once closed.
  QLCT_DataPoolAccess access;
  QLCT_POOL_STATUS_ST status{SysAllocString(m_dir.wpath("FAULTY.DAT").c_str()), 0, 0, 0, 0};
  ASSERT_EQ(access.Operation(CComBSTR(L"get_PoolStatus"), &status), 1);
  EXPECT_EQ(status.dwFound, 1u);
  EXPECT_EQ(std::wstring(status.bstrFileName), m_dir.wpath("faulty.dat"));
  EXPECT_EQ(status.nFileLength, 6u * 4096);
  // Once the thread has met the failure, nothing more is taken.
  BOOL bTaken = 1;
  for (int i = 0; i < 10000 && (bTaken = Put(*w, 6 * 4096u, 4096)) != 0; ++i) Sleep(1);
  EXPECT_EQ(bTaken, 0);
  SetLastError(NO_ERROR);
  EXPECT_EQ(w->CloseHandle(), 0);
  EXPECT_EQ(GetLastError(), 29u);  // the fault's ERROR_WRITE_FAULT
  EXPECT_EQ(access.Operation(CComBSTR(L"get_PoolStatus"), &status), 0);
  SysFreeString(status.bstrFileName);
  EXPECT_GE(failing.Fired(), 1);
  EXPECT_TRUE(DeleteFileW(m_dir.wpath("faulty.dat").c_str()));
  int entries = 0;
  for (const std::string& line : ErrorLogLines()) entries += line.find("write file") != std::string::npos ? 1 : 0;
  EXPECT_EQ(entries, failing.Fired());
}

// The cache thread runs out of memory for a long record: the record is
// logged and dropped, later writes fail instead of waiting for a thread
// that writes nothing, and close reports the loss.
TEST_F(WriteCacheTest, CacheThreadOutOfMemoryFailsLaterWritesAndTheClose) {
  EnableErrorLog();
  FileExPtr w = MakeWriter(2, 1, 4194304);  // 2 MiB records at most
  ASSERT_NE(Create(*w, "oom.dat", 4096), nullptr);
  std::string big = Pattern(0, 2000000);
  ASSERT_TRUE(Put(*w, 0, 1000));
  // Three records of 1,000,000 bytes fill the thread's first buffer size:
  // the next long record wraps round the 4 MiB ring's end and must be put
  // together in a buffer that cannot grow.
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Put(*w, 1000 + i * 1000000u, 1000000));
  g_nFailAllocAbove.store(2000000);
  DWORD n = 0;
  EXPECT_EQ(w->WriteFile(big.data(), 2000000, &n, nullptr), 1);
  // Rings of 2 MiB: without the failure seen, the host would soon wait for
  // ever for room.
  int nRefused = 0;
  for (int i = 0; i < 200 && nRefused == 0; ++i) nRefused += Put(*w, 5000000, 65536) ? 0 : 1;
  EXPECT_EQ(nRefused, 1);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
  EXPECT_EQ(w->CloseHandle(), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
  g_nFailAllocAbove.store(0);
  EXPECT_TRUE(Content("oom.dat").substr(0, 3001000) == Pattern(0, 3001000));
  bool bLogged = false;
  for (const std::string& line : ErrorLogLines()) bLogged |= line.find("To write bytes :2000000") != std::string::npos;
  EXPECT_TRUE(bLogged);
}

}  // namespace
}  // namespace qlt::test
