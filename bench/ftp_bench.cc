// The FTP back-end against the curl command doing the same transfer, on
// loopback, in one run: download (curl -o /dev/null) and upload (curl -T)
// of one file, through the accessor synchronously and with read-ahead /
// write-behind. The variants alternate (the order rotates each repetition),
// 7 repetitions by default, and the medians are compared: goal >= 0.95x
// curl both ways. Both sides use active data connections, the back-end's default.
//
// The servers: the Python test server (tests/support/ftp_server.py), and
// then vsftpd (when /usr/sbin/vsftpd is installed, see scripts/setup),
// started here on 127.0.0.1 on a free port with anonymous access to a
// temporary folder; it dies with this process. The server's CPU share (CPU
// seconds of the server and its children / wall seconds) is printed beside
// each figure: the machine has two cores, so a server near 100% takes one
// of them from the client.
//
// Environment: QLTFS_FTP_BENCH_MB (file size, default 512), QLTFS_FTP_BENCH_REPS
// (default 7), QLTFS_FTP_BENCH_BLOCK (host read size, default 1 MiB),
// QLTFS_FTP_BENCH_SERVER (pyftpdlib or vsftpd: only that server),
// QLTFS_BENCH_DIR (folder, default "build"). Exits non-zero when a goal is
// missed. The machine's other load shows in the figures: run it idle.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
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
#include "bench/proc_cpu.h"
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

bool HasChildren(pid_t pid) { return !ChildrenOf(pid).empty(); }

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
  std::string name;
  std::string host = "127.0.0.1";
  int port = 0;
  std::string user, password;
  pid_t pid = -1;
  std::string upDir;  // folder of the upload targets, relative to the login directory ("" or "up/")
  std::string Url(const std::string& path) const {
    return "ftp://" + user + ":" + password + "@" + host + ":" + std::to_string(port) + "/" + path;
  }
};

// A free loopback port (bound, then released for the server to take).
int FreeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  ::close(fd);
  return port;
}

bool Listening(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  ::close(fd);
  return ok;
}

// vsftpd on 127.0.0.1, anonymous login (any password) into root, which must
// not be writable by others (vsftpd refuses a writable anonymous root);
// uploads go to root/up. The server is killed by the destructor, and by the
// kernel when this process ends first.
class Vsftpd {
 public:
  static constexpr const char* kBinary = "/usr/sbin/vsftpd";

  Vsftpd(const fs::path& dir, const fs::path& root) {
    m_nPort = FreeLoopbackPort();
    fs::path conf = dir / "vsftpd.conf";
    std::ofstream(conf) << "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=" << m_nPort
                        << "\nbackground=NO\nanonymous_enable=YES\nlocal_enable=NO\nno_anon_password=YES\n"
                        << "anon_root=" << root.string()
                        << "\nwrite_enable=YES\nanon_upload_enable=YES\nanon_other_write_enable=YES\n"
                        << "anon_umask=022\nseccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\n"
                        << "connect_from_port_20=NO\nxferlog_enable=NO\n"
                        << "secure_chroot_dir=/var/run/vsftpd/empty\npam_service_name=vsftpd\n";
    pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      execl(kBinary, "vsftpd", conf.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 100 && m_pid > 0 && !Listening(m_nPort); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ~Vsftpd() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGTERM);
      ::waitpid(m_pid, nullptr, 0);
    }
  }
  Vsftpd(const Vsftpd&) = delete;
  Vsftpd& operator=(const Vsftpd&) = delete;
  bool Ok() const { return m_pid > 0 && Listening(m_nPort); }
  int port() const { return m_nPort; }
  pid_t pid() const { return m_pid; }

 private:
  int m_nPort = 0;
  pid_t m_pid = -1;
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

