// The local back-end: block-cached reads, skips, seeks, large offsets, the
// write path, access-mode rules, injected platform failures, and read-ahead
// and write-behind (the same bytes as the synchronous path for any request
// and ring size, closes in the middle of a transfer, no worker left behind).
#include <climits>

#include "access/kx_file_access_local.h"
#include "tests/access/access_fixture.h"

namespace {

constexpr __int64 kFileSize = 1000000;
constexpr int kMiB = 1 << 20;

// Restores the settings the tests change and checks that no worker outlives
// its accessor.
class AccessTest : public ::testing::Test {
 protected:
  void TearDown() override {
    SdkSettings.ReadBufSize = kDefaultReadBufSize;
    SdkSettings.ReadMode = 1;
    EXPECT_EQ(ThreadCountSettled(m_nThreads), m_nThreads) << "a worker outlived its accessor";
  }
  CComBSTR Path(const std::string& name) const { return CComBSTR(m_dir.wpath(name).c_str()); }

  TempDir m_dir;
  const int m_nThreads = ThreadCount();
};

// One read or skip (null buffer) and what it must deliver.
struct Step {
  __int64 seekTo;  // -1: no SetPosition before the read
  int count;
  bool skip;
  int expected;       // result
  __int64 expectPos;  // GetPosition afterwards
};

// The same reads, skips and seeks for cache blocks of every shape, buffered
// and unbuffered: every delivered byte is the file's.
TEST_F(AccessTest, ReadsSkipsAndSeeksAroundTheCacheBlockDeliverTheFileBytes) {
  ASSERT_TRUE(WritePatternFile(m_dir.file("data.bin"), kFileSize));
  const int B = 65536;
  const Step steps[] = {
      {-1, 100, false, 100, 100},                          // first fill
      {-1, 100, false, 100, 200},                          // from the cache
      {-1, B - 150, false, B - 150, B + 50},               // straddles the block end
      {-1, 3 * B + 7, false, 3 * B + 7, 4 * B + 57},       // exceeds the block
      {5000, 100, false, 100, 5100},                       // seek back, unaligned
      {B - 1, 2, false, 2, B + 1},                         // one byte either side
      {1000, -300, true, 300, 700},                        // skip backwards: positive result
      {-1, 10, false, 10, 710},                            // cache emptied: right bytes
      {-1, 200000, true, 200000, 200710},                  // skip forwards, past the cache
      {-1, 50, false, 50, 200760},                         //
      {-1, -200760, true, 200760, 0},                      // skip to the very start
      {-1, 4097, false, 4097, 4097},                       //
      {kFileSize - 10, 5000, false, 10, kFileSize},        // end of file
      {-1, 100, false, 0, kFileSize},                      // past the end
      {kFileSize + 5000, 10, false, 0, kFileSize + 5000},  // seek past the end
      {123456, 1, false, 1, 123457},
  };
  for (int mode : {0, 1}) {
    for (int block : {B, 4096, 1000, 262144}) {
      SdkSettings.ReadMode = mode;
      SdkSettings.ReadBufSize = block;
      KxFileAccessLocal f;
      ASSERT_EQ(f.OpenFile(Path("data.bin"), 1), 1);
      EXPECT_EQ(f.GetLength(), static_cast<ULONGLONG>(kFileSize));
      __int64 pos = 0;
      for (const Step& s : steps) {
        SCOPED_TRACE("mode " + std::to_string(mode) + " block " + std::to_string(block) + " step " +
                     std::to_string(&s - steps));
        if (s.seekTo >= 0) {
          ASSERT_EQ(f.SetPosition(s.seekTo), 1);
          pos = s.seekTo;
        }
        std::string buf(s.count > 0 ? s.count : 0, '\0');
        int n = f.Read(s.skip ? nullptr : reinterpret_cast<BYTE*>(buf.data()), s.count);
        EXPECT_EQ(n, s.expected);
        EXPECT_TRUE(s.skip || n <= 0 || buf.substr(0, n) == Pattern(pos, n)) << "bytes differ";
        pos = s.expectPos;
        EXPECT_EQ(f.GetPosition(), s.expectPos);
      }
      EXPECT_EQ(f.CloseFile(), 1);
    }
  }
  // A second open never serves the first file's cache.
  ASSERT_TRUE(WriteWholeFile(m_dir.file("other.bin"), std::string(5000, 'x')));
  KxFileAccessLocal f;
  char buf[100];
  ASSERT_EQ(f.OpenFile(Path("data.bin"), 1), 1);
  ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 100), 100);
  ASSERT_EQ(f.OpenFile(Path("other.bin"), 1), 1);
  ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 100), 100);
  EXPECT_EQ(std::string(buf, 100), std::string(100, 'x'));
}

