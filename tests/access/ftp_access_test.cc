// The FTP back-end against a real FTP server on loopback: transfers byte for
// byte, paths, sizes and positions, the open/close lifecycle, and the
// asynchronous read-ahead and write-behind.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "qltfsdk/fileaccess.h"
#include "tests/access/ftp_test_util.h"
#include "tests/support/temp_dir.h"

namespace {

class FtpAccessTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_root = new TempDir();
    s_server = new FtpTestServer(s_root->path());
  }
  static void TearDownTestSuite() {
    delete s_server;
    delete s_root;
  }
  static std::string Put(const std::string& name, const std::string& data) {
    std::filesystem::create_directories(std::filesystem::path(s_root->file(name)).parent_path());
    WriteWholeFile(s_root->file(name), data);
    return data;
  }
  static int Port() { return s_server->port(); }
  static TempDir* s_root;
  static FtpTestServer* s_server;
  KxFileAccessFtp m_acc;
};
TempDir* FtpAccessTest::s_root = nullptr;
FtpTestServer* FtpAccessTest::s_server = nullptr;

// Reading: larger than every buffer on the way (libcurl's, the ring of 4 MiB,
// a read-ahead chunk), in pieces that never line up with them, sync and async.
TEST_F(FtpAccessTest, DownloadsByteForByteInAnyPieceSize) {
  const std::string data = Put("big.bin", RandomBytes(12 * 1024 * 1024 + 12345, 1));
  struct Case {
    bool async;
    int piece;
  } cases[] = {{false, 1000003}, {false, 40960}, {true, 777777}, {true, 6 * 1024 * 1024}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "async " << c.async << " piece " << c.piece);
    ASSERT_EQ(1, LogIn(m_acc, Port()));
    if (c.async) {
      ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 4 * 1024 * 1024));
    }
    ASSERT_EQ(1, m_acc.OpenFile(L"/big.bin", 1));
    EXPECT_EQ(data.size(), m_acc.GetLength());
    std::string got = ReadAll(m_acc, c.piece);
    EXPECT_TRUE(got == data) << "got " << got.size() << " of " << data.size() << " bytes";
    EXPECT_EQ(static_cast<__int64>(data.size()), m_acc.GetPosition());
    EXPECT_EQ(1, m_acc.CloseFile());
    m_acc.EnableAsyncRead(0, 4 * 1024 * 1024);
  }
}

// Writing: the server's copy equals what was written, sync and async, and the
// accessor reads it back the same.
TEST_F(FtpAccessTest, UploadsThenDownloadsByteForByte) {
  const std::string data = RandomBytes(9 * 1024 * 1024 + 7, 2);
  for (bool async : {false, true}) {
    SCOPED_TRACE(async ? "async" : "sync");
    std::string name = async ? "up_async.bin" : "up_sync.bin";
    ASSERT_EQ(1, LogIn(m_acc, Port()));
    if (async) {
      ASSERT_EQ(1, m_acc.EnableAsyncWrite(1, 3 * 1024 * 1024));
    }
    ASSERT_EQ(1, m_acc.OpenFile(QltUtf8ToWide(name).c_str(), 2));
    DWORD mode = 0;
    EXPECT_EQ(1, m_acc.GetAccessMode(mode));
    EXPECT_EQ(2u, mode);
    for (size_t off = 0; off < data.size(); off += 1234567) {
      int n = static_cast<int>(std::min<size_t>(1234567, data.size() - off));
      ASSERT_EQ(n, m_acc.Write(reinterpret_cast<const BYTE*>(data.data() + off), n));
    }
    EXPECT_EQ(1, m_acc.CloseFile());
    EXPECT_EQ(ERROR_SUCCESS, GetLastError());
    m_acc.EnableAsyncWrite(0, 1);
    EXPECT_TRUE(ReadWholeFile(s_root->file(name)) == data);

    ASSERT_EQ(1, LogIn(m_acc, Port()));
    ASSERT_EQ(1, m_acc.OpenFile(QltUtf8ToWide(name).c_str(), 1));
    EXPECT_TRUE(ReadAll(m_acc, 1 << 20) == data);
    m_acc.CloseFile();
  }
}

TEST_F(FtpAccessTest, EmptyUploadCreatesEmptyFileAndEmptyFileReadsNothing) {
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.OpenFile(L"empty.bin", 2));
  EXPECT_EQ(1, m_acc.CloseFile());
  ASSERT_TRUE(FileExists(s_root->file("empty.bin")));
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.OpenFile(L"empty.bin", 1));
  EXPECT_EQ(0u, m_acc.GetLength());
  BYTE b[16];
  EXPECT_EQ(0, m_acc.Read(b, sizeof b));
  m_acc.CloseFile();
}

