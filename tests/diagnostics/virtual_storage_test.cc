// The virtual-storage library as the SDK reaches it: loaded by name, objects
// made by the loader and used only through their virtual operations.
#include <gtest/gtest.h>

#include <string>

#include "diagnostics/virtual_storage.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

// Points the storage root at a fresh temporary folder for each test.
class VirtualStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    HMODULE hModule = LoadLibraryW(QLT_VIRTUALFILE_DLL);
    ASSERT_NE(hModule, nullptr);
    m_pfnSetRoot = reinterpret_cast<PFN_QltSetVirtualStorageRoot>(GetProcAddress(hModule, "QltSetVirtualStorageRoot"));
    ASSERT_NE(m_pfnSetRoot, nullptr);
    m_pfnSetRoot(m_dir.wpath("root").c_str());
  }
  void TearDown() override {
    if (m_pfnSetRoot) m_pfnSetRoot(nullptr);
  }

  std::string Stored(const std::string& relative) const { return m_dir.file("root/" + relative); }

  TempDir m_dir;
  PFN_QltSetVirtualStorageRoot m_pfnSetRoot = nullptr;
};

// Owns one object from the loader.
struct VirtualFile {
  VirtualFile() : p(QltNewVirtualFile()) {}
  ~VirtualFile() { QltDeleteVirtualFile(p); }
  CQVFVirtualFile* operator->() const { return p; }
  CQVFVirtualFile* p;
};

__int64 SeekTo(CQVFVirtualFile* f, __int64 distance, int origin) {
  int forward = origin == FILE_BEGIN || (origin == FILE_CURRENT && distance > 0) ? 1 : 0;
  return f->Seek(&distance, origin, forward);
}

TEST(VirtualStoragePathTest, OnlyTheTwoExactPrefixesAnywhereSelectTheStorage) {
  const struct {
    const wchar_t* path;
    bool virtualStorage;
  } cases[] = {
      {L"qvf:\\pool\\clip", true},
      {L"QVF:\\pool\\clip", true},
      {L"\\\\server\\share\\QVF:\\x", true},
      {L"Qvf:\\pool\\clip", false},
      {L"qvf:/pool/clip", false},
      {L"D:\\data\\clip.bin", false},
      {nullptr, false},
  };
  for (const auto& c : cases) EXPECT_EQ(QltIsVirtualStoragePath(c.path), c.virtualStorage) << (c.path ? "" : "null");
}

TEST_F(VirtualStorageTest, WritesReadsAndSeeksARealFileUnderTheRoot) {
  VirtualFile f;
  ASSERT_NE(f.p, nullptr);
  ASSERT_EQ(f->Open(L"qvf:\\pool\\clip.bin", kReadWrite, 0, CREATE_ALWAYS), 1);
  EXPECT_EQ(f->GetHandle(), static_cast<HANDLE>(f.p));
  EXPECT_EQ(f->Write("0123456789", 10), 10);
  EXPECT_EQ(f->GetPosition(), 10);
  EXPECT_EQ(f->GetSize(), 10);

  char buf[32] = {};
  EXPECT_EQ(SeekTo(f.p, 2, FILE_BEGIN), 2);
  EXPECT_EQ(f->Read(buf, sizeof buf), 8);
  EXPECT_EQ(std::string(buf, 8), "23456789");
  EXPECT_EQ(SeekTo(f.p, -3, FILE_END), 7);
  EXPECT_EQ(SeekTo(f.p, -1, FILE_CURRENT), 6);
  EXPECT_EQ(SeekTo(f.p, 2, FILE_CURRENT), 8);
  EXPECT_EQ(f->Close(), 1);
  EXPECT_EQ(ReadWholeFile(Stored("pool/clip.bin")), "0123456789");

  // The upper-case prefix in the middle of a longer path names the same file.
  ASSERT_EQ(f->Open(L"\\\\server\\share\\QVF:\\pool\\clip.bin", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING), 1);
  EXPECT_EQ(f->Read(buf, 4), 4);
  EXPECT_EQ(std::string(buf, 4), "0123");
}