// Reads and skips across the 4 GiB line of a sparse file land on the mark.
TEST_F(AccessTest, PositionsAboveFourGiBInASparseFile) {
  const __int64 kMarkAt = (5LL << 30) + 12345;
  const std::string mark = Pattern(kMarkAt, 100);
  ASSERT_TRUE(WriteAt(m_dir.file("sparse.bin"), kMarkAt, mark));
  for (int mode : {0, 1}) {
    SdkSettings.ReadMode = mode;
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(Path("sparse.bin"), 1), 1);
    EXPECT_EQ(f.GetLength(), static_cast<ULONGLONG>(kMarkAt + 100));
    char buf[200];
    ASSERT_EQ(f.SetPosition(kMarkAt - 50), 1);
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 200), 150);  // 50 zeros, the mark, the end
    EXPECT_EQ(std::string(buf, 50), std::string(50, '\0'));
    EXPECT_TRUE(std::string(buf + 50, 100) == mark);
    ASSERT_EQ(f.SetPosition(0), 1);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(f.Read(nullptr, 1 << 30), 1 << 30);
    ASSERT_EQ(f.Read(nullptr, 12345), 12345);
    EXPECT_EQ(f.GetPosition(), kMarkAt);
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 10), 10);
    EXPECT_TRUE(std::string(buf, 10) == mark.substr(0, 10));
  }
}

// A position before the file's start is refused and changes nothing, sync
// and async: the next read delivers the bytes after the last good position.
TEST_F(AccessTest, NegativePositionsAreRefusedAndChangeNothing) {
  ASSERT_TRUE(WritePatternFile(m_dir.file("data.bin"), kFileSize));
  for (bool async : {false, true}) {
    SCOPED_TRACE(async ? "async" : "sync");
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(async, kMiB), 1);
    ASSERT_EQ(f.OpenFile(Path("data.bin"), 1), 1);
    char buf[100];
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 100), 100);
    for (__int64 pos : {-1LL, -4096LL, -(1LL << 40), LLONG_MIN}) {
      SetLastError(0);
      EXPECT_EQ(f.SetPosition(pos), 0) << pos;
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
      EXPECT_EQ(f.GetPosition(), 100);
    }
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf), 100), 100);
    EXPECT_TRUE(std::string(buf, 100) == Pattern(100, 100));
  }
}

TEST_F(AccessTest, WritesModesBadArgumentsAndClosedFiles) {
  // Write mode empties the file; an unaligned seek lands the next write
  // exactly there without overwriting what came before.
  ASSERT_TRUE(WriteWholeFile(m_dir.file("out.bin"), std::string(9000, 'o')));
  KxFileAccessLocal f;
  ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
  EXPECT_EQ(f.GetLength(), 0u);
  std::string data = Pattern(0, 10000);
  EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 10000), 10000);
  EXPECT_EQ(f.GetPosition(), 0);  // writes do not move the read position
  ASSERT_EQ(f.SetPosition(5001), 1);
  EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>("ZZ"), 2), 2);
  EXPECT_EQ(f.Write(nullptr, 5), 0);
  EXPECT_EQ(f.CloseFile(), 1);
  EXPECT_TRUE(ReadWholeFile(m_dir.file("out.bin")) == data.replace(5001, 2, "ZZ"));
  // A skip moves the next write exactly, not to a block boundary.
  ASSERT_EQ(f.OpenFile(Path("skip.bin"), 2), 1);
  const std::string as(10000, 'A');
  ASSERT_EQ(f.Write(reinterpret_cast<const BYTE*>(as.data()), 10000), 10000);
  EXPECT_EQ(f.Read(nullptr, 5000), 5000);
  EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>("BBBB"), 4), 4);
  EXPECT_EQ(f.CloseFile(), 1);
  EXPECT_EQ(ReadWholeFile(m_dir.file("skip.bin")), std::string(as).replace(5000, 4, "BBBB"));
  // OpenFile, then GetAccessMode; a failed open keeps the mode it had.
  const struct {
    DWORD mode;
    const char* file;
    int open, accessResult;
  } opens[] = {
      {1, "out.bin", 1, 1}, {2, "new.bin", 1, 1}, {3, "out.bin", 0, 0}, {0, "out.bin", 0, 0}, {1, "missing.bin", 0, 1}};
  for (const auto& c : opens) {
    SCOPED_TRACE(std::string(c.file) + " mode " + std::to_string(c.mode));
    DWORD mode;
    EXPECT_EQ(f.OpenFile(Path(c.file), c.mode), c.open);
    EXPECT_EQ(f.GetAccessMode(mode), c.accessResult);
    EXPECT_EQ(mode, c.accessResult ? c.mode : 0xFFFFFFFFu);
  }
  EXPECT_EQ(f.OpenFile(CComBSTR(L""), 1), 0);
  // After CloseFile calls fail; the local back-end has no host to log in to.
  ASSERT_EQ(f.OpenFile(Path("out.bin"), 1), 1);
  EXPECT_EQ(f.CloseFile(), 1);
  EXPECT_EQ(f.Read(reinterpret_cast<BYTE*>(&data[0]), 16), 0);
  EXPECT_EQ(f.LogInHost(CComBSTR(L"h"), CComBSTR(L"u"), CComBSTR(L"p"), 21), 0);
}

