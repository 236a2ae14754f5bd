#include "tests/access/ftp_test_util.h"

#include <dirent.h>

#include <chrono>
#include <random>
#include <thread>

FtpOptions ShortTimeouts() {
  FtpOptions o;
  o.nConnectTimeoutMs = 2000;
  o.nIdleTimeoutMs = 1500;
  return o;
}

int LogIn(KxFileAccessFtp& acc, int port, const wchar_t* password) {
  acc.SetOptions(ShortTimeouts());
  std::wstring pw = password ? password : QltUtf8ToWide(FtpTestServer::password());
  return acc.LogInHost(L"127.0.0.1", QltUtf8ToWide(FtpTestServer::user()).c_str(), pw.c_str(), port);
}

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i += 4) {
    unsigned v = gen();
    for (size_t k = 0; k < 4 && i + k < n; ++k) s[i + k] = static_cast<char>(v >> (8 * k));
  }
  return s;
}

namespace {

// Some sanitizer runtimes start a helper thread of their own when the process
// makes its first thread; making (and joining) one at load moves that before
// any count a test takes.
const bool g_bFirstThreadMade = [] {
  std::thread([] {}).join();
  return true;
}();

}  // namespace

int ThreadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

int ThreadCountSettled(int n) {
  int count = ThreadCount();
  for (int i = 0; i < 200 && count > n; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    count = ThreadCount();
  }
  return count;
}

std::string ReadAll(KxFileAccessFtp& acc, int piece) {
  std::string out, buf(static_cast<size_t>(piece), '\0');
  for (;;) {
    int n = acc.Read(reinterpret_cast<BYTE*>(&buf[0]), piece);
    if (n <= 0) break;
    out.append(buf, 0, static_cast<size_t>(n));
  }
  return out;
}
