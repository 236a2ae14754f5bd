// The FTP back-end against a real FTP server on loopback: transfers byte for
// byte, paths, sizes and positions, the open/close lifecycle, the
// asynchronous read-ahead and write-behind, and servers that misbehave.
#if !defined(_WIN32)
#include <sys/syscall.h>
#endif

#include <fstream>

#include "access/kx_file_access_ftp.h"
#include "tests/access/access_fixture.h"
#include "tests/support/ftp_server.h"

namespace {

constexpr int kMiB = 1 << 20;

// Logs acc in to 127.0.0.1:port with the server's user (or the password
// given), with time-outs short enough that every failure ends within seconds.
int LogIn(KxFileAccessFtp& acc, int port, const wchar_t* password = nullptr, int idleMs = 1500) {
  FtpOptions o;
  o.nConnectTimeoutMs = 2000;
  o.nIdleTimeoutMs = idleMs;
  acc.SetOptions(o);
  std::wstring pw = password ? password : QltUtf8ToWide(FtpTestServer::password());
  return acc.LogInHost(L"127.0.0.1", QltUtf8ToWide(FtpTestServer::user()).c_str(), pw.c_str(), port);
}

// Waits (up to 10 s) until a thread of this process other than the caller
// sleeps in poll, as the read-ahead worker does while it waits for the
// server. Returns whether one did.
#if defined(_WIN32)
// No per-thread view of the process here: the check cannot be made.
bool AnotherThreadWaitsInPoll() { return true; }
#else
bool AnotherThreadWaitsInPoll() {
  const std::string self = std::to_string(static_cast<long>(syscall(SYS_gettid)));
  for (int i = 0; i < 1000; ++i) {
    bool found = false;
    if (DIR* d = opendir("/proc/self/task")) {
      while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.' || self == e->d_name) continue;
        std::ifstream wchan(std::string("/proc/self/task/") + e->d_name + "/wchan");
        std::string where;
        std::getline(wchan, where);
        found = found || where.find("poll") != std::string::npos;
      }
      closedir(d);
    }
    if (found) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}
#endif

// Reads through acc until it returns 0, in pieces of the given size.
std::string ReadAll(KxFileAccessFtp& acc, int piece) {
  std::string out, buf(static_cast<size_t>(piece), '\0');
  for (int n; (n = acc.Read(reinterpret_cast<BYTE*>(&buf[0]), piece)) > 0;) out.append(buf, 0, n);
  return out;
}

// One server for the suite, serving a temporary directory.
TempDir& Root() {
  static TempDir root;
  return root;
}
int Port() {
  static FtpTestServer server(Root().path());
  return server.port();
}
std::string Put(const std::string& name, const std::string& data) {
  WriteWholeFile(Root().file(name), data);
  return data;
}

class FtpAccessTest : public ::testing::Test {
 protected:
  KxFileAccessFtp m_acc;
};

// Uploads and downloads larger than every buffer on the way (libcurl's, the
// ring, a read-ahead chunk), in pieces that never line up with them, sync and
// async: the server's copy and what the accessor reads back equal what was
// written. Missing directories are created, one leading separator goes, an
// empty upload makes an empty file.
TEST_F(FtpAccessTest, UploadsAndDownloadsByteForByteInAnyPieceSize) {
  const struct {
    bool async;
    const wchar_t* path;
    const char* onServer;
    size_t size;
    int piece;  // of the download
  } cases[] = {{false, L"data/day1/up.bin", "data/day1/up.bin", 12 * kMiB + 12345, 1000003},
               {true, L"\\data\\day2\\deeper\\up.bin", "data/day2/deeper/up.bin", 12 * kMiB + 12345, 777777},
               {false, L"/big.bin", "big.bin", 12 * kMiB + 12345, 40960},
               {true, L"/big.bin", "big.bin", 12 * kMiB + 12345, 6 * kMiB},
               {false, L"//abs.bin", "abs.bin", 7, 40960},
               {true, L"empty.bin", "empty.bin", 0, kMiB}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.onServer << " async " << c.async << " piece " << c.piece);
    const std::string data = Pattern(c.size, c.size);
    ASSERT_EQ(1, LogIn(m_acc, Port()));
    ASSERT_EQ(1, m_acc.EnableAsyncWrite(c.async, 3 * kMiB));
    ASSERT_EQ(1, m_acc.OpenFile(c.path, 2));
    for (size_t off = 0; off < data.size(); off += 1234567) {
      int n = static_cast<int>(std::min<size_t>(1234567, data.size() - off));
      ASSERT_EQ(n, m_acc.Write(reinterpret_cast<const BYTE*>(data.data() + off), n));
    }
    EXPECT_EQ(1, m_acc.CloseFile());
    EXPECT_EQ(ERROR_SUCCESS, GetLastError());
    ASSERT_TRUE(FileExists(Root().file(c.onServer)));
    EXPECT_TRUE(ReadWholeFile(Root().file(c.onServer)) == data);
    ASSERT_EQ(1, LogIn(m_acc, Port()));
    ASSERT_EQ(1, m_acc.EnableAsyncRead(c.async, 4 * kMiB));
    ASSERT_EQ(1, m_acc.OpenFile(QltUtf8ToWide(c.onServer).c_str(), 1));
    EXPECT_EQ(data.size(), m_acc.GetLength());
    std::string got = ReadAll(m_acc, c.piece);
    EXPECT_TRUE(got == data) << "got " << got.size() << " of " << data.size() << " bytes";
    EXPECT_EQ(static_cast<__int64>(data.size()), m_acc.GetPosition());
    EXPECT_EQ(1, m_acc.CloseFile());
  }
  m_acc.EnableAsyncRead(0, kMiB);
}

