// The FTP back-end against the curl command doing the same transfer, on
// loopback, in one run: download (curl -o /dev/null) and upload (curl -T)
// of one file, through the accessor synchronously and with read-ahead /
// write-behind. The variants alternate (the order rotates each repetition),
// 5 repetitions by default, and the medians are compared: goal >= 0.9x curl
// both ways. Both sides use active data connections, the back-end's default.
//
// The server is the Python test server (tests/support/ftp_server.py); its CPU
// share (CPU seconds / wall seconds) is printed beside each figure, because
// near 100% the server, not the client, would set the pace (it serves
// downloads with sendfile and stays far below that here).
//
// Environment: QLTFS_FTP_BENCH_MB (file size, default 512), QLTFS_FTP_BENCH_REPS
// (default 5), QLTFS_FTP_BENCH_BLOCK (host read size, default 1 MiB),
// QLTFS_BENCH_DIR (folder, default "build"). Exits non-zero when a goal is
// missed. The machine's other load shows in the figures: run it idle.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "access/kx_file_access_ftp.h"
#include "bench/bench_files.h"
#include "tests/support/ftp_server.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
constexpr int kMiB = 1 << 20;

long long EnvNumber(const char* name, long long fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::atoll(v) : fallback;
}

// CPU seconds (user + system) a process has used so far.
double CpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 2));
  std::string f;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> f; ++i) {
    if (i == 14) utime = std::stoull(f);
    if (i == 15) stime = std::stoull(f);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// CPU seconds of pid and all its descendants that are still running.
double TreeCpuSeconds(pid_t pid) {
  double total = CpuSeconds(pid);
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in(entry.path() / "stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream fields(text.substr(close + 2));
    std::string state;
    pid_t ppid = 0;
    fields >> state >> ppid;
    if (ppid == pid) total += CpuSeconds(static_cast<pid_t>(std::stoi(name)));
  }
  return total;
}

int RunCommand(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Server {
  std::string host = "127.0.0.1";
  int port = 0;
  std::string user, password;
  pid_t pid = -1;
  std::string Url(const std::string& path) const {
    return "ftp://" + user + ":" + password + "@" + host + ":" + std::to_string(port) + "/" + path;
  }
};

bool AccessorDownload(const Server& s, bool async, long long nBytes) {
  KxFileAccessFtp acc;
  if (!acc.LogInHost(QltUtf8ToWide(s.host).c_str(), QltUtf8ToWide(s.user).c_str(), QltUtf8ToWide(s.password).c_str(),
                     s.port))
    return false;
  if (async) acc.EnableAsyncRead(1, 10 * kMiB);
  if (!acc.OpenFile(L"src.bin", 1)) return false;
  static const int block = static_cast<int>(EnvNumber("QLTFS_FTP_BENCH_BLOCK", kMiB));
  std::vector<BYTE> buf(static_cast<size_t>(block));
  long long total = 0;
  for (int n; (n = acc.Read(buf.data(), block)) > 0;) total += n;
  acc.CloseFile();
  return total == nBytes;
}

bool AccessorUpload(const Server& s, bool async, const fs::path& local, const std::string& name) {
  KxFileAccessFtp acc;
  if (!acc.LogInHost(QltUtf8ToWide(s.host).c_str(), QltUtf8ToWide(s.user).c_str(), QltUtf8ToWide(s.password).c_str(),
                     s.port))
    return false;
  if (async) acc.EnableAsyncWrite(1, 10 * kMiB);
  if (!acc.OpenFile(QltUtf8ToWide(name).c_str(), 2)) return false;
  int fd = ::open(local.c_str(), O_RDONLY);
  std::vector<BYTE> buf(kMiB);
  bool ok = fd >= 0;
  for (ssize_t n; ok && (n = ::read(fd, buf.data(), buf.size())) > 0;)
    ok = acc.Write(buf.data(), static_cast<int>(n)) == n;
  if (fd >= 0) ::close(fd);
  acc.CloseFile();
  return ok && GetLastError() == ERROR_SUCCESS;
}

struct Variant {
  Variant(std::string n, std::function<bool()> r) : name(std::move(n)), run(std::move(r)) {}
  std::string name;
  std::function<bool()> run;
  std::vector<double> rates, cpuShares;  // one per successful repetition
};

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main() {
  const long long nBytes = EnvNumber("QLTFS_FTP_BENCH_MB", 512) * kMiB;
  const int reps = static_cast<int>(std::max(1LL, EnvNumber("QLTFS_FTP_BENCH_REPS", 5)));
  const char* dirEnv = std::getenv("QLTFS_BENCH_DIR");
  const fs::path dir = fs::absolute(dirEnv && *dirEnv ? dirEnv : "build") / "ftp-bench";
  const fs::path root = dir / "root";
  fs::remove_all(dir);
  fs::create_directories(root);
  MakePatternFile((root / "src.bin").string(), nBytes);
  MakePatternFile((dir / "up.bin").string(), nBytes);
  // Uploads overwrite files of the final size, so no side pays for growing one.
  for (const char* name : {"up_curl.bin", "up_sync.bin", "up_async.bin"})
    MakePatternFile((root / name).string(), nBytes);
  ::chmod(root.c_str(), 0777);

  FtpTestServer server(root.string());
  Server s;
  s.port = server.port();
  s.pid = server.pid();
  s.user = FtpTestServer::user();
  s.password = FtpTestServer::password();
  std::printf("FTP bench: %lld MiB, %d repetitions, pyftpdlib on 127.0.0.1:%d\n", nBytes / kMiB, reps, s.port);

  const std::string up = (dir / "up.bin").string();
  std::vector<Variant> down = {
      {"download curl",
       [&] {
         return RunCommand({"curl", "-s", "-S", "-P", "-", "-o", "/dev/null", s.Url("src.bin")}) == 0;
       }},
      {"download sync", [&] { return AccessorDownload(s, false, nBytes); }},
      {"download async", [&] { return AccessorDownload(s, true, nBytes); }},
  };
  std::vector<Variant> upl = {
      {"upload curl",
       [&] {
         return RunCommand({"curl", "-s", "-S", "-P", "-", "-T", up, s.Url("up_curl.bin")}) == 0;
       }},
      {"upload sync", [&] { return AccessorUpload(s, false, up, "up_sync.bin"); }},
      {"upload async", [&] { return AccessorUpload(s, true, up, "up_async.bin"); }},
  };

  bool allOk = true;
  for (std::vector<Variant>* group : {&down, &upl}) {
    for (int r = 0; r < reps; ++r) {
      for (size_t k = 0; k < group->size(); ++k) {
        Variant& v = (*group)[(k + static_cast<size_t>(r)) % group->size()];  // rotate the order
        double cpu0 = TreeCpuSeconds(s.pid);
        Clock::time_point t0 = Clock::now();
        bool ok = v.run();
        double secs = std::chrono::duration<double>(Clock::now() - t0).count();
        double cpu = TreeCpuSeconds(s.pid) - cpu0;
        if (!ok) {
          std::printf("  %s failed\n", v.name.c_str());
          allOk = false;
          continue;
        }
        v.rates.push_back(static_cast<double>(nBytes) / kMiB / secs);
        v.cpuShares.push_back(cpu / secs);
      }
    }
  }
  std::printf("\n%-16s %12s %12s\n", "variant", "MiB/s (med)", "server CPU");
  for (std::vector<Variant>* group : {&down, &upl})
    for (const Variant& v : *group)
      std::printf("%-16s %12.1f %11.0f%%\n", v.name.c_str(), Median(v.rates), 100 * Median(v.cpuShares));
  std::printf("\n");
  bool met = allOk;
  for (std::vector<Variant>* group : {&down, &upl}) {
    double base = Median((*group)[0].rates);
    for (size_t k = 1; k < group->size(); ++k) {
      double ratio = base > 0 ? Median((*group)[k].rates) / base : 0;
      std::printf("ratio %-32s %.3f  (goal >= 0.90) %s\n", ((*group)[k].name + " / curl").c_str(), ratio,
                  ratio >= 0.9 ? "met" : "NOT MET");
      met = met && ratio >= 0.9;
    }
  }
  fs::remove_all(dir);
  return met ? 0 : 1;
}
