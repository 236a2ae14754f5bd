// BSTRs, text conversion, settings files, GUIDs and modules.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/guid_text.h"
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

// Every byte string comes back unchanged; bytes that are not strict UTF-8
// become one escape each (0xDC00 + byte), so no two names meet.
TEST(PlatformTextTest, NamesRoundTripByteForByte) {
  const struct {
    const char* bytes;
    std::wstring wide;
  } cases[] = {
      {"caf\xC3\xA9 \xE6\x97\xA5 \xF0\x9F\x98\x80", L"caf\u00e9 \u65e5 \U0001F600"},
      {"a\xE9"
       "b",
       std::wstring{L'a', wchar_t(0xDCE9), L'b'}},                   // Latin-1 byte alone
      {"\xC0\x80", std::wstring{wchar_t(0xDCC0), wchar_t(0xDC80)}},  // overlong zero stays two bytes
      {"\xE0\x80\xAF", std::wstring{wchar_t(0xDCE0), wchar_t(0xDC80), wchar_t(0xDCAF)}},  // overlong '/'
      {"\xED\xB3\xA9", std::wstring{wchar_t(0xDCED), wchar_t(0xDCB3), wchar_t(0xDCA9)}},  // encoded escape
      {"\xF4\x90\x80\x80", std::wstring{wchar_t(0xDCF4), wchar_t(0xDC90), wchar_t(0xDC80), wchar_t(0xDC80)}},
      {"\xE4\xB8z", std::wstring{wchar_t(0xDCE4), wchar_t(0xDCB8), L'z'}},  // cut short
      {"\xFF\xFE\x80", std::wstring{wchar_t(0xDCFF), wchar_t(0xDCFE), wchar_t(0xDC80)}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::string(c.bytes)));
    EXPECT_EQ(QltUtf8ToWide(c.bytes), c.wide);
    EXPECT_EQ(QltWideToUtf8(c.wide), c.bytes);
  }
#if defined(_WIN32)
  const char kNative[] = "\\tmp\\a\\b.txt";  // the system's calls take the Windows spelling itself
#else
  const char kNative[] = "/tmp/a/b.txt";
#endif
  EXPECT_EQ(QltWindowsPath("/tmp/a/b.txt"), L"\\tmp\\a\\b.txt");
  EXPECT_EQ(QltNativePath(L"\\tmp\\a\\b.txt"), kNative);
  EXPECT_EQ(QltNativePath((std::wstring(L"/tmp/") + wchar_t(0xDCE9)).c_str()), "/tmp/\xE9");
}

