// BSTRs, text conversion, settings files, GUIDs and modules.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(PlatformTextTest, BstrKeepsLengthAndComparesWithOrWithoutCase) {
  BSTR s = SysAllocStringLen(L"ab\0cd", 5);  // embedded zero counts
  EXPECT_EQ(SysStringLen(s), 5u);
  SysFreeString(s);
  SysFreeString(nullptr);
  EXPECT_EQ(SysStringLen(nullptr), 0u);

  CComBSTR a(L"C:\\Data\\File.DAT"), b(L"c:\\data\\file.dat");
  EXPECT_EQ(VarBstrCmp(a, b, LOCALE_USER_DEFAULT, NORM_IGNORECASE), VARCMP_EQ);
  EXPECT_NE(VarBstrCmp(a, b, LOCALE_USER_DEFAULT, 0), VARCMP_EQ);
  EXPECT_EQ(VarBstrCmp(nullptr, CComBSTR(L""), 0, 0), VARCMP_EQ);

  CComBSTR c = a;  // a copy owns its own string
  c.Append(L"!");
  EXPECT_EQ(a.Length() + 1, c.Length());
  CComBSTR moved = std::move(c);
  EXPECT_EQ(c.m_str, nullptr);
  BSTR owned = moved.Detach();
  SysFreeString(owned);
}

TEST(PlatformTextTest, Utf8RoundTripsAndRepairsBadBytes) {
  std::wstring w = L"caf\u00e9 \u65e5\u672c \U0001F600";
  EXPECT_EQ(QltUtf8ToWide(QltWideToUtf8(w)), w);
  EXPECT_EQ(QltUtf8ToWide("a\377b"), L"a\uFFFDb");  // a stray byte becomes U+FFFD
  EXPECT_EQ(QltWindowsPath("/tmp/a/b.txt"), L"\\tmp\\a\\b.txt");
  EXPECT_EQ(QltNativePath(L"\\tmp\\a\\b.txt"), "/tmp/a/b.txt");
}

TEST(PlatformTextTest, PrivateProfileIntFollowsWindowsRules) {
  TempDir dir;
  ASSERT_TRUE(WriteWholeFile(dir.file("s.ini"),
                             "; comment\r\n[Other]\r\nSize=1\r\n[filerw]\r\n  size = -42kb \r\nSIZE=7\r\n"
                             "Text=abc\r\nHuge=99999999999999\r\nEmpty=\r\n[LOG]\r\nOn=1\r\n"));
  std::wstring ini = dir.wpath("s.ini");
  EXPECT_EQ(static_cast<int>(GetPrivateProfileIntW(L"FILERW", L"Size", 5, ini.c_str())), -42);  // first wins
  EXPECT_EQ(static_cast<int>(GetPrivateProfileIntW(L"FILERW", L"Empty", 5, ini.c_str())), 0);
  EXPECT_EQ(static_cast<int>(GetPrivateProfileIntW(L"FILERW", L"On", 5, ini.c_str())), 5);  // other section
  EXPECT_EQ(static_cast<int>(GetPrivateProfileIntW(L"log", L"ON", 5, ini.c_str())), 1);
  EXPECT_EQ(static_cast<int>(GetPrivateProfileIntW(L"LOG", L"On", 5, dir.wpath("none.ini").c_str())), 5);

  wchar_t buf[8];
  EXPECT_EQ(GetPrivateProfileStringW(L"FILERW", L"Text", L"d", buf, 8, ini.c_str()), 3u);
  EXPECT_EQ(std::wstring(buf), L"abc");
  EXPECT_EQ(GetPrivateProfileStringW(L"FILERW", L"Huge", L"d", buf, 8, ini.c_str()), 7u);  // cut to fit
}

TEST(PlatformTextTest, GuidsAreUnique) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    GUID g{};
    ASSERT_EQ(CoCreateGuid(&g), S_OK);
    seen.insert(std::string(reinterpret_cast<const char*>(&g), sizeof(g)));
  }
  EXPECT_EQ(seen.size(), 100u);
}

TEST(PlatformTextTest, ModulesByWindowsName) {
  EXPECT_EQ(LoadLibraryW(L"NoSuchLibrary.dll"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  wchar_t name[MAX_PATH];
  ASSERT_GT(GetModuleFileNameW(nullptr, name, MAX_PATH), 0u);  // the executable
  EXPECT_NE(std::wstring(name).find(L"\\platform_test"), std::wstring::npos);
  EXPECT_EQ(GetProcAddress(QltModuleFromAddress(reinterpret_cast<const void*>(&CreateFileW)), "NoSuchFunction"),
            nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
}

}  // namespace
