// The FTP back-end against servers that misbehave: each fault ends in a
// failure result within the time-outs, no worker is left behind, and the
// same object works again after a new LogInHost.
#include <gtest/gtest.h>

#include <memory>

#include "tests/access/ftp_test_util.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr size_t kFileSize = 4 * 1024 * 1024;

// What a fault breaks, and so which step must fail.
enum class Step { kLogIn, kOpenRead, kOpenWrite, kRead, kWrite };

struct FaultCase {
  const char* fault;
  Step step;
  bool async;
};

std::ostream& operator<<(std::ostream& os, const FaultCase& c) {
  return os << c.fault << (c.async ? " async" : " sync");
}

class FtpFaultTest : public ::testing::TestWithParam<FaultCase> {};

// Runs the step the fault breaks; returns whether it failed as it must.
bool FailsAtItsStep(KxFileAccessFtp& acc, const FaultCase& c, int port) {
  if (c.step == Step::kLogIn) return LogIn(acc, port) == 0;
  if (LogIn(acc, port) != 1) return false;
  if (c.step == Step::kOpenRead) return acc.OpenFile(L"file.bin", 1) == 0;
  if (c.step == Step::kOpenWrite) return acc.OpenFile(L"new.bin", 2) == 0;
  if (c.step == Step::kRead) {
    if (c.async && acc.EnableAsyncRead(1, 1 << 20) != 1) return false;
    if (acc.OpenFile(L"file.bin", 1) != 1) return false;
    std::string got = ReadAll(acc, 256 * 1024);
    acc.CloseFile();
    return got.size() < kFileSize && got == RandomBytes(kFileSize, 7).substr(0, got.size());
  }
  // Write: some write, or failing that the close, reports the failure.
  if (c.async && acc.EnableAsyncWrite(1, 1 << 20) != 1) return false;
  if (acc.OpenFile(L"new.bin", 2) != 1) return false;
  const std::string data = RandomBytes(kFileSize, 8);
  bool failed = false;
  for (size_t off = 0; off < data.size() && !failed; off += 65536)
    failed = acc.Write(reinterpret_cast<const BYTE*>(data.data() + off), 65536) != 65536;
  EXPECT_EQ(1, acc.CloseFile());
  return failed || GetLastError() != ERROR_SUCCESS;
}

TEST_P(FtpFaultTest, FailsWithinTheTimeoutsAndTheObjectRecovers) {
  const FaultCase& c = GetParam();
  TempDir root;
  WriteWholeFile(root.file("file.bin"), RandomBytes(kFileSize, 7));
  auto bad = std::make_unique<FtpTestServer>(root.path(), c.fault);
  const int baseline = ThreadCount();

  KxFileAccessFtp acc;
  EXPECT_TRUE(FailsAtItsStep(acc, c, bad->port()));
  acc.CloseFile();
  EXPECT_EQ(baseline, ThreadCountSettled(baseline)) << "the worker is gone";

  bad.reset();
  FtpTestServer good(root.path());
  ASSERT_EQ(1, LogIn(acc, good.port())) << "usable after a new login";
  ASSERT_EQ(1, acc.OpenFile(L"file.bin", 1));
  EXPECT_TRUE(ReadAll(acc, 1 << 20) == RandomBytes(kFileSize, 7));
  EXPECT_EQ(1, acc.CloseFile());
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FtpFaultTest,
    ::testing::Values(FaultCase{"greet421", Step::kLogIn, false}, FaultCase{"login530", Step::kLogIn, false},
                      FaultCase{"silent", Step::kLogIn, false}, FaultCase{"retr550", Step::kOpenRead, false},
                      FaultCase{"stor552", Step::kOpenWrite, false}, FaultCase{"retrdrop", Step::kRead, false},
                      FaultCase{"retrdrop", Step::kRead, true}, FaultCase{"retrshort", Step::kRead, false},
                      FaultCase{"retrshort", Step::kRead, true}, FaultCase{"retrstall", Step::kRead, false},
                      FaultCase{"retrstall", Step::kRead, true}, FaultCase{"stordrop", Step::kWrite, false},
                      FaultCase{"stordrop", Step::kWrite, true}, FaultCase{"storstall", Step::kWrite, false},
                      FaultCase{"storstall", Step::kWrite, true}));

TEST(FtpConnectTest, NothingListeningFailsAtOnce) {
  KxFileAccessFtp acc;
  EXPECT_EQ(0, LogIn(acc, UnusedLoopbackPort()));
  EXPECT_EQ(static_cast<DWORD>(QLT_ERROR_FTP_CANNOT_CONNECT), GetLastError());
  EXPECT_EQ(0, acc.OpenFile(L"x", 1));
}

// Close while the read-ahead worker is blocked inside a remote read of a
// server that stopped sending: CloseFile aborts the read and joins it.
TEST(FtpConnectTest, CloseAbortsAReadAheadBlockedOnAStalledServer) {
  TempDir root;
  WriteWholeFile(root.file("file.bin"), RandomBytes(kFileSize, 7));
  FtpTestServer stall(root.path(), "retrstall");
  const int baseline = ThreadCount();
  KxFileAccessFtp acc;
  FtpOptions slow = ShortTimeouts();
  slow.nIdleTimeoutMs = 600000;  // only the abort can end this read
  acc.SetOptions(slow);
  ASSERT_EQ(1, acc.LogInHost(L"127.0.0.1", L"qlt", QltUtf8ToWide(FtpTestServer::password()).c_str(), stall.port()));
  ASSERT_EQ(1, acc.EnableAsyncRead(1, 8 * 1024 * 1024));  // room for all the server sends
  ASSERT_EQ(1, acc.OpenFile(L"file.bin", 1));
  BYTE b[1000];
  ASSERT_EQ(1000, acc.Read(b, 1000));
  EXPECT_EQ(1, acc.CloseFile());
  EXPECT_EQ(baseline, ThreadCountSettled(baseline));
}

}  // namespace
