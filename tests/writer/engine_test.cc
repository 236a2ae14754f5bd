// The writer without faults: the facade's lifecycle, the block arithmetic
// the file system sees, the forced flush, preset size and trim, seeks and
// sizes in both modes, files above 4 GiB, attach and the user-data list.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "tests/writer/writer_test_util.h"

namespace qlt::test {
namespace {

using qlt::fault::ScopedFault;

TEST_F(WriterTest, FacadeWithoutImplementationOrFileFailsEveryCall) {
  EXPECT_EQ(QLCT_DeleteFileExObj(nullptr), 1);
  QLCT_FileEx bare;
  char buf[4] = {};
  DWORD n = 0;
  LARGE_INTEGER li{};
  CArray<DWORD, DWORD> list;
  EXPECT_EQ(bare.Attach(reinterpret_cast<HANDLE>(1), CComBSTR(L"y.dat")), 0);
  for (const char* name : {"x.dat", "missing\\x.dat"}) {  // no implementation, then a failed create
    EXPECT_EQ(Create(bare, name, 0), nullptr);
    EXPECT_EQ((std::vector<int64_t>{bare.GetFileSize(nullptr), bare.SetFilePointer(0, nullptr, FILE_BEGIN),
                                    bare.GetFileSizeEx(&li), bare.SetFilePointerEx(li, nullptr, FILE_BEGIN),
                                    bare.ReadFile(buf, 4, &n, nullptr), bare.WriteFile(buf, 4, &n, nullptr),
                                    bare.WriteFile(buf, 4, &n, nullptr, 7), bare.GetUserDataList(list, 1),
                                    bare.CloseHandle()}),
              std::vector<int64_t>(9, 0));
    EXPECT_EQ(bare.Initialize(nullptr), 1);
  }
  EXPECT_FALSE(FileExists(m_dir.file("x.dat")));
  std::string log = ReadWholeFile(m_dir.file("logbook/QltLogBook/QltLogBook.log"));
  EXPECT_TRUE(std::regex_search(
      log, std::regex(R"(KxFileEx CreateFile error! lastError: [1-9]\d* fileName: .*missing.x\.dat)")))
      << log;
}

TEST_F(WriterTest, FileSystemSeesOnlyWholeBlocks) {
  FileExPtr w = MakeWriter();
  ASSERT_NE(Create(*w, "w.dat", 1000), nullptr);
  ScopedFault writes(FaultRule(qlt::fault::kWrite, L"*w.dat"));
  // One host write each: its length, file-system writes so far, file size so far.
  const struct {
    size_t length;
    int totalWrites;
    uint64_t onDisk;
  } steps[] = {
      {999, 0, 0},      // staged only
      {1, 1, 1000},     // completes one block
      {3500, 4, 4000},  // three blocks, 500 staged
      {500, 5, 5000},   // exactly the free room: written at once, nothing staged
      {0, 5, 5000},     // nothing
      {2000, 7, 7000},  // two whole blocks straight from the host's buffer
      {1234, 8, 8000},  // one block, 234 staged
  };
  uint64_t pos = 0;
  for (const auto& s : steps) {
    EXPECT_EQ(Put(*w, pos, s.length), 1) << s.length;
    pos += s.length;
    EXPECT_EQ(writes.Fired(), s.totalWrites) << "after " << s.length;
    EXPECT_EQ(SizeOf("w.dat"), s.onDisk) << "after " << s.length;
  }
  EXPECT_EQ(w->CloseHandle(), 1);  // the 234 staged bytes go out at close
  EXPECT_EQ(writes.Fired(), 9);
  EXPECT_EQ(Content("w.dat"), Pattern(0, pos));
}

// Opened without system buffering and with write-through, the file takes
// only sector-aligned transfers from sector-aligned memory: the writer's
// staged blocks must meet that, whether a host write fills the staging
// buffer or is written straight from the host's (aligned) buffer.
TEST_F(WriterTest, UnbufferedWriteThroughFileGetsAlignedBlocks) {
  FileExPtr w = MakeWriter();
  const std::wstring path = m_dir.wpath("direct.dat");
  const int nBlock = 65536;
  QLT_WriterOption::SetWriteBlockSize(CComBSTR(path.c_str()), nBlock);
  ASSERT_NE(w->CreateKXFile(CComBSTR(path.c_str()), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_FLAG_NO_BUFFERING | FILE_FLAG_WRITE_THROUGH, nullptr),
            nullptr);
  const std::string data = Pattern(0, 5 * nBlock);
  auto* pHost = static_cast<BYTE*>(VirtualAlloc(nullptr, data.size(), MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
  ASSERT_NE(pHost, nullptr);
  std::copy(data.begin(), data.end(), pHost);
  // Staged pieces that make whole blocks, then two blocks straight through.
  size_t pos = 0;
  for (size_t n : {size_t{4096}, size_t{nBlock - 4096}, size_t{nBlock / 2}, size_t{nBlock / 2}, size_t{2 * nBlock},
                   size_t{nBlock}}) {
    DWORD written = 0;
    EXPECT_EQ(w->WriteFile(pHost + pos, static_cast<DWORD>(n), &written, nullptr, 0), 1)
        << pos << " " << GetLastError();
    pos += n;
  }
  EXPECT_EQ(w->CloseHandle(), 1);
  VirtualFree(pHost, 0, MEM_RELEASE);
  EXPECT_TRUE(Content("direct.dat") == data);  // not printed: 320 KiB
}

TEST_F(WriterTest, FlushIsForcedOnlyPast16MiB) {
  FileExPtr w = MakeWriter();
  ASSERT_NE(Create(*w, "f.dat", 1 << 20), nullptr);
  ScopedFault flushes(FaultRule(qlt::fault::kFlush, L"*f.dat"));
  std::string block = Pattern(0, 1 << 20);
  DWORD n = 0;
  // Exactly 16 MiB does not flush; one more block does, and the count starts again.
  for (auto [blocks, expected] : {std::pair{16, 0}, {1, 1}, {16, 1}, {1, 2}}) {
    for (int i = 0; i < blocks; ++i) ASSERT_EQ(w->WriteFile(block.data(), 1 << 20, &n, nullptr), 1);
    EXPECT_EQ(flushes.Fired(), expected);
  }
  EXPECT_EQ(w->CloseHandle(), 1);
}

// The durability bound, for host slices smaller than, equal to and larger
// than a block, with and without retries: when a WriteFile returns, at most
// 16 MiB plus one block of the bytes it accepted since the last flush are
// not yet flushed. The counts cannot place a flush inside a call, so a call
// that flushed is taken to have flushed everything it wrote (the kindest
// reading); a call that did not flush adds all it wrote.
TEST_F(WriterTest, NoWriteReturnsWithMoreThan16MiBAndABlockUnflushed) {
  const uint64_t kBlock = 1 << 20, kBound = (16u << 20) + kBlock;
  const std::string data = Pattern(0, 3 * kBlock);
  for (int retries : {0, 1}) {
    SdkSettings.WriteRetryCount = retries;
    FileExPtr w = MakeWriter();
    ASSERT_NE(Create(*w, "g.dat", static_cast<int>(kBlock)), nullptr);
    ScopedFault writes(FaultRule(qlt::fault::kWrite, L"*g.dat"));
    ScopedFault flushes(FaultRule(qlt::fault::kFlush, L"*g.dat"));
    uint64_t accepted = 0, flushedUpTo = 0;
    int lastFlushes = 0;
    for (size_t slice : {size_t{4096}, size_t{65536}, size_t{300001}, size_t{1} << 20, size_t{5} << 19}) {
      for (uint64_t end = accepted + (20u << 20); accepted < end; accepted += slice) {
        DWORD n = 0;
        ASSERT_EQ(w->WriteFile(data.data(), static_cast<DWORD>(slice), &n, nullptr), 1);
        if (flushes.Fired() != lastFlushes) flushedUpTo = static_cast<uint64_t>(writes.Fired()) * kBlock;
        lastFlushes = flushes.Fired();
        ASSERT_LE(accepted + slice - flushedUpTo, kBound) << "slice " << slice << " retries " << retries;
      }
    }
    EXPECT_EQ(w->CloseHandle(), 1);
  }
}

TEST_F(WriterTest, PresetSizeIsAllocatedAndTrimmedToTheFurthestByte) {
  const uint64_t kMiB = 1 << 20;
  const struct {
    const char* name;
    uint64_t preset;  // 0: none registered
    int nOpMode;
    int nCacheMode;
    uint64_t write;   // bytes written
    int64_t seekTo;   // a seek after writing, or none
    DWORD method;     // its move method
    int64_t landsAt;  // where it lands (-1: no seek)
    size_t tail;      // bytes written there
    uint64_t finalSize;
  } cases[] = {
      {"preset.dat", 10 * kMiB, 2, 0, 3 * kMiB, 0, FILE_BEGIN, -1, 0, 3 * kMiB},
      {"seekpast.dat", 10 * kMiB, 2, 0, 1000, 5 * kMiB, FILE_BEGIN, 5 * kMiB, 0, 5 * kMiB},
      {"seekpast-cached.dat", 10 * kMiB, 2, 1, 1000, 5 * kMiB, FILE_BEGIN, 5 * kMiB, 0, 5 * kMiB},
      // The end is the furthest byte written, not the end of the allocation.
      {"end.dat", kMiB, 2, 0, 1500, -10, FILE_END, 1490, 10, 1500},
      {"end-cached.dat", kMiB, 2, 1, 1500, -10, FILE_END, 1490, 10, 1500},
      {"unmanaged.dat", 10 * kMiB, 1, 0, 1000, 0, FILE_BEGIN, -1, 0, 1000},  // preset only in managed mode
      {"nopreset.dat", 0, 2, 0, 1000, 0, FILE_BEGIN, -1, 0, 1000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::wstring path = m_dir.wpath(c.name);
    if (c.preset) QLT_WriterOption2::SetPresetFileSize(CComBSTR(path.c_str()), c.preset);
    FileExPtr w = MakeWriter(c.nOpMode, c.nCacheMode);
    ASSERT_NE(Create(*w, c.name, 1000), nullptr);
    EXPECT_EQ(SizeOf(c.name), c.nOpMode == 2 ? c.preset : 0);
    ASSERT_EQ(Put(*w, 0, static_cast<size_t>(c.write)), 1);
    LARGE_INTEGER size{}, to{}, at{};
    ASSERT_EQ(w->GetFileSizeEx(&size), 1);
    EXPECT_EQ(c.nOpMode == 2 ? static_cast<uint64_t>(size.QuadPart) : c.write, c.write);  // managed: own count
    std::string expect = Pattern(0, static_cast<size_t>(c.write));
    if (c.landsAt >= 0) {
      to.QuadPart = c.seekTo;
      ASSERT_EQ(w->SetFilePointerEx(to, &at, c.method), 1);
      EXPECT_EQ(at.QuadPart, c.landsAt);
      if (c.tail) {
        ASSERT_EQ(Put(*w, 7777, c.tail), 1);
        expect.replace(static_cast<size_t>(c.landsAt), c.tail, Pattern(7777, c.tail));
      }
    }
    EXPECT_EQ(w->CloseHandle(), 1);
    EXPECT_EQ(SizeOf(c.name), c.finalSize);
    EXPECT_TRUE(Content(c.name).substr(0, expect.size()) == expect);
    ULONGLONG left = 0;  // close forgets the registered options
    EXPECT_EQ(QLT_WriterOption2::GetPresetFileSize(CComBSTR(path.c_str()), left), 0);
  }
}

// Opening or attaching a file on a writer that still holds one closes the
// held file first, as close does: its queued and staged bytes reach it, it
// is trimmed and its handle closed, and nothing of it reaches the new file.
TEST_F(WriterTest, OpenWithoutCloseFinishesTheHeldFileFirst) {
  for (int nCacheMode : {0, 1}) {
    for (bool bAttach : {false, true}) {
      SCOPED_TRACE(std::to_string(nCacheMode) + (bAttach ? " attach" : " create"));
      std::wstring pathA = m_dir.wpath("a.dat"), pathB = m_dir.wpath("b.dat");
      QLT_WriterOption2::SetPresetFileSize(CComBSTR(pathA.c_str()), 64u << 20);
      FileExPtr w = MakeWriter(2, nCacheMode);
      ASSERT_NE(Create(*w, "a.dat", 4096), nullptr);
      const size_t nA = 3201000;
      for (uint64_t at = 0; at + 1000 < nA; at += 100000) ASSERT_EQ(Put(*w, at, 100000), 1);
      ASSERT_EQ(Put(*w, nA - 1000, 1000), 1);  // staged without a cache
      if (bAttach) {
        ASSERT_TRUE(WriteWholeFile(m_dir.file("b.dat"), ""));
        HANDLE h = CreateFileW(pathB.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        ASSERT_EQ(w->Attach(h, CComBSTR(pathB.c_str())), 1);
      } else {
        ASSERT_NE(Create(*w, "b.dat", 4096), nullptr);
      }
      ASSERT_EQ(Put(*w, 50000000, 5000), 1);
      EXPECT_TRUE(Content("a.dat") == Pattern(0, nA));  // whole, and trimmed to what was written
      EXPECT_TRUE(DeleteFileW(pathA.c_str()));          // its handle is closed
      EXPECT_EQ(w->CloseHandle(), 1);
      EXPECT_EQ(Content("b.dat"), Pattern(50000000, 5000));
    }
  }
}

TEST_F(WriterTest, SeeksWriteStagedBytesOutInBothModes) {
  FileExPtr w = MakeWriter(2);
  ASSERT_NE(Create(*w, "m.dat", 1000), nullptr);
  ASSERT_EQ(Put(*w, 0, 1500), 1);
  EXPECT_EQ(SizeOf("m.dat"), 1000u);
  LARGE_INTEGER zero{}, pos{}, size{};
  pos.QuadPart = -1;
  ASSERT_EQ(w->SetFilePointerEx(zero, &pos, FILE_BEGIN), 1);
  EXPECT_EQ(pos.QuadPart, 0);
  EXPECT_EQ(SizeOf("m.dat"), 1500u);  // the 500 staged bytes went out first
  ASSERT_EQ(w->GetFileSizeEx(&size), 1);
  EXPECT_EQ(size.QuadPart, 1500);
  // Overwrite the start, then step back from the end and from the current place.
  DWORD n = 0;
  ASSERT_EQ(w->WriteFile(std::string(100, 'H').data(), 100, &n, nullptr), 1);
  EXPECT_EQ(w->SetFilePointer(-10, nullptr, FILE_END), 1490u);
  ASSERT_EQ(w->WriteFile("0123456789", 10, &n, nullptr), 1);
  EXPECT_EQ(w->SetFilePointer(-100, nullptr, FILE_CURRENT), 1400u);
  ASSERT_EQ(w->WriteFile("abc", 3, &n, nullptr), 1);
  EXPECT_EQ(w->GetFileSize(nullptr), 1500u);
  EXPECT_EQ(w->CloseHandle(), 1);
  std::string expect = Pattern(0, 1500);
  expect.replace(0, 100, std::string(100, 'H')).replace(1490, 10, "0123456789").replace(1400, 3, "abc");
  EXPECT_EQ(Content("m.dat"), expect);

  // Unmanaged: sizes come from the file system; read-back sees what was written.
  w = MakeWriter(1);
  ASSERT_NE(Create(*w, "u.dat", 1000), nullptr);
  ASSERT_EQ(Put(*w, 0, 2500), 1);
  EXPECT_EQ(w->GetFileSize(nullptr), 2000u);  // 500 bytes still staged
  EXPECT_EQ(w->SetFilePointer(0, nullptr, FILE_BEGIN), 0u);
  EXPECT_EQ(w->GetFileSize(nullptr), 2500u);
  char buf[2600] = {};
  ASSERT_EQ(w->ReadFile(buf, sizeof buf, &n, nullptr), 1);
  EXPECT_EQ(std::string(buf, n), Pattern(0, 2500));
  EXPECT_EQ(w->CloseHandle(), 1);
}

TEST_F(WriterTest, PositionsAbove4GiBUseTheHighPart) {
  for (int nOpMode : {1, 2}) {
    SCOPED_TRACE(nOpMode);
    FileExPtr w = MakeWriter(nOpMode);
    std::string name = "big" + std::to_string(nOpMode) + ".dat";
    ASSERT_NE(Create(*w, name, 4096), nullptr);
    LONG high = 1;
    EXPECT_EQ(w->SetFilePointer(10, &high, FILE_BEGIN), 10u);  // 4 GiB + 10
    EXPECT_EQ(high, 1);
    ASSERT_EQ(Put(*w, 0, 100), 1);
    EXPECT_EQ(w->SetFilePointer(-50, nullptr, FILE_CURRENT), 60u);  // negative without a high part moves back
    ASSERT_EQ(Put(*w, 1000, 20), 1);
    DWORD sizeHigh = 0;
    EXPECT_EQ(w->GetFileSize(&sizeHigh), 110u);
    EXPECT_EQ(sizeHigh, 1u);
    EXPECT_EQ(w->CloseHandle(), 1);
    const uint64_t kEnd = (1ull << 32) + 110;
    EXPECT_EQ(SizeOf(name), kEnd);
    std::ifstream in(m_dir.file(name), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(kEnd - 100));
    std::string tail(100, '\0');
    in.read(tail.data(), 100);
    EXPECT_EQ(tail, Pattern(0, 100).replace(50, 20, Pattern(1000, 20)));
    in.close();  // Windows removes no file that is still open
    std::filesystem::remove(m_dir.file(name));
  }
}

TEST_F(WriterTest, AttachedHandleGetsBlocksAndKeepsUserData) {
  std::wstring path = m_dir.wpath("att.dat");
  ASSERT_TRUE(WriteWholeFile(m_dir.file("att.dat"), std::string(300, 'x')));
  QLT_WriterOption::SetWriteBlockSize(CComBSTR(path.c_str()), 256);
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  FileExPtr w = MakeWriter(1);
  ASSERT_EQ(w->Attach(h, CComBSTR(path.c_str())), 1);
  CArray<DWORD, DWORD> list;
  list.Add(42);
  EXPECT_EQ(w->GetUserDataList(list, 1), 0);  // none yet: untouched
  ASSERT_EQ(list.GetSize(), 1);
  ScopedFault writes(FaultRule(qlt::fault::kWrite, L"*att.dat"));
  ASSERT_EQ(Put(*w, 0, 580, 5), 1);
  ASSERT_EQ(Put(*w, 580, 10, 0), 1);
  ASSERT_EQ(Put(*w, 590, 10, 9), 1);  // recorded while still staged
  EXPECT_EQ(writes.Fired(), 2);       // the registered 256-byte blocks
  const struct {
    int mode;
    BOOL result;
    std::vector<DWORD> values;
  } cases[] = {{0, 1, {9}}, {1, 1, {5, 9}}, {2, 0, {}}};
  for (const auto& c : cases) {
    EXPECT_EQ(w->GetUserDataList(list, c.mode), c.result) << c.mode;
    EXPECT_EQ(std::vector<DWORD>(list.GetData(), list.GetData() + list.GetSize()), c.values) << c.mode;
  }
  EXPECT_EQ(w->CloseHandle(), 1);
  EXPECT_EQ(Content("att.dat"), Pattern(0, 600));
  EXPECT_EQ(CloseHandle(h), 0);                     // the writer closed the host's handle
  ASSERT_NE(Create(*w, "ud2.dat", 1000), nullptr);  // close cleared the list
  EXPECT_EQ(w->GetUserDataList(list, 1), 0);
  EXPECT_EQ(w->CloseHandle(), 1);
}

}  // namespace
}  // namespace qlt::test