// Paths: one leading separator goes, "//x" names /x, and a write creates the
// missing directories (and does not mind those that exist).
TEST_F(FtpAccessTest, WritesCreateMissingDirectoriesAndPathsLoseOneLeadingSeparator) {
  const std::string data = "day one";
  const wchar_t* paths[] = {L"data/day1/clip.bin", L"\\data\\day2\\deeper\\clip.bin", L"//abs.bin"};
  const char* onServer[] = {"data/day1/clip.bin", "data/day2/deeper/clip.bin", "abs.bin"};
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(onServer[i]);
    ASSERT_EQ(1, LogIn(m_acc, Port()));
    ASSERT_EQ(1, m_acc.OpenFile(paths[i], 2));
    EXPECT_EQ(static_cast<int>(data.size()), m_acc.Write(reinterpret_cast<const BYTE*>(data.data()), 7));
    EXPECT_EQ(1, m_acc.CloseFile());
    EXPECT_EQ(data, ReadWholeFile(s_root->file(onServer[i])));
  }
}

// The lifecycle: a login serves one file; other modes open nothing.
TEST_F(FtpAccessTest, OneLoginServesOneFile) {
  Put("one.bin", "0123456789");
  DWORD mode = 7;
  EXPECT_EQ(0, m_acc.OpenFile(L"one.bin", 1)) << "no login yet";
  EXPECT_EQ(0, m_acc.GetAccessMode(mode));
  EXPECT_EQ(0xFFFFFFFFu, mode);

  ASSERT_EQ(1, LogIn(m_acc, Port()));
  EXPECT_EQ(1, m_acc.OpenFile(L"one.bin", 3)) << "other modes open nothing";
  BYTE b[4];
  EXPECT_EQ(0, m_acc.Read(b, 4));
  EXPECT_EQ(0, m_acc.GetAccessMode(mode));
  EXPECT_EQ(0, m_acc.CloseFile());

  ASSERT_EQ(1, m_acc.OpenFile(L"one.bin", 1));
  EXPECT_EQ(1, m_acc.GetAccessMode(mode));
  EXPECT_EQ(1u, mode);
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
  EXPECT_EQ(0, m_acc.OpenFile(L"data/", 2));
  EXPECT_EQ(0, m_acc.SetReadBufferSize(4096));
}

TEST_F(FtpAccessTest, WrongPasswordFailsAndLeavesNothingToOpen) {
  EXPECT_EQ(0, LogIn(m_acc, Port(), L"wrong"));
  EXPECT_EQ(static_cast<DWORD>(QLT_ERROR_FTP_LOGIN_FAILURE), GetLastError());
  EXPECT_EQ(0, m_acc.OpenFile(L"anything", 1));
  EXPECT_EQ(1, LogIn(m_acc, Port())) << "a later login works";
}

// Seeking and skipping, sync and async: the data after each move is the file's.
TEST_F(FtpAccessTest, SeeksAndSkipsLandOnTheRightBytes) {
  const std::string data = Put("seek.bin", RandomBytes(3 * 1024 * 1024, 3));
  for (bool async : {false, true}) {
    SCOPED_TRACE(async ? "async" : "sync");
    ASSERT_EQ(1, LogIn(m_acc, Port()));
    if (async) {
      ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 1 << 20));
    }
    ASSERT_EQ(1, m_acc.OpenFile(L"seek.bin", 1));
    std::string buf(1000, '\0');
    BYTE* p = reinterpret_cast<BYTE*>(&buf[0]);
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    // A short skip, a long skip, a seek back, a seek forward past the buffers.
    int skipped = m_acc.Read(nullptr, 5000);
    if (!async) {
      EXPECT_EQ(6000, skipped) << "a sync skip reports the new position";
    }
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    EXPECT_EQ(data.substr(6000, 1000), buf);
    if (!async) {
      EXPECT_EQ(2007000, m_acc.Read(nullptr, 2000000));
    }
    if (!async) {
      ASSERT_EQ(1000, m_acc.Read(p, 1000));
      EXPECT_EQ(data.substr(2007000, 1000), buf);
    }
    EXPECT_EQ(100, m_acc.SetPosition(100));
    EXPECT_EQ(100, m_acc.GetPosition());
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    EXPECT_EQ(data.substr(100, 1000), buf);
    EXPECT_EQ(2500000, m_acc.SetPosition(2500000));
    std::string rest = ReadAll(m_acc, 65536);
    EXPECT_TRUE(rest == data.substr(2500000));
    EXPECT_EQ(0, m_acc.SetPosition(0)) << "a seek to 0 reports 0";
    ASSERT_EQ(1000, m_acc.Read(p, 1000));
    EXPECT_EQ(data.substr(0, 1000), buf);
    m_acc.CloseFile();
    m_acc.EnableAsyncRead(0, 1 << 20);
  }
}

