// The writer-option table: what the writer and hosts rely on.
#include <gtest/gtest.h>

#include "qltfsdk/writeroption.h"

namespace {

constexpr int kDefaultBlock = 524288;

int BlockOf(const wchar_t* name) { return QLT_WriterOption::GetWriteBlockSize(CComBSTR(name)); }

// The preset size registered for name, or -1 when there is none.
long long PresetOf(const wchar_t* name) {
  ULONGLONG nSize = 77;
  if (QLT_WriterOption2::GetPresetFileSize(CComBSTR(name), nSize) > 0) return static_cast<long long>(nSize);
  EXPECT_EQ(nSize, 77u);  // nothing written when there is no preset
  return -1;
}

TEST(CompanionWriterOption, UnknownOrBadNamesAndValuesGetDefaultBlockAndNoPreset) {
  const wchar_t* const kName = L"C:\\Data\\bad-values.dat";
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(kName), 0), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(kName), -4096), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(L""), 4096), 0);
  EXPECT_EQ(QLT_WriterOption2::SetPresetFileSize(CComBSTR(), 4096), 0);
  EXPECT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(0), 0);
  for (const wchar_t* name : {kName, L"", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(BlockOf(name), kDefaultBlock);
    EXPECT_EQ(PresetOf(name), -1);
  }
}

TEST(CompanionWriterOption, NamesMatchWithoutCaseOrSeparatorStyleAndClearOnce) {
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(L"C:\\Data\\Case.DAT"), 1 << 20), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(CComBSTR(L"C:\\Data\\Case.DAT"), 5ull << 30), 1);
  EXPECT_EQ(BlockOf(L"C:/DATA/case.dat"), 1 << 20);
  EXPECT_EQ(PresetOf(L"c:\\DATA\\case.Dat"), 5ll << 30);
  EXPECT_EQ(BlockOf(L"C:\\Data\\Case.DAT2"), kDefaultBlock);                 // not matched by a prefix
  EXPECT_EQ(QLT_WriterOption::ClearItem(CComBSTR(L"c:/data/CASE.DAT")), 1);  // both go, once
  EXPECT_EQ(BlockOf(L"C:\\Data\\Case.DAT"), kDefaultBlock);
  EXPECT_EQ(PresetOf(L"C:\\Data\\Case.DAT"), -1);
  EXPECT_EQ(QLT_WriterOption::ClearItem(CComBSTR(L"C:\\Data\\Case.DAT")), 0);
}

TEST(CompanionWriterOption, ZeroPresetRemovesOnlyThePresetAndDefaultAppliesToOthers) {
  const CComBSTR strName(L"C:\\Data\\preset.dat");
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, 8192), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 123456789), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 0), 1);
  EXPECT_EQ(PresetOf(strName), -1);
  ASSERT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(1 << 21), 1);
  EXPECT_EQ(BlockOf(strName), 8192);
  EXPECT_EQ(BlockOf(L"C:\\Data\\other.dat"), 1 << 21);
  ASSERT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(kDefaultBlock), 1);
  EXPECT_EQ(QLT_WriterOption::ClearItem(strName), 1);
}

}  // namespace