// Runs the download and upload variants against one server, prints the
// medians, the server's CPU share and the ratios, and returns whether every
// goal was met.
bool RunSuite(const Server& s, const fs::path& up, long long nBytes, int reps) {
  std::printf("\n%s on 127.0.0.1:%d, %lld MiB, %d repetitions\n", s.name.c_str(), s.port, nBytes / kMiB, reps);
  std::fflush(stdout);
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
         return RunCommand({"curl", "-s", "-S", "-P", "-", "-T", up.string(), s.Url(s.upDir + "up_curl.bin")}) == 0;
       }},
      {"upload sync", [&] { return AccessorUpload(s, false, up, s.upDir + "up_sync.bin"); }},
      {"upload async", [&] { return AccessorUpload(s, true, up, s.upDir + "up_async.bin"); }},
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
        // A vsftpd session's processes end and are reaped by the listener
        // (which then counts their time) shortly after the transfer.
        for (int i = 0; i < 100 && HasChildren(s.pid); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
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
  std::printf("%-16s %12s %12s %12s\n", "variant", "MiB/s (med)", "(min-max)", "server CPU");
  for (std::vector<Variant>* group : {&down, &upl})
    for (const Variant& v : *group) {
      auto [lo, hi] = std::minmax_element(v.rates.begin(), v.rates.end());
      std::printf("%-16s %12.1f %5.0f-%-6.0f %11.0f%%\n", v.name.c_str(), Median(v.rates), v.rates.empty() ? 0.0 : *lo,
                  v.rates.empty() ? 0.0 : *hi, 100 * Median(v.cpuShares));
    }
  bool met = allOk;
  for (std::vector<Variant>* group : {&down, &upl}) {
    double base = Median((*group)[0].rates);
    for (size_t k = 1; k < group->size(); ++k) {
      double ratio = base > 0 ? Median((*group)[k].rates) / base : 0;
      std::printf("ratio %-40s %.3f  (goal >= 0.95) %s\n", (s.name + " " + (*group)[k].name + " / curl").c_str(), ratio,
                  ratio >= 0.95 ? "met" : "NOT MET");
      met = met && ratio >= 0.95;
    }
  }
  std::fflush(stdout);
  return met;
}

}  // namespace

int main() {
  const long long nBytes = EnvNumber("QLTFS_FTP_BENCH_MB", 512) * kMiB;
  const int reps = static_cast<int>(std::max(1LL, EnvNumber("QLTFS_FTP_BENCH_REPS", 7)));
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
  const fs::path up = dir / "up.bin";
  std::printf("FTP bench: %lld MiB, %d repetitions\n", nBytes / kMiB, reps);

  const char* only = std::getenv("QLTFS_FTP_BENCH_SERVER");
  auto wanted = [only](const char* name) { return !only || !*only || std::string(only) == name; };
  bool met = true;
  if (wanted("pyftpdlib")) {
    FtpTestServer server(root.string());
    Server s;
    s.name = "pyftpdlib";
    s.port = server.port();
    s.pid = server.pid();
    s.user = FtpTestServer::user();
    s.password = FtpTestServer::password();
    met &= RunSuite(s, up, nBytes, reps);
  }

  if (!wanted("vsftpd")) {
  } else if (::access(Vsftpd::kBinary, X_OK) == 0) {
    // The anonymous root must not be writable; its upload folder must be.
    const fs::path vroot = dir / "vsroot";
    fs::create_directories(vroot / "up");
    fs::create_hard_link(root / "src.bin", vroot / "src.bin");
    for (const char* name : {"up_curl.bin", "up_sync.bin", "up_async.bin"}) {
      fs::rename(root / name, vroot / "up" / name);
      ::chmod((vroot / "up" / name).c_str(), 0666);
    }
    ::chmod(vroot.c_str(), 0755);
    ::chmod((vroot / "up").c_str(), 0777);
    Vsftpd server(dir, vroot);
    if (server.Ok()) {
      Server s;
      s.name = "vsftpd";
      s.port = server.port();
      s.pid = server.pid();
      s.user = "anonymous";
      s.password = "bench";
      s.upDir = "up/";
      met &= RunSuite(s, up, nBytes, reps);
    } else {
      std::printf("\nvsftpd did not start; its comparison is skipped\n");
    }
  } else {
    std::printf("\n%s is not installed (scripts/setup installs it); its comparison is skipped\n", Vsftpd::kBinary);
  }
  fs::remove_all(dir);
  return met ? 0 : 1;
}