// Injected read, write and seek failures: the call's result, recovery on the
// next call, and the error-log entry.
TEST_F(AccessTest, InjectedFailuresFailTheCallAndAreLogged) {
  ErrorLogCapture errorLog(m_dir);
  SdkSettings.ReadMode = 0;
  ASSERT_TRUE(WritePatternFile(m_dir.file("in.bin"), 300000));
  CComBSTR in = Path("in.bin"), out = Path("out.bin");
  auto rule = [](unsigned ops, qlt::fault::Action action = qlt::fault::Action::kFail) {
    return qlt::fault::Rule{ops, L"*.bin", nullptr, 1, 1, action, 29, 10, 0};
  };
  // A small read (through the cache) and a large one (whole blocks straight
  // into the caller's buffer) fail alike and leave nothing stale behind.
  for (int count : {100, 2 * 262144 + 10}) {
    SCOPED_TRACE(count);
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(in, 1), 1);
    std::string buf(count, '\0');
    {
      qlt::fault::ScopedFault fault(rule(qlt::fault::kRead));
      EXPECT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), count), 0);
      EXPECT_EQ(fault.Fired(), 1);
    }
    const int n = std::min(count, 300000);
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), count), n);
    EXPECT_TRUE(buf.substr(0, n) == Pattern(0, n));
  }
  // A fill whose second block fails leaves neither stale cache bytes nor a
  // pointer past the fill's start: served from the cache afterwards, or
  // read again at once, the bytes are the file's.
  ASSERT_TRUE(WritePatternFile(m_dir.file("big.bin"), kFileSize));
  for (__int64 next : {50LL, -1LL /* read again at once */}) {
    SCOPED_TRACE(next);
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(Path("big.bin"), 1), 1);
    std::string buf(262144, '\0');
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), 100), 100);  // caches the first block
    ASSERT_EQ(f.SetPosition(262144 + 4000), 1);
    {
      qlt::fault::Rule second = rule(qlt::fault::kRead);
      second.nth = 2;
      qlt::fault::ScopedFault fault(second);
      EXPECT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), 262044), 0);  // a two-block fill
      EXPECT_EQ(fault.Fired(), 1);
    }
    if (next >= 0) {
      ASSERT_EQ(f.SetPosition(next), 1);
    }
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), 1000), 1000);
    EXPECT_TRUE(buf.substr(0, 1000) == Pattern(next >= 0 ? next : 262144 + 4000, 1000));
  }
  // A failed seek in read-ahead mode names the position asked for.
  {
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(1, kMiB), 1);
    ASSERT_EQ(f.OpenFile(in, 1), 1);
    std::string buf(300000, '\0');
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), 300000), 300000);
    ASSERT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), 1), 0);  // the worker has ended
    qlt::fault::ScopedFault fault(rule(qlt::fault::kSeek));
    EXPECT_EQ(f.SetPosition(5000), 0);
  }
  // A failed and a short write fail that write and the close.
  for (auto [action, expected] : {std::pair{qlt::fault::Action::kFail, 0}, std::pair{qlt::fault::Action::kShort, 10}}) {
    KxFileAccessLocal f;
    ASSERT_EQ(f.OpenFile(out, 2), 1);
    const std::string data(1000, 'w');
    {
      qlt::fault::ScopedFault fault(rule(qlt::fault::kWrite, action));
      EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 1000), expected);
    }
    EXPECT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 1000), 1000);
    EXPECT_EQ(f.CloseFile(), 0);  // one write came up short since the open
  }
  // Failed seeks and skips; the requested position stays.
  KxFileAccessLocal f;
  ASSERT_EQ(f.OpenFile(in, 1), 1);
  {
    qlt::fault::ScopedFault fault(rule(qlt::fault::kSeek));
    EXPECT_EQ(f.SetPosition(5000), 0);
    EXPECT_EQ(f.GetPosition(), 5000);
  }
  {
    qlt::fault::ScopedFault fault(rule(qlt::fault::kSeek));
    EXPECT_EQ(f.Read(nullptr, 100), 0);
  }
  EXPECT_EQ(f.Read(nullptr, -100000), 0);  // before the start
  const std::string log = errorLog.Text();
  for (const char* line : {"    read file  :   To read bytes :262144   readed bytes 0: ",
                           "    write file  :   To write bytes :1000   written bytes 0: ",
                           "    seek file pos :   Mov pos :4096   new pos 0: ",
                           "    seek file pos :   Mov pos :5000   new pos 0: ",
                           "    seek file pos when read:   Mov pos :5100   new pos 0: "})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
  // A failed read names the block size, never the size of a direct read.
  EXPECT_EQ(log.find("To read bytes :524288"), std::string::npos) << log;
}