// A login serves one file; other modes open nothing; a second open closes the
// first, which disconnects; failed logins leave nothing to open.
TEST_F(FtpAccessTest, OneLoginServesOneFile) {
  Put("one.bin", "0123456789");
  DWORD mode;
  EXPECT_EQ(0, m_acc.OpenFile(L"one.bin", 1)) << "no login yet";
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  EXPECT_EQ(1, m_acc.OpenFile(L"one.bin", 3)) << "other modes open nothing";
  EXPECT_EQ(0, m_acc.GetAccessMode(mode));
  EXPECT_EQ(0, m_acc.CloseFile());
  ASSERT_EQ(1, m_acc.OpenFile(L"one.bin", 1));
  EXPECT_EQ(0, m_acc.OpenFile(L"one.bin", 1)) << "a second open closes the first, which disconnects";
  EXPECT_EQ(0, m_acc.CloseFile());
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.OpenFile(L"one.bin", 1));
  EXPECT_EQ(1, m_acc.CloseFile());
  EXPECT_EQ(0, m_acc.OpenFile(L"one.bin", 1)) << "CloseFile disconnected";
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  EXPECT_EQ(0, m_acc.OpenFile(L"missing.bin", 1));
  EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
  EXPECT_EQ(0, m_acc.OpenFile(L"/", 1)) << "a directory is no file";
  EXPECT_EQ(0, LogIn(m_acc, Port(), L"wrong"));
  EXPECT_EQ(static_cast<DWORD>(QLT_ERROR_FTP_LOGIN_FAILURE), GetLastError());
  EXPECT_EQ(0, m_acc.OpenFile(L"one.bin", 1));
  EXPECT_EQ(0, LogIn(m_acc, UnusedLoopbackPort()));
  EXPECT_EQ(static_cast<DWORD>(QLT_ERROR_FTP_CANNOT_CONNECT), GetLastError());
  EXPECT_EQ(0, m_acc.OpenFile(L"one.bin", 1));
}

// Seeking and skipping, sync and async: the data after each move is the file's.
TEST_F(FtpAccessTest, SeeksAndSkipsLandOnTheRightBytes) {
  const std::string data = Put("seek.bin", Pattern(0, 3 * kMiB));
  for (bool async : {false, true}) {
    SCOPED_TRACE(async ? "async" : "sync");
    ASSERT_EQ(1, LogIn(m_acc, Port()));
    ASSERT_EQ(1, m_acc.EnableAsyncRead(async, kMiB));
    ASSERT_EQ(1, m_acc.OpenFile(L"seek.bin", 1));
    std::string buf(1000, '\0');
    BYTE* p = reinterpret_cast<BYTE*>(&buf[0]);
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    EXPECT_EQ(async ? 5000 : 6000, m_acc.Read(nullptr, 5000)) << "a sync skip reports the new position";
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    EXPECT_EQ(data.substr(6000, 1000), buf);
    EXPECT_EQ(100, m_acc.SetPosition(100));
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    EXPECT_EQ(data.substr(100, 1000), buf);
    EXPECT_EQ(2500000, m_acc.SetPosition(2500000));
    EXPECT_TRUE(ReadAll(m_acc, 65536) == data.substr(2500000));
    EXPECT_EQ(0, m_acc.SetPosition(0)) << "a seek to 0 reports 0";
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    EXPECT_EQ(data.substr(0, 1000), buf);
    m_acc.CloseFile();
  }
  m_acc.EnableAsyncRead(0, kMiB);
}