TEST_F(VirtualStorageTest, RefusesBadNamesAndCallsWithoutAnOpenFile) {
  VirtualFile f;
  ASSERT_NE(f.p, nullptr);
  const wchar_t* badNames[] = {L"Qvf:\\pool\\clip", L"qvf:\\", L"qvf:\\..\\outside", L"qvf:\\a\\.\\b", nullptr};
  for (const wchar_t* name : badNames) EXPECT_EQ(f->Open(name, kReadWrite, 0, OPEN_ALWAYS), 0);
  EXPECT_EQ(f->Open(L"qvf:\\missing.bin", GENERIC_READ, 0, OPEN_EXISTING), 0);
  EXPECT_FALSE(FileExists(m_dir.file("outside")));

  char buf[4] = {};
  EXPECT_EQ(f->Read(buf, 4), 0);
  EXPECT_EQ(f->Write(buf, 4), 0);
  EXPECT_EQ(SeekTo(f.p, 0, FILE_BEGIN), -1);
  EXPECT_EQ(f->GetSize(), -1);
  EXPECT_EQ(f->GetPosition(), -1);
  EXPECT_EQ(f->Close(), 0);

  ASSERT_EQ(f->Open(L"qvf:\\a.bin", kReadWrite, 0, CREATE_ALWAYS), 1);
  EXPECT_EQ(f->Write(nullptr, 4), 0);
  EXPECT_EQ(f->Write("abcd", 4), 4);
  EXPECT_EQ(SeekTo(f.p, -5, FILE_CURRENT), -1);  // before the start: refused, position kept
  EXPECT_EQ(SeekTo(f.p, 0, 3), -1);              // no such origin
  __int64* noDistance = nullptr;
  EXPECT_EQ(f->Seek(noDistance, FILE_BEGIN, 1), -1);
  EXPECT_EQ(f->GetPosition(), 4);
}

TEST_F(VirtualStorageTest, PositionsAndSizesBeyondFourGibibytes) {
  const __int64 kFar = (5LL << 30) + 3;  // a sparse file: only the tail holds data
  VirtualFile f;
  ASSERT_NE(f.p, nullptr);
  ASSERT_EQ(f->Open(L"qvf:\\big.bin", kReadWrite, 0, CREATE_ALWAYS), 1);
  EXPECT_EQ(SeekTo(f.p, kFar, FILE_BEGIN), kFar);
  EXPECT_EQ(f->Write("tail", 4), 4);
  EXPECT_EQ(f->GetSize(), kFar + 4);
  EXPECT_EQ(f->GetPosition(), kFar + 4);
  EXPECT_EQ(SeekTo(f.p, -4, FILE_END), kFar);
  char buf[4] = {};
  EXPECT_EQ(f->Read(buf, 4), 4);
  EXPECT_EQ(std::string(buf, 4), "tail");
}

TEST_F(VirtualStorageTest, DestroyClosesTheOpenFile) {
  {
    VirtualFile f;
    ASSERT_NE(f.p, nullptr);
    ASSERT_EQ(f->Open(L"qvf:\\held.bin", kReadWrite, 0, CREATE_ALWAYS), 1);
  }
  // A handle left open without delete sharing would make this fail.
  EXPECT_TRUE(DeleteFileW(m_dir.wpath("root\\held.bin").c_str()));
}

TEST_F(VirtualStorageTest, ExistenceCheckAnswersForStorageFilesOnly) {
  ASSERT_TRUE(CreateDirectoryW(m_dir.wpath("root").c_str(), nullptr));
  ASSERT_TRUE(CreateDirectoryW(m_dir.wpath("root\\folder").c_str(), nullptr));
  ASSERT_TRUE(WriteWholeFile(Stored("there.bin"), "x"));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("plain.bin"), "x"));
  const struct {
    std::wstring path;
    int exists;
  } cases[] = {
      {L"qvf:\\there.bin", 1}, {L"QVF:\\there.bin", 1},     {L"qvf:\\missing.bin", 0},
      {L"qvf:\\folder", 0},    {L"qvf:\\..\\plain.bin", 0}, {m_dir.wpath("plain.bin"), 0},
  };
  for (const auto& c : cases) EXPECT_EQ(QltVirtualFileExists(c.path.c_str()), c.exists) << QltWideToUtf8(c.path);
}

TEST_F(VirtualStorageTest, WithoutTheLibraryNothingIsMadeAndNothingExists) {
  ASSERT_TRUE(CreateDirectoryW(m_dir.wpath("root").c_str(), nullptr));
  ASSERT_TRUE(WriteWholeFile(Stored("there.bin"), ""));
  {
    qlt::fault::Rule rule;
    rule.ops = qlt::fault::kLoadLibrary;
    rule.pathPattern = L"*QVFVirtualFileU*";
    rule.times = -1;
    rule.error = ERROR_MOD_NOT_FOUND;
    qlt::fault::ScopedFault missing(rule);
    EXPECT_EQ(QltNewVirtualFile(), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(QltVirtualFileExists(L"qvf:\\there.bin"), 0);
    EXPECT_EQ(missing.Fired(), 2);
  }
  VirtualFile f;
  EXPECT_NE(f.p, nullptr);
  EXPECT_EQ(QltVirtualFileExists(L"qvf:\\there.bin"), 1);
}

}  // namespace
