// The process-wide web plug-in as the writer and FileIsExist reach it,
// loaded from the test plug-in built beside these tests.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/web_plugin.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

const std::wstring kStub = QltUtf8ToWide(QLT_TEST_WEBPLUGIN);

// Counts the loads of the test plug-in (a delay rule fires on each call it
// matches and lets the call proceed).
qlt::fault::Rule LoadCounter(DWORD delayMs) {
  qlt::fault::Rule rule;
  rule.ops = qlt::fault::kLoadLibrary;
  rule.pathPattern = L"*QLT_WebFileReader*";
  rule.times = -1;
  rule.action = qlt::fault::Action::kDelay;
  rule.delayMs = delayMs;
  return rule;
}

class WebPluginTest : public ::testing::Test {
 protected:
  void SetUp() override { QltResetWebPluginForTest(kStub); }
  void TearDown() override { QltResetWebPluginForTest(L""); }
};

TEST(WebPluginSchemeTest, SchemeIsTheUpperCasedTextBeforeTheFirstSeparator) {
  const struct {
    const wchar_t* path;
    const wchar_t* scheme;
  } cases[] = {
      {L"ftp://host/a.bin", L"FTP"}, {L"Oss://bucket/a", L"OSS"}, {L"a://b://c", L"A"},
      {L"C:\\data\\a.bin", L""},     {L"http:/host/a", L""},      {nullptr, L""},
  };
  for (const auto& c : cases) EXPECT_EQ(QltUrlScheme(c.path), c.scheme);
}

TEST_F(WebPluginTest, MissingPluginGivesNothingUntilItCanBeLoaded) {
  TempDir dir;
  QltResetWebPluginForTest(QltUtf8ToWide(dir.file("libQLT_WebFileReader.so")));
  EXPECT_EQ(QltCreateWebFileWriter(), nullptr);
  EXPECT_EQ(QltWebFileIsExist(L"oss://bucket/exists.bin"), 0);

  // A failed load keeps no handle: the next user loads the plug-in.
  QltResetWebPluginForTest(kStub);
  CQltWebFile* pFile = QltCreateWebFileWriter();
  ASSERT_NE(pFile, nullptr);
  CComBSTR path(L"ftp://host/out.bin");
  EXPECT_GT(pFile->SetOrOpen(path), 0);
  EXPECT_EQ(pFile->Write("hello", 5), 5);
  EXPECT_EQ(pFile->GetSize(), 5);
  EXPECT_EQ(pFile->Seek(1, 0), 1);
  char buf[8] = {};
  EXPECT_EQ(pFile->Read(buf, sizeof buf), 4);
  EXPECT_EQ(std::string(buf, 4), "ello");
  EXPECT_EQ(pFile->Close(), 1);
  pFile->Destroy(1);
}

TEST_F(WebPluginTest, ExistenceCheckSkipsIndexFilesAndLoadsOnce) {
  qlt::fault::ScopedFault loads(LoadCounter(0));
  const struct {
    const wchar_t* path;
    int exists;
    int loadsAfter;
  } cases[] = {
      {L"http://host/exists.INX", 0, 0},  // answered without the plug-in
      {L"oss://bucket/exists.bin", 1, 1}, {L"https://host/missing.bin", 0, 1},
      {L"ftp://host/exists.inx", 0, 1},   {L"ftp://host/exists.inx2", 1, 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(QltWebFileIsExist(c.path), c.exists) << QltWideToUtf8(c.path);
    EXPECT_EQ(loads.Fired(), c.loadsAfter) << QltWideToUtf8(c.path);
  }
}

TEST_F(WebPluginTest, ConcurrentFirstUsersLoadThePluginOnce) {
  // Each load takes 20 ms, so first users overlap inside the load.
  qlt::fault::ScopedFault loads(LoadCounter(20));
  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::atomic<int> objects{0};
  std::atomic<int> found{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      if (i % 2 == 0) {
        if (CQltWebFile* p = QltCreateWebFileWriter()) {
          objects.fetch_add(1);
          p->Destroy(1);
        }
      } else {
        found.fetch_add(QltWebFileIsExist(L"oss://bucket/exists.bin"));
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(loads.Fired(), 1);
  EXPECT_EQ(objects.load(), kThreads / 2);
  EXPECT_EQ(found.load(), kThreads / 2);
}

}  // namespace