// Sizes are 64-bit; positions reach 2 GiB and beyond only by skipping, and
// the results carry the low 32 bits.
TEST_F(FtpAccessTest, PositionsFollowTheThirtyTwoBitContract) {
  const std::string marker = "marker at 4 GiB + 100";
  const ULONGLONG kMarkerPos = 4294967396ULL;
  // Sparse: 4 GiB of holes.
  ASSERT_TRUE(WriteAt(Root().file("huge.bin"), kMarkerPos, marker) && WriteAt(Root().file("huge.bin"), 100, marker));
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.OpenFile(L"huge.bin", 1));
  EXPECT_EQ(kMarkerPos + marker.size(), m_acc.GetLength());
  std::string buf(marker.size(), '\0');
  BYTE* p = reinterpret_cast<BYTE*>(&buf[0]);
  EXPECT_EQ(100, m_acc.SetPosition(static_cast<__int64>(kMarkerPos))) << "the high 32 bits are dropped";
  ASSERT_EQ(static_cast<int>(buf.size()), m_acc.Read(p, static_cast<int>(buf.size())));
  EXPECT_EQ(marker, buf);
  const __int64 before = m_acc.GetPosition();
  for (__int64 pos : {2147483648LL, -4294967296LL, -1LL}) {
    SetLastError(0);
    EXPECT_EQ(0, m_acc.SetPosition(pos)) << pos << ": negative itself or in its low 32 bits, refused";
    EXPECT_EQ(static_cast<DWORD>(ERROR_NEGATIVE_SEEK), GetLastError());
    EXPECT_EQ(before, m_acc.GetPosition());
  }
  ASSERT_EQ(0, m_acc.SetPosition(0));
  EXPECT_EQ(2147483647, m_acc.Read(nullptr, 2147483647));
  EXPECT_EQ(-2, m_acc.Read(nullptr, 2147483647)) << "low 32 bits of 4 GiB - 2";
  EXPECT_EQ(100, m_acc.Read(nullptr, 102));
  EXPECT_EQ(static_cast<__int64>(kMarkerPos), m_acc.GetPosition());
  ASSERT_EQ(static_cast<int>(buf.size()), m_acc.Read(p, static_cast<int>(buf.size())));
  EXPECT_EQ(marker, buf);
  EXPECT_EQ(0, m_acc.Read(p, 1)) << "end of file";
  m_acc.CloseFile();
}

// Closing in the middle of read-ahead (also one blocked on a server that
// stopped sending) and of write-behind: the worker gone, a queued upload
// complete, an idle worker ended by destruction.
TEST_F(FtpAccessTest, CloseEndsReadAheadAndCompletesWriteBehind) {
  Put("long.bin", Pattern(0, 20 * kMiB));
  const int baseline = ThreadCount();
  Put("stall.bin", Pattern(0, 4 * kMiB));
  FtpTestServer stall(Root().path(), "retrstall");
  for (int port : {Port(), stall.port()}) {
    ASSERT_EQ(1, LogIn(m_acc, port, nullptr, 600000));  // only CloseFile can end a stalled read
    ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 8 * kMiB));
    ASSERT_EQ(1, m_acc.OpenFile(port == Port() ? L"long.bin" : L"stall.bin", 1));
    BYTE b[100];
    ASSERT_EQ(100, m_acc.Read(b, 100));
    EXPECT_EQ(1, m_acc.CloseFile());
    EXPECT_EQ(baseline, ThreadCountSettled(baseline));
  }
  const std::string data = Pattern(0, 5 * kMiB);
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.EnableAsyncWrite(1, 8 * kMiB));
  ASSERT_EQ(1, m_acc.OpenFile(L"behind.bin", 2));
  ASSERT_EQ(static_cast<int>(data.size()),
            m_acc.Write(reinterpret_cast<const BYTE*>(data.data()), static_cast<int>(data.size())));
  EXPECT_EQ(1, m_acc.CloseFile());  // most of it still queued here
  EXPECT_EQ(baseline, ThreadCountSettled(baseline));
  EXPECT_TRUE(ReadWholeFile(Root().file("behind.bin")) == data);
  {
    KxFileAccessFtp idle;
    EXPECT_EQ(1, idle.EnableAsyncRead(1, kMiB));
    EXPECT_EQ(baseline + 1, ThreadCountSettled(baseline + 1));
  }
  EXPECT_EQ(baseline, ThreadCountSettled(baseline));
}

