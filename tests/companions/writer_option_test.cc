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

TEST(CompanionWriterOption, UnknownOrBadNamesGetDefaultBlockAndNoPreset) {
  EXPECT_EQ(BlockOf(L"C:\\never\\registered.dat"), kDefaultBlock);
  EXPECT_EQ(PresetOf(L"C:\\never\\registered.dat"), -1);
  EXPECT_EQ(BlockOf(nullptr), kDefaultBlock);
  EXPECT_EQ(PresetOf(L""), -1);
  // Bad values store nothing.
  const CComBSTR strName(L"C:\\Data\\bad-values.dat");
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, 0), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, -4096), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(L""), 4096), 0);
  EXPECT_EQ(QLT_WriterOption2::SetPresetFileSize(CComBSTR(), 4096), 0);
  EXPECT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(0), 0);
  EXPECT_EQ(QLT_WriterOption::ClearItem(strName), 0);  // nothing was made
  EXPECT_EQ(BlockOf(strName), kDefaultBlock);
}

TEST(CompanionWriterOption, NamesMatchWithoutCaseOrSeparatorStyle) {
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(L"C:\\Data\\Case.DAT"), 1 << 20), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(CComBSTR(L"C:\\Data\\Case.DAT"), 5ull << 30), 1);
  EXPECT_EQ(BlockOf(L"c:\\data\\case.dat"), 1 << 20);
  EXPECT_EQ(BlockOf(L"C:/DATA/CASE.dat"), 1 << 20);
  EXPECT_EQ(PresetOf(L"c:\\DATA\\case.Dat"), 5ll << 30);
  EXPECT_EQ(BlockOf(L"C:\\Data\\Case.DAT2"), kDefaultBlock);                 // not matched by a prefix
  EXPECT_EQ(QLT_WriterOption::ClearItem(CComBSTR(L"c:/data/CASE.DAT")), 1);  // both go, once
  EXPECT_EQ(BlockOf(L"C:\\Data\\Case.DAT"), kDefaultBlock);
  EXPECT_EQ(PresetOf(L"C:\\Data\\Case.DAT"), -1);
  EXPECT_EQ(QLT_WriterOption::ClearItem(CComBSTR(L"C:\\Data\\Case.DAT")), 0);
}

TEST(CompanionWriterOption, ZeroPresetRemovesOnlyThePreset) {
  const CComBSTR strName(L"C:\\Data\\preset.dat");
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, 8192), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 123456789), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 0), 1);
  EXPECT_EQ(PresetOf(L"C:\\Data\\preset.dat"), -1);
  EXPECT_EQ(BlockOf(strName), 8192);
  EXPECT_EQ(QLT_WriterOption::ClearItem(strName), 1);
  // A preset alone, cleared by a zero, leaves no entry behind.
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 42), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 0), 1);
  EXPECT_EQ(QLT_WriterOption::ClearItem(strName), 0);
}

TEST(CompanionWriterOption, DefaultBlockSizeAppliesOnlyToUnregisteredFiles) {
  const CComBSTR strKnown(L"C:\\Data\\known.dat");
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(strKnown, 4096), 1);
  ASSERT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(1 << 21), 1);
  EXPECT_EQ(BlockOf(L"C:\\Data\\other.dat"), 1 << 21);
  EXPECT_EQ(BlockOf(strKnown), 4096);
  ASSERT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(kDefaultBlock), 1);
  QLT_WriterOption::ClearItem(strKnown);
}

}  // namespace