TEST(PlatformTextTest, PrivateProfileIntFollowsWindowsRules) {
  TempDir dir;
  ASSERT_TRUE(WriteWholeFile(dir.file("s.ini"),
                             "; comment\r\n[Other]\r\nSize=1\r\n[filerw]\r\n  size = -42kb \r\nSIZE=7\r\n"
                             "Text=abc\r\nHuge=99999999999999\r\nNegHuge=-99999999999999\r\nEmpty=\r\n"
                             "Quoted=\"12\"\r\nSingle='0x1F'\r\nHex=0x10\r\nNegHex=-0X10\r\nBareHex=0x\r\n"
                             "Word=abc\r\n[LOG]\r\nOn=1\r\n[filerw]\r\nLater=3\r\nSize=9\r\n"));
  std::wstring ini = dir.wpath("s.ini");
  const struct {
    const wchar_t* section;
    const wchar_t* key;
    int expected;  // with default 5
  } cases[] = {
      {L"FILERW", L"Size", -42},         // first occurrence, digits up to the first other character
      {L"FILERW", L"Huge", 2147483647},  // saturates
      {L"FILERW", L"NegHuge", -2147483647 - 1},
      {L"FILERW", L"Empty", 5},    // no value: the default
      {L"FILERW", L"Quoted", 12},  // quotes are not part of the value
      {L"FILERW", L"Single", 31},
      {L"FILERW", L"Hex", 16},
      {L"FILERW", L"NegHex", -16},
      {L"FILERW", L"BareHex", 0},  // "0" followed by a letter
      {L"FILERW", L"Word", 0},     // text without digits
      {L"FILERW", L"On", 5},       // another section's key
      {L"FILERW", L"Later", 5},    // only the first [filerw] is searched
      {L"log", L"ON", 1},
      {L"NoSuch", L"On", 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "[" << QltWideToUtf8(c.section) << "] " << QltWideToUtf8(c.key));
    EXPECT_EQ(static_cast<int>(GetPrivateProfileIntW(c.section, c.key, 5, ini.c_str())), c.expected);
  }
  EXPECT_EQ(static_cast<int>(GetPrivateProfileIntW(L"LOG", L"On", 5, dir.wpath("none.ini").c_str())), 5);

  wchar_t buf[8];
  EXPECT_EQ(GetPrivateProfileStringW(L"FILERW", L"Text", L"d", buf, 8, ini.c_str()), 3u);
  EXPECT_EQ(std::wstring(buf), L"abc");
  EXPECT_EQ(GetPrivateProfileStringW(L"FILERW", L"Quoted", L"d", buf, 8, ini.c_str()), 2u);
  EXPECT_EQ(GetPrivateProfileStringW(L"FILERW", L"Huge", L"d", buf, 8, ini.c_str()), 7u);  // cut to fit
}

// Case-sensitive comparison orders as a sorted list reads, not by code unit:
// case decides only between strings otherwise equal, lower case first.
TEST(PlatformTextTest, BstrOrderIsAlphabeticalBeforeCase) {
#if defined(_WIN32)
  const HRESULT kAccentedVsNext = VARCMP_LT;  // the system's collation puts \u00e9 among the e's
#else
  const HRESULT kAccentedVsNext = VARCMP_GT;  // our layer orders letters beyond ASCII by code unit
#endif
  const struct {
    const wchar_t* a;
    const wchar_t* b;
    ULONG flags;
    HRESULT expected;
  } cases[] = {
      {L"apple", L"Banana", 0, VARCMP_LT},  // code-unit order would put 'B' first
      {L"Zebra", L"apple", 0, VARCMP_GT},
      {L"a", L"A", 0, VARCMP_LT},
      {L"Ab", L"aB", 0, VARCMP_GT},  // the first difference in case decides
      {L"A", L"a", NORM_IGNORECASE, VARCMP_EQ},
      {L"ab", L"ABC", 0, VARCMP_LT},  // a prefix first, whatever the case
      {L"\u00e9t\u00e9", L"\u00c9T\u00c9", NORM_IGNORECASE, VARCMP_EQ},
      {L"\u00e9", L"f", 0, kAccentedVsNext},
      {L"", nullptr, 0, VARCMP_EQ},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << QltWideToUtf8(c.a) << " vs " << QltWideToUtf8(c.b ? c.b : L"(null)"));
    CComBSTR a(c.a), b(c.b);
    EXPECT_EQ(VarBstrCmp(a, b, LOCALE_USER_DEFAULT, c.flags), c.expected);
  }
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

// Cache folders and overflow files are named by this text: Data4's halves
// are little-endian numbers, not bytes in order.
TEST(PlatformTextTest, GuidTextReadsData4AsTwoLittleEndianHalves) {
  const GUID g{0x01234567, 0x89ab, 0x0def, {0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe}};
  EXPECT_EQ(GuidText(g, L"-"), L"01234567-89ab-0def-76543210-fedcba98");
  EXPECT_EQ(GuidText(g, L""), L"0123456789ab0def76543210fedcba98");
  uint8_t bytes[4];
  StoreLe32(bytes, 0x76543210);
  EXPECT_EQ(LoadLe32(bytes), 0x76543210u);
  EXPECT_EQ(bytes[0], 0x10);
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
