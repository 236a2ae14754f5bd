#include "fifo/fifo_disk_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fifo/fifo_test_util.h"
#include "tests/support/temp_dir.h"

namespace {

std::string NativeOf(const std::wstring& path) { return QltNativePath(path.c_str()); }

TEST(FifoDiskFileTest, NewFilesGetDistinctGuidNamesInTheFolder) {
  TempDir dir;
  CFifoDiskFile a, b;
  a.SetFolder(dir.wpath());
  b.SetFolder(dir.wpath());
  ASSERT_TRUE(a.CreateNewFile());
  ASSERT_TRUE(b.CreateNewFile());
  EXPECT_NE(a.GetFileName(), b.GetFileName());
  EXPECT_TRUE(fifotest::IsHexName(QltWideToUtf8(a.GetFileName())));
  EXPECT_EQ(a.GetPath(), dir.wpath() + L"\\" + a.GetFileName() + L".dat");
  EXPECT_TRUE(FileExists(NativeOf(a.GetPath())));
}

TEST(FifoDiskFileTest, RecordsReadBackInOrderThenLengthZero) {
  TempDir dir;
  CFifoDiskFile f;
  f.SetFolder(dir.wpath());
  std::string r1(10, 'a'), r2(20, 'b');
  ASSERT_TRUE(f.WriteRecord(r1.data(), 10));  // creates the file
  ASSERT_TRUE(f.WriteRecord(r2.data(), 20));
  ASSERT_TRUE(f.WriteRecord("", 0));  // an empty record is kept too
  EXPECT_EQ(f.GetWrittenSize(), 42u);
  f.CloseFile();
  EXPECT_EQ(ReadWholeFile(NativeOf(f.GetPath())).size(), 42u);

  std::vector<std::string> got;
  for (;;) {
    LONG n = -7;
    if (!f.ReadRecord(nullptr, n)) {
      EXPECT_EQ(n, 0);
      break;
    }
    std::string payload(static_cast<size_t>(n), '\0');
    if (n > 0) {
      ASSERT_TRUE(f.ReadRecord(payload.data(), n));
    }
    got.push_back(payload);
  }
  EXPECT_EQ(got, (std::vector<std::string>{r1, r2, ""}));
}

TEST(FifoDiskFileTest, HasRoomComparesPayloadWithTheLimit) {
  TempDir dir;
  CFifoDiskFile f;
  f.SetFolder(dir.wpath());
  std::vector<char> big(4194000 - 4, 'x');
  ASSERT_TRUE(f.WriteRecord(big.data(), static_cast<LONG>(big.size())));
  ASSERT_EQ(f.GetWrittenSize(), 4194000u);
  EXPECT_TRUE(f.HasRoom(303));
  EXPECT_FALSE(f.HasRoom(304));
}

TEST(FifoDiskFileTest, DestructionDeletesTheFile) {
  TempDir dir;
  std::string path;
  {
    CFifoDiskFile f;
    f.SetFolder(dir.wpath());
    ASSERT_TRUE(f.WriteRecord("abc", 3));
    path = NativeOf(f.GetPath());
    ASSERT_TRUE(FileExists(path));
  }
  EXPECT_FALSE(FileExists(path));
}

TEST(FifoDiskFileTest, MissingFolderFailsToCreateAndWrite) {
  TempDir dir;
  CFifoDiskFile f;
  f.SetFolder(dir.wpath("no-such-folder"));
  EXPECT_FALSE(f.CreateNewFile());
  EXPECT_FALSE(f.WriteRecord("abc", 3));
  EXPECT_EQ(f.GetWrittenSize(), 0u);
  LONG n = 1;
  EXPECT_FALSE(f.ReadRecord(nullptr, n));
  EXPECT_EQ(n, 0);
}

}  // namespace