// Sizes are 64-bit; positions reach 2 GiB and beyond only by skipping, and
// the results carry the low 32 bits, as the contract says.
TEST_F(FtpAccessTest, PositionsFollowTheThirtyTwoBitContract) {
  const std::string marker = "marker at 4 GiB + 100";
  const ULONGLONG kMarkerPos = 4294967396ULL;
  {
    int fd = open(s_root->file("huge.bin").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(marker.size()), pwrite(fd, marker.data(), marker.size(), kMarkerPos));
    ASSERT_EQ(static_cast<ssize_t>(marker.size()), pwrite(fd, marker.data(), marker.size(), 100));
    close(fd);  // sparse: 4 GiB of holes
  }
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.OpenFile(L"huge.bin", 1));
  EXPECT_EQ(kMarkerPos + marker.size(), m_acc.GetLength());
  std::string buf(marker.size(), '\0');
  BYTE* p = reinterpret_cast<BYTE*>(&buf[0]);

  EXPECT_EQ(100, m_acc.SetPosition(static_cast<__int64>(kMarkerPos))) << "the high 32 bits are dropped";
  ASSERT_EQ(static_cast<int>(buf.size()), m_acc.Read(p, static_cast<int>(buf.size())));
  EXPECT_EQ(marker, buf);
  __int64 before = m_acc.GetPosition();
  EXPECT_EQ(0, m_acc.SetPosition(2147483648LL)) << "2 GiB is the negative offset -2 GiB: refused";
  EXPECT_EQ(before, m_acc.GetPosition());

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

// Closing in the middle of read-ahead and write-behind: prompt, the worker
// gone, a partial download dropped, a queued upload complete.
TEST_F(FtpAccessTest, CloseEndsReadAheadAndCompletesWriteBehind) {
  Put("long.bin", RandomBytes(20 * 1024 * 1024, 4));
  const int baseline = ThreadCount();
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 1 << 20));
  ASSERT_EQ(1, m_acc.OpenFile(L"long.bin", 1));
  BYTE b[100];
  ASSERT_EQ(100, m_acc.Read(b, 100));
  EXPECT_EQ(1, m_acc.CloseFile());  // the worker waits on a full ring here
  EXPECT_EQ(baseline, ThreadCountSettled(baseline));

  const std::string data = RandomBytes(5 * 1024 * 1024, 5);
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.EnableAsyncWrite(1, 8 * 1024 * 1024));
  ASSERT_EQ(1, m_acc.OpenFile(L"behind.bin", 2));
  ASSERT_EQ(static_cast<int>(data.size()),
            m_acc.Write(reinterpret_cast<const BYTE*>(data.data()), static_cast<int>(data.size())));
  EXPECT_EQ(1, m_acc.CloseFile());  // most of it still queued here
  EXPECT_EQ(baseline, ThreadCountSettled(baseline));
  EXPECT_TRUE(ReadWholeFile(s_root->file("behind.bin")) == data);

  // Enabled but never opened: destruction ends the waiting worker.
  {
    KxFileAccessFtp idle;
    EXPECT_EQ(1, idle.EnableAsyncRead(1, 1 << 20));
    EXPECT_EQ(baseline + 1, ThreadCountSettled(baseline + 1));
  }
  EXPECT_EQ(baseline, ThreadCountSettled(baseline));
}

TEST_F(FtpAccessTest, AsyncSettingsFollowTheInterface) {
  EXPECT_EQ(0, m_acc.EnableAsyncWrite(1, 0));
  // Async mode survives CloseFile: the next open reads ahead again.
  const std::string data = Put("again.bin", RandomBytes(100000, 6));
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.EnableAsyncRead(1, 1 << 20));
  ASSERT_EQ(1, m_acc.OpenFile(L"again.bin", 1));
  m_acc.CloseFile();
  ASSERT_EQ(1, LogIn(m_acc, Port()));
  ASSERT_EQ(1, m_acc.OpenFile(L"again.bin", 1));
  BYTE b[100], b2[250];
  ASSERT_EQ(100, m_acc.Read(b, 100));
  ASSERT_EQ(250, m_acc.Read(b2, 250));
  EXPECT_EQ(350, m_acc.GetPosition());
  EXPECT_TRUE(ReadAll(m_acc, 3000) == data.substr(350));
  EXPECT_EQ(0, m_acc.EnableAsyncWrite(1, 1 << 20)) << "the open file reads";
  m_acc.CloseFile();
}

}  // namespace

namespace {

// The way a host reaches the back-end: Initialize(16) on the exported facade.
TEST_F(FtpAccessTest, FacadeInitializeSixteenSelectsTheFtpBackEnd) {
  const std::string data = Put("facade.bin", RandomBytes(70000, 9));
  QLCT_FileAccess facade;
  EXPECT_EQ(1, facade.Initialize(16));
  EXPECT_EQ(0, facade.OpenFile(CComBSTR(L"facade.bin"), ACCESS_MODE_READ)) << "not logged in yet";
  ASSERT_EQ(1, facade.LogInHost(CComBSTR(L"127.0.0.1"), CComBSTR(L"qlt"),
                                CComBSTR(QltUtf8ToWide(FtpTestServer::password()).c_str()), Port()));
  ASSERT_EQ(1, facade.OpenFile(CComBSTR(L"facade.bin"), ACCESS_MODE_READ));
  EXPECT_EQ(data.size(), facade.GetLength());
  std::string got(data.size(), '\0');
  EXPECT_EQ(static_cast<int>(data.size()), facade.Read(reinterpret_cast<BYTE*>(&got[0]), static_cast<int>(got.size())));
  EXPECT_TRUE(got == data);
  EXPECT_EQ(1, facade.CloseFile());
}

}  // namespace