// Ring sizes around the worker's transfer (1.5 MiB) and far below it, with
// request sizes up to and beyond the ring: every request must complete.
const int kRingSizes[] = {65536, 1000000, 1572864, 1572864 + 4096, 3 * kMiB, 10 * kMiB};

TEST_F(AccessTest, ReadAheadAndWriteBehindKeepEveryByteForAnyRequestAndRingSize) {
  const size_t kSize = 7 * kMiB + 333;
  ASSERT_TRUE(WritePatternFile(m_dir.file("in.bin"), kSize));
  SdkSettings.ReadMode = 0;
  std::mt19937 rng(7);
  std::vector<char> buf(12 * kMiB);
  for (int ring : kRingSizes) {
    SCOPED_TRACE("ring " + std::to_string(ring));
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(1, ring), 1);  // before the open: starts with it
    ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
    for (size_t pos = 0; pos < kSize;) {
      // Sizes near the ring and the worker's transfer, small ones, skips.
      const int sizes[] = {ring, ring - 1 + static_cast<int>(rng() % 3), 1572864 + static_cast<int>(rng() % 5000),
                           static_cast<int>(rng() % 5000) + 1, static_cast<int>(rng() % (3 * kMiB)) + 1};
      const int n = std::max(1, std::min(sizes[rng() % 5], 11 * kMiB));
      const bool skip = rng() % 8 == 0;
      const int r = f.Read(skip ? nullptr : reinterpret_cast<BYTE*>(buf.data()), n);
      ASSERT_EQ(r, static_cast<int>(std::min<size_t>(n, kSize - pos)));
      ASSERT_TRUE(skip || std::string(buf.data(), r) == Pattern(pos, r)) << "at " << pos;
      pos += r;
      ASSERT_EQ(f.GetPosition(), static_cast<__int64>(pos));
    }
    EXPECT_EQ(f.Read(reinterpret_cast<BYTE*>(buf.data()), 10), 0);  // end of file
    EXPECT_EQ(f.CloseFile(), 1);

    // Write-behind enabled with the file open starts at once. A small piece
    // followed by a large one is what used to stall.
    ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
    ASSERT_EQ(f.EnableAsyncWrite(1, ring), 1);
    std::string expected;
    while (expected.size() < 6u * kMiB) {
      int n = rng() % 2 ? static_cast<int>(rng() % 1000) + 1 : ring - static_cast<int>(rng() % 3);
      const std::string piece = Pattern(expected.size(), std::max(1, std::min(n, 4 * kMiB)));
      const int len = static_cast<int>(piece.size());
      ASSERT_EQ(f.Write(reinterpret_cast<const BYTE*>(piece.data()), len), len);
      expected += piece;
    }
    EXPECT_EQ(f.CloseFile(), 1);  // returns once the worker wrote it all
    EXPECT_TRUE(ReadWholeFile(m_dir.file("out.bin")) == expected);
  }
}

