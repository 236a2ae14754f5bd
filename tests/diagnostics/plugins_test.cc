// The companion libraries the SDK loads by name: the virtual storage, its
// objects used only through their virtual operations, and the process-wide
// web plug-in (the test plug-in built beside these tests).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/virtual_storage.h"
#include "diagnostics/web_plugin.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

// Points the storage root at a fresh temporary folder for each test.
class VirtualStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    HMODULE hModule = LoadLibraryW(QLT_VIRTUALFILE_DLL);
    m_pfnSetRoot = reinterpret_cast<PFN_QltSetVirtualStorageRoot>(GetProcAddress(hModule, "QltSetVirtualStorageRoot"));
    ASSERT_NE(m_pfnSetRoot, nullptr);
    m_pfnSetRoot(m_dir.wpath("root").c_str());
  }
  void TearDown() override {
    if (m_pfnSetRoot) m_pfnSetRoot(nullptr);
  }

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

TEST_F(VirtualStorageTest, WritesReadsAndSeeksARealFileBeyondFourGibibytes) {
  VirtualFile f;
  ASSERT_NE(f.p, nullptr);
  EXPECT_EQ(f->Open(L"qvf:\\..\\outside", kReadWrite, 0, OPEN_ALWAYS), 0);  // never outside the root
  ASSERT_EQ(f->Open(L"qvf:\\pool\\clip.bin", kReadWrite, 0, CREATE_ALWAYS), 1);
  EXPECT_EQ(f->Write("0123456789", 10), 10);
  char buf[32] = {};
  EXPECT_EQ(SeekTo(f.p, 2, FILE_BEGIN), 2);
  EXPECT_EQ(f->Read(buf, sizeof buf), 8);
  EXPECT_EQ(std::string(buf, 8), "23456789");
  EXPECT_EQ(SeekTo(f.p, -3, FILE_END), 7);
  EXPECT_EQ(SeekTo(f.p, -9, FILE_CURRENT), -1);  // before the start: refused, position kept
  EXPECT_EQ(f->GetPosition(), 7);
  EXPECT_EQ(f->Close(), 1);
  EXPECT_EQ(ReadWholeFile(m_dir.file("root/pool/clip.bin")), "0123456789");
  // The upper-case prefix inside a longer path names the same file.
  ASSERT_EQ(f->Open(L"\\\\server\\share\\QVF:\\pool\\clip.bin", kReadWrite, 0, OPEN_EXISTING), 1);
  EXPECT_EQ(f->Read(buf, 4), 4);
  EXPECT_EQ(std::string(buf, 4), "0123");
  const __int64 kFar = (5LL << 30) + 3;  // a sparse file: only the tail holds data
  EXPECT_EQ(SeekTo(f.p, kFar, FILE_BEGIN), kFar);
  EXPECT_EQ(f->Write("tail", 4), 4);
  EXPECT_EQ(f->GetSize(), kFar + 4);
  EXPECT_EQ(SeekTo(f.p, -4, FILE_END), kFar);
  EXPECT_EQ(f->Read(buf, 4), 4);
  EXPECT_EQ(std::string(buf, 4), "tail");
}

TEST_F(VirtualStorageTest, WithoutTheLibraryNothingIsMadeAndDestroyCloses) {
  ASSERT_TRUE(CreateDirectoryW(m_dir.wpath("root").c_str(), nullptr));
  ASSERT_TRUE(WriteWholeFile(m_dir.file("root/there.bin"), ""));
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
  EXPECT_EQ(QltVirtualFileExists(L"qvf:\\there.bin"), 1);
  {
    VirtualFile f;
    ASSERT_EQ(f->Open(L"qvf:\\held.bin", kReadWrite, 0, CREATE_ALWAYS), 1);
  }
  // A handle left open without delete sharing would make this fail.
  EXPECT_TRUE(DeleteFileW(m_dir.wpath("root\\held.bin").c_str()));
}

class WebPluginTest : public ::testing::Test {
 protected:
  void TearDown() override { QltResetWebPluginForTest(L""); }
  const std::wstring kStub = QltUtf8ToWide(QLT_TEST_WEBPLUGIN);
};

TEST_F(WebPluginTest, MissingPluginGivesNothingUntilItCanBeLoaded) {
  TempDir dir;
  QltResetWebPluginForTest(QltUtf8ToWide(dir.file("libQLT_WebFileReader.so")));
  EXPECT_EQ(QltCreateWebFileWriter(), nullptr);
  EXPECT_EQ(QltWebFileIsExist(L"oss://bucket/exists.bin"), 0);
  QltResetWebPluginForTest(kStub);  // a failed load keeps no handle: the next user loads the plug-in
  CQltWebFile* pFile = QltCreateWebFileWriter();
  ASSERT_NE(pFile, nullptr);
  pFile->Destroy(1);
}

TEST_F(WebPluginTest, ConcurrentFirstUsersLoadThePluginOnce) {
  QltResetWebPluginForTest(kStub);
  qlt::fault::Rule rule;  // counts the loads, each taking 20 ms so that first users overlap inside it
  rule.ops = qlt::fault::kLoadLibrary;
  rule.pathPattern = L"*QLT_WebFileReader*";
  rule.times = -1;
  rule.action = qlt::fault::Action::kDelay;
  rule.delayMs = 20;
  qlt::fault::ScopedFault loads(rule);
  constexpr int kThreads = 8;
  std::atomic<int> ready{0}, objects{0}, found{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      if (i % 2 != 0) {
        found.fetch_add(QltWebFileIsExist(L"oss://bucket/exists.bin"));
      } else if (CQltWebFile* p = QltCreateWebFileWriter()) {
        objects.fetch_add(1);
        p->Destroy(1);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(loads.Fired(), 1);
  EXPECT_EQ(objects.load(), kThreads / 2);
  EXPECT_EQ(found.load(), kThreads / 2);
}

}  // namespace
