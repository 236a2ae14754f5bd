// The writer-option table: what the writer and hosts rely on.
#include <gtest/gtest.h>

#include "qltfsdk/writeroption.h"

namespace {

constexpr int kDefaultBlock = 524288;

TEST(CompanionWriterOption, UnknownFileGetsDefaultBlockAndNoPreset) {
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"C:\\never\\registered.dat")), kDefaultBlock);
  ULONGLONG nSize = 77;
  EXPECT_EQ(QLT_WriterOption2::GetPresetFileSize(CComBSTR(L"C:\\never\\registered.dat"), nSize), 0);
  EXPECT_EQ(nSize, 77u);
  // A null or empty name behaves as an unknown file.
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR()), kDefaultBlock);
  EXPECT_EQ(QLT_WriterOption2::GetPresetFileSize(CComBSTR(L""), nSize), 0);
}

TEST(CompanionWriterOption, NamesMatchWithoutCaseOrSeparatorStyle) {
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(L"C:\\Data\\Case.DAT"), 1 << 20), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(CComBSTR(L"C:\\Data\\Case.DAT"), 5ull << 30), 1);
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"c:\\data\\case.dat")), 1 << 20);
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"C:/DATA/CASE.dat")), 1 << 20);
  ULONGLONG nSize = 0;
  EXPECT_EQ(QLT_WriterOption2::GetPresetFileSize(CComBSTR(L"c:\\DATA\\case.Dat"), nSize), 1);
  EXPECT_EQ(nSize, 5ull << 30);
  // A different name is not matched by a prefix.
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"C:\\Data\\Case.DAT2")), kDefaultBlock);
  EXPECT_EQ(QLT_WriterOption::ClearItem(CComBSTR(L"C:\\DATA\\CASE.DAT")), 1);
}

TEST(CompanionWriterOption, BadValuesStoreNothing) {
  const CComBSTR strName(L"C:\\Data\\bad-values.dat");
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, 0), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, -4096), 0);
  EXPECT_EQ(QLT_WriterOption::SetWriteBlockSize(CComBSTR(L""), 4096), 0);
  EXPECT_EQ(QLT_WriterOption2::SetPresetFileSize(CComBSTR(), 4096), 0);
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(strName), kDefaultBlock);
  EXPECT_EQ(QLT_WriterOption::ClearItem(strName), 0);  // nothing was made
  EXPECT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(0), 0);
  EXPECT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(-1), 0);
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(strName), kDefaultBlock);
}

TEST(CompanionWriterOption, ClearItemRemovesBothOptionsOnce) {
  const CComBSTR strName(L"C:\\Data\\clear.dat");
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, 65536), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 1000000), 1);
  EXPECT_EQ(QLT_WriterOption::ClearItem(CComBSTR(L"c:\\data\\CLEAR.dat")), 1);
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(strName), kDefaultBlock);
  ULONGLONG nSize = 0;
  EXPECT_EQ(QLT_WriterOption2::GetPresetFileSize(strName, nSize), 0);
  EXPECT_EQ(QLT_WriterOption::ClearItem(strName), 0);
}

TEST(CompanionWriterOption, ZeroPresetRemovesOnlyThePreset) {
  const CComBSTR strName(L"C:\\Data\\preset.dat");
  ASSERT_EQ(QLT_WriterOption::SetWriteBlockSize(strName, 8192), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 123456789), 1);
  ASSERT_EQ(QLT_WriterOption2::SetPresetFileSize(strName, 0), 1);
  ULONGLONG nSize = 0;
  EXPECT_EQ(QLT_WriterOption2::GetPresetFileSize(strName, nSize), 0);
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(strName), 8192);
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
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(CComBSTR(L"C:\\Data\\other.dat")), 1 << 21);
  EXPECT_EQ(QLT_WriterOption::GetWriteBlockSize(strKnown), 4096);
  ASSERT_EQ(QLT_WriterOption::SetDefaultWriteBlockSize(kDefaultBlock), 1);
  QLT_WriterOption::ClearItem(strKnown);
}

}  // namespace