TEST_F(AccessTest, CloseInTheMiddleOfATransferEndsTheWorkerAndLosesNoWrite) {
  SdkSettings.ReadMode = 0;
  ASSERT_TRUE(WritePatternFile(m_dir.file("in.bin"), 24 * kMiB));
  const std::string data = Pattern(0, 20 * kMiB);
  for (int ring : {64 * 1024, 10 * kMiB}) {
    SCOPED_TRACE(ring);
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(1, ring), 1);
    ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
    BYTE b[100];
    ASSERT_EQ(f.Read(b, 100), 100);  // the worker is reading ahead now
    EXPECT_EQ(f.CloseFile(), 1);     // read-ahead dropped, worker joined
    EXPECT_EQ(ThreadCountSettled(m_nThreads), m_nThreads);
    // Write-behind: close straight after queueing far more than the ring.
    ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
    ASSERT_EQ(f.EnableAsyncWrite(1, ring), 1);
    ASSERT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 20 * kMiB), 20 * kMiB);
    EXPECT_EQ(f.CloseFile(), 1);
    EXPECT_EQ(ThreadCountSettled(m_nThreads), m_nThreads);
    EXPECT_TRUE(ReadWholeFile(m_dir.file("out.bin")) == data);
  }
  // Enabling calls during read-ahead: refused sizes change nothing, a new
  // ring and turning the mode off both go on from the next byte.
  {
    KxFileAccessLocal f;
    ASSERT_EQ(f.EnableAsyncRead(1, 10 * kMiB), 1);
    ASSERT_EQ(f.OpenFile(Path("in.bin"), 1), 1);
    std::string buf(1000, '\0');
    BYTE* p = reinterpret_cast<BYTE*>(buf.data());
    __int64 pos = 0;
    auto readOn = [&](int n) {
      ASSERT_EQ(f.Read(p, n), n);
      EXPECT_TRUE(buf.substr(0, n) == Pattern(pos, n)) << "at " << pos;
      pos += n;
      EXPECT_EQ(f.GetPosition(), pos);
    };
    readOn(100);
    for (auto [read, size] : {std::pair{1, 0}, std::pair{1, 1}, std::pair{0, 1}, std::pair{1, 65535}}) {
      SetLastError(0);
      EXPECT_EQ(read ? f.EnableAsyncRead(1, size) : f.EnableAsyncWrite(1, size), 0) << size;
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
      readOn(1000);
    }
    EXPECT_EQ(f.EnableAsyncRead(1, 4 * kMiB), 1);
    pos = 0;  // positions count from the enabling call
    ASSERT_EQ(f.Read(p, 1000), 1000);
    EXPECT_TRUE(buf == Pattern(4100, 1000));
    EXPECT_EQ(f.EnableAsyncWrite(0, 65536), 1);  // reads go on synchronously
    ASSERT_EQ(f.Read(p, 1000), 1000);
    EXPECT_TRUE(buf == Pattern(5100, 1000));
    EXPECT_EQ(f.GetPosition(), 6100);
  }
  // Enabled, never opened, destroyed: the waiting worker ends too.
  ASSERT_EQ(KxFileAccessLocal().EnableAsyncWrite(1, kMiB), 1);
  ASSERT_EQ(KxFileAccessLocal().EnableAsyncRead(1, kMiB), 1);
  // Failed writes behind fail the close without a hang; the caller never blocks.
  KxFileAccessLocal f;
  ASSERT_EQ(f.OpenFile(Path("out.bin"), 2), 1);
  ASSERT_EQ(f.EnableAsyncWrite(1, kMiB), 1);
  qlt::fault::ScopedFault fault({qlt::fault::kWrite, L"*out.bin", nullptr, 1, -1, qlt::fault::Action::kFail, 29, 0, 0});
  ASSERT_EQ(f.Write(reinterpret_cast<const BYTE*>(data.data()), 8 * kMiB), 8 * kMiB);
  EXPECT_EQ(f.CloseFile(), 0);
  EXPECT_GE(fault.Fired(), 1);
}

}  // namespace