// Enabling calls in the middle of read-ahead: refused ones change nothing
// (the stream goes on to the file's end), and on a slow server the first
// bytes and every enabling call come back promptly, without waiting for a
// whole read-ahead chunk.
TEST_F(FtpAccessTest, EnablingCallsDuringReadAheadAreCheckedFirstAndReturnPromptly) {
  const std::string data = Put("refused.bin", Pattern(0, 20 * kMiB));
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 8 * kMiB));
  ASSERT_EQ(1, m_acc.OpenFile(L"refused.bin", 1));
  std::string got(100, '\0');
  ASSERT_EQ(100, m_acc.Read(reinterpret_cast<BYTE*>(&got[0]), 100));
  for (auto [read, size] : {std::pair{0, 1}, std::pair{1, 1}, std::pair{1, 65535}, std::pair{1, 0}}) {
    SetLastError(0);
    EXPECT_EQ(0, read ? m_acc.EnableAsyncRead(1, size) : m_acc.EnableAsyncWrite(1, size)) << size;
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetLastError());
  }
  got += ReadAll(m_acc, 3 * kMiB);
  EXPECT_TRUE(got == data) << "got " << got.size() << " of " << data.size() << " bytes";
  EXPECT_EQ(1, m_acc.CloseFile());

  // 64 KiB/s: a read-ahead chunk takes 16 s there.
  FtpTestServer slow(Root().path(), "slow");
  const std::string slowData = Put("slow.bin", Pattern(0, 2 * kMiB));
  const auto kDeadline = std::chrono::seconds(5);
  std::string buf(1000, '\0');
  BYTE* p = reinterpret_cast<BYTE*>(&buf[0]);
  ASSERT_EQ(1, LogIn(m_acc, slow.port(), nullptr, 60000));
  ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 4 * kMiB));
  ASSERT_EQ(1, m_acc.OpenFile(L"slow.bin", 1));
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(100, m_acc.Read(p, 100));
  EXPECT_LT(std::chrono::steady_clock::now() - start, kDeadline) << "first bytes";
  EXPECT_TRUE(buf.substr(0, 100) == slowData.substr(0, 100));
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(1, m_acc.EnableAsyncRead(1, kMiB));
  EXPECT_LT(std::chrono::steady_clock::now() - start, kDeadline) << "enabling again";
  ASSERT_EQ(1000, m_acc.Read(p, 1000));
  EXPECT_TRUE(buf == slowData.substr(100, 1000));
  EXPECT_EQ(1, m_acc.CloseFile());

  // A server that stopped sending: once the caller has every byte it sent,
  // the worker waits in a read that only the idle time-out would end.
  FtpTestServer stall(Root().path(), "retrstall");
  const std::string half = Put("stalled.bin", Pattern(0, 4 * kMiB)).substr(0, 2 * kMiB);
  ASSERT_EQ(1, LogIn(m_acc, stall.port(), nullptr, 20000));
  ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 8 * kMiB));
  ASSERT_EQ(1, m_acc.OpenFile(L"stalled.bin", 1));
  std::string sent(half.size(), '\0');
  ASSERT_EQ(static_cast<int>(sent.size()),
            m_acc.Read(reinterpret_cast<BYTE*>(&sent[0]), static_cast<int>(sent.size())));
  EXPECT_TRUE(sent == half);
  EXPECT_TRUE(AnotherThreadWaitsInPoll());
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(1, m_acc.EnableAsyncWrite(0, kMiB));  // ends the read-ahead
  EXPECT_LT(std::chrono::steady_clock::now() - start, kDeadline) << "turning read-ahead off";
  EXPECT_EQ(static_cast<__int64>(half.size()), m_acc.GetPosition());
  EXPECT_EQ(1, m_acc.CloseFile());
}

