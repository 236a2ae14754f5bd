// The writer's web and virtual-storage branches: the calls a web-file
// plug-in receives (option words included), a plug-in that is absent or
// refuses the path, and a file of the virtual storage.
#include <gtest/gtest.h>

#include "diagnostics/virtual_storage.h"
#include "diagnostics/web_plugin.h"
#include "tests/writer/writer_test_util.h"

namespace qlt::test {
namespace {

typedef void (*PFN_TakeCalls)(char* buf, size_t size);

class WriterPluginTest : public WriterTest {
 protected:
  void SetUp() override {
    WriterTest::SetUp();
    m_strPlugin = QltWindowsPath(QLT_TEST_WEBPLUGIN_DIR) + L"\\QLT_WebFileReader.dll";
    QltResetWebPluginForTest(m_strPlugin);
  }
  void TearDown() override {
    QltResetWebPluginForTest(L"");
    WriterTest::TearDown();
  }
  // The calls the recording plug-in got since the last look, joined by '|'.
  std::string TakeCalls() const {
    HMODULE h = LoadLibraryW(m_strPlugin.c_str());
    if (!h) return "<no plug-in>";
    auto pfn = reinterpret_cast<PFN_TakeCalls>(GetProcAddress(h, "QltTestTakeWebCalls"));
    char buf[4096] = {};
    if (pfn) pfn(buf, sizeof buf);
    FreeLibrary(h);
    return buf;
  }
  static HANDLE Open(QLCT_FileEx& w, const wchar_t* url, const char* options) {
    SECURITY_ATTRIBUTES sa{};
    sa.nLength = options ? static_cast<DWORD>(strlen(options)) : 0;
    sa.lpSecurityDescriptor = const_cast<char*>(options);
    return w.CreateKXFile(CComBSTR(url), GENERIC_WRITE, 0, options ? &sa : nullptr, CREATE_ALWAYS, 0, nullptr);
  }

  std::wstring m_strPlugin;
};

TEST_F(WriterPluginTest, OptionWordsReachThePluginBeforeThePath) {
  struct Case {
    const char* options;  // null: no security-attributes argument
    const char* calls;
  };
  const Case cases[] = {
      {"PublicWebFile PutMode", "SetOrOpen PublicWebFile|SetOrOpen PutMode|"},
      {"PublicWebFile", "SetOrOpen PublicWebFile|"},
      {"PutMode", "SetOrOpen PutMode|"},
      {"Put", ""},
      {nullptr, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options ? c.options : "(none)");
    FileExPtr w = MakeWriter();
    ASSERT_TRUE(w);
    TakeCalls();
    ASSERT_NE(Open(*w, L"FtP://127.0.0.1/dir/a.bin", c.options), nullptr);
    EXPECT_EQ(TakeCalls(), std::string("CreateWebFileWriter|") + c.calls + "SetOrOpen FtP://127.0.0.1/dir/a.bin");
  }
}

TEST_F(WriterPluginTest, WebFileOperationsGoToThePlugin) {
  FileExPtr w = MakeWriter(2);
  ASSERT_TRUE(w);
  HANDLE h = Open(*w, L"oss://bucket/b.bin", nullptr);
  ASSERT_NE(h, nullptr);
  TakeCalls();
  DWORD n = 0;
  EXPECT_EQ(w->WriteFile("hello", 5, &n, nullptr, 3), 1);
  EXPECT_EQ(n, 5u);
  EXPECT_EQ(w->SetFilePointer(1, nullptr, FILE_BEGIN), 1u);
  char buf[8] = {};
  EXPECT_EQ(w->ReadFile(buf, 8, &n, nullptr), 1);
  EXPECT_EQ(std::string(buf, n), "ello");
  DWORD high = 7;
  EXPECT_EQ(w->GetFileSize(&high), 5u);
  EXPECT_EQ(high, 0u);
  CArray<DWORD, DWORD> list;
  EXPECT_EQ(w->GetUserDataList(list, 1), 1);  // not kept for web files
  EXPECT_EQ(list.GetSize(), 0);
  EXPECT_EQ(w->SetFilePointer(-10, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(TakeCalls(), "Write 5|Seek 1 0|Read 8|GetSize|Seek -10 0|Close");
  w.reset();
  EXPECT_EQ(TakeCalls(), "Destroy 1");
}

TEST_F(WriterPluginTest, RefusedPathOtherSchemesAndAbsentPlugin) {
  FileExPtr w = MakeWriter();
  ASSERT_TRUE(w);
  TakeCalls();
  EXPECT_EQ(Open(*w, L"ftp://127.0.0.1/refuse.bin", nullptr), nullptr);
  EXPECT_EQ(TakeCalls(), "CreateWebFileWriter|SetOrOpen ftp://127.0.0.1/refuse.bin|Destroy 1");

  // Other schemes are not web files for the writer.
  FileExPtr local = MakeWriter();
  ASSERT_TRUE(local);
  EXPECT_EQ(Open(*local, L"http://127.0.0.1/x.bin", nullptr), nullptr);
  EXPECT_EQ(TakeCalls(), "");

  QltResetWebPluginForTest(m_dir.wpath("absent\\QLT_WebFileReader.dll"));
  FileExPtr lone = MakeWriter();
  ASSERT_TRUE(lone);
  EXPECT_EQ(Open(*lone, L"ftp://127.0.0.1/a.bin", "PutMode"), nullptr);
  EXPECT_EQ(lone->WriteFile("a", 1, nullptr, nullptr), 0);
}

TEST_F(WriterPluginTest, VirtualStorageFileIsWrittenThroughTheLibrary) {
  HMODULE hModule = LoadLibraryW(QLT_VIRTUALFILE_DLL);
  ASSERT_NE(hModule, nullptr);
  auto pfnSetRoot = reinterpret_cast<PFN_QltSetVirtualStorageRoot>(GetProcAddress(hModule, "QltSetVirtualStorageRoot"));
  ASSERT_NE(pfnSetRoot, nullptr);
  pfnSetRoot(m_dir.wpath("root").c_str());
  {
    FileExPtr w = MakeWriter(2);
    ASSERT_TRUE(w);
    ASSERT_NE(w->CreateKXFile(CComBSTR(L"qvf:\\pool\\clip.bin"), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                              CREATE_ALWAYS, 0, nullptr),
              nullptr);
    DWORD n = 99;
    EXPECT_EQ(w->WriteFile("abcdef", 6, &n, nullptr), 1);
    EXPECT_EQ(n, 99u);  // left as the host set it
    LARGE_INTEGER back{}, pos{};
    back.QuadPart = -2;
    EXPECT_EQ(w->SetFilePointerEx(back, &pos, FILE_CURRENT), 1);
    EXPECT_EQ(pos.QuadPart, 4);
    char buf[4] = {};
    EXPECT_EQ(w->ReadFile(buf, 4, &n, nullptr), 1);
    EXPECT_EQ(std::string(buf, n), "ef");
    LARGE_INTEGER size{};
    EXPECT_EQ(w->GetFileSizeEx(&size), 1);
    EXPECT_EQ(size.QuadPart, 6);
    EXPECT_EQ(w->CloseHandle(), 1);
  }
  EXPECT_EQ(Content("root/pool/clip.bin"), "abcdef");
  pfnSetRoot(nullptr);
  FreeLibrary(hModule);
}

}  // namespace
}  // namespace qlt::test