// What a fault breaks, and so which step must fail.
enum class Step { kLogIn, kOpenRead, kOpenWrite, kRead, kWrite };

// Runs the step the fault breaks; returns whether it failed as it must.
bool FailsAtItsStep(KxFileAccessFtp& acc, Step step, bool async, int port, const std::string& file) {
  if (step == Step::kLogIn) return LogIn(acc, port) == 0;
  if (LogIn(acc, port) != 1) return false;
  if (step == Step::kOpenRead) return acc.OpenFile(L"file.bin", 1) == 0;
  if (step == Step::kOpenWrite) return acc.OpenFile(L"new.bin", 2) == 0;
  if (step == Step::kRead) {
    if (acc.EnableAsyncRead(async, kMiB) != 1 || acc.OpenFile(L"file.bin", 1) != 1) return false;
    std::string got = ReadAll(acc, 256 * 1024);
    acc.CloseFile();
    // Read-ahead keeps every byte that came before the failure.
    if (async) return got.size() == file.size() / 2 && got == file.substr(0, got.size());
    return got.size() < file.size() && got == file.substr(0, got.size());
  }
  // Write: some write, or failing that the close, reports the failure.
  if (acc.EnableAsyncWrite(async, kMiB) != 1 || acc.OpenFile(L"new.bin", 2) != 1) return false;
  bool failed = false;
  for (size_t off = 0; off < file.size() && !failed; off += 65536) {
    const int n = static_cast<int>(std::min<size_t>(65536, file.size() - off));
    failed = acc.Write(reinterpret_cast<const BYTE*>(file.data() + off), n) != n;
  }
  EXPECT_EQ(1, acc.CloseFile());
  return failed || GetLastError() != ERROR_SUCCESS;
}

// Each fault (refusals, a dropped or short data connection, a server that
// stops answering) ends in a failure result within the time-outs, sync and
// async, with no worker left behind, and the same object works again after a
// new LogInHost.
TEST(FtpFaultTest, EachServerFaultFailsWithinTheTimeoutsAndTheObjectRecovers) {
  TempDir root;
  // The faulty servers stop after half the file, which is no whole number
  // of read-ahead chunks.
  const std::string file = Pattern(0, 4 * kMiB + 3 * 12345);
  WriteWholeFile(root.file("file.bin"), file);
  const struct {
    const char* fault;
    Step step;
  } cases[] = {{"greet421", Step::kLogIn},   {"login530", Step::kLogIn},    {"silent", Step::kLogIn},
               {"retr550", Step::kOpenRead}, {"stor552", Step::kOpenWrite}, {"retrdrop", Step::kRead},
               {"retrshort", Step::kRead},   {"retrstall", Step::kRead},    {"stordrop", Step::kWrite},
               {"storstall", Step::kWrite}};
  for (const auto& c : cases) {
    for (bool async : {false, true}) {
      if (async && c.step != Step::kRead && c.step != Step::kWrite) continue;
      SCOPED_TRACE(std::string(c.fault) + (async ? " async" : ""));
      auto bad = std::make_unique<FtpTestServer>(root.path(), c.fault);
      const int baseline = ThreadCount();
      KxFileAccessFtp acc;
      EXPECT_TRUE(FailsAtItsStep(acc, c.step, async, bad->port(), file));
      acc.CloseFile();
      EXPECT_EQ(baseline, ThreadCountSettled(baseline)) << "the worker is gone";
      bad.reset();
      FtpTestServer good(root.path());
      EXPECT_EQ(1, LogIn(acc, good.port())) << "usable after a new login";
      EXPECT_EQ(1, acc.OpenFile(L"file.bin", 1));
      EXPECT_TRUE(ReadAll(acc, kMiB) == file);
      EXPECT_EQ(1, acc.CloseFile());
    }
  }
}

}  // namespace
