// The file accessor against plain system calls on the same file, in one
// process, variants alternating, medians of >= 7 repetitions:
//
// 1. Warm page cache, both routes an ordinary read can take (the easy-file
//    back-end a read open gets, and the local back-end with its block
//    cache): 256 KiB host reads against read() of 256 KiB (goal >= 0.8) and
//    4 KiB host reads against read() of 4 KiB (goal >= 1.5).
// 2. Cold file (evicted with posix_fadvise DONTNEED before each run):
//    read-ahead while the host spends ~1 ms per MiB consuming, against the
//    same without read-ahead (goal >= 1.3); read-ahead without a delay
//    against dd of the same cold file (goal >= 0.9).
// 3. Writes of 512 KiB through the accessor, direct and with write-behind,
//    against write() of 512 KiB to an existing file (goal >= 0.9).
//
// File size: 1 GiB, or QLTFS_ACCESS_BENCH_MB MiB for a quick run; folder:
// $QLTFS_BENCH_DIR (default "build"); QLTFS_ACCESS_BENCH_ONLY=warm, cold or
// write runs one section. Exits non-zero when a goal is missed.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "diagnostics/sdk_settings.h"
#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRepetitions = 7;
constexpr int kKiB = 1024;
constexpr int kMiB = 1 << 20;

long long g_nBytes = 1LL << 30;
fs::path g_dir;
fs::path g_file;

fs::path BenchDir() {
  const char* d = std::getenv("QLTFS_BENCH_DIR");
  fs::path dir = fs::absolute((d && *d) ? d : "build");
  fs::create_directories(dir);
  return dir;
}

CComBSTR Wide(const fs::path& p) { return CComBSTR(QltWindowsPath(p.string()).c_str()); }

void Evict(const fs::path& path) {
  int fd = ::open(path.c_str(), O_RDONLY);
  ::fdatasync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

void Warm(const fs::path& path) {
  int fd = ::open(path.c_str(), O_RDONLY);
  std::vector<char> buf(kMiB);
  while (::read(fd, buf.data(), buf.size()) > 0) {
  }
  ::close(fd);
}

// Spends about ms milliseconds of the caller's time, as a host consuming data.
void Consume(double ms) {
  auto until = Clock::now() + std::chrono::duration<double, std::milli>(ms);
  while (Clock::now() < until) {
  }
}

// A facade on the local back-end (made by a write open of a scratch file).
void UseLocalBackEnd(QLCT_FileAccess& f) {
  fs::path scratch = g_dir / "bench-access-scratch.dat";
  f.OpenFile(Wide(scratch), ACCESS_MODE_WRITE);
  f.CloseFile();
  fs::remove(scratch);
}

// Bytes per second of one pass.
double Rate(long long nBytes, const std::function<long long()>& body) {
  auto t0 = Clock::now();
  long long n = body();
  double s = std::chrono::duration<double>(Clock::now() - t0).count();
  if (n != nBytes) std::fprintf(stderr, "short pass: %lld of %lld bytes\n", n, nBytes);
  return s > 0 ? static_cast<double>(n) / s : 0;
}

long long ReadPosix(int block, double msPerMiB = 0) {
  int fd = ::open(g_file.c_str(), O_RDONLY);
  std::vector<char> buf(static_cast<size_t>(block));
  long long total = 0;
  ssize_t n;
  while ((n = ::read(fd, buf.data(), buf.size())) > 0) {
    total += n;
    if (msPerMiB > 0) Consume(msPerMiB * static_cast<double>(n) / kMiB);
  }
  ::close(fd);
  return total;
}

// Reads the whole file through a facade: the easy-file back-end, or the local
// one (async: with read-ahead through a ring of ring bytes).
long long ReadAccessor(bool local, int block, int ring = 0, double msPerMiB = 0) {
  QLCT_FileAccess f;
  if (local) UseLocalBackEnd(f);
  if (ring > 0) f.EnableAsyncRead(1, ring);
  if (!f.OpenFile(Wide(g_file), ACCESS_MODE_READ)) return -1;
  std::vector<BYTE> buf(static_cast<size_t>(block));
  long long total = 0;
  int n;
  while ((n = f.Read(buf.data(), block)) > 0) {
    total += n;
    if (msPerMiB > 0) Consume(msPerMiB * n / kMiB);
  }
  f.CloseFile();
  return total;
}

long long ReadDd() {
  std::string cmd = "dd if='" + g_file.string() + "' of=/dev/null bs=1M status=none";
  return std::system(cmd.c_str()) == 0 ? g_nBytes : 0;
}

long long WritePosix(const fs::path& path, long long nBytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
  std::vector<char> buf(512 * kKiB, 'w');
  long long total = 0;
  while (total < nBytes) {
    ssize_t n = ::write(fd, buf.data(), buf.size());
    if (n <= 0) break;
    total += n;
  }
  ::close(fd);
  return total;
}

long long WriteAccessor(const fs::path& path, long long nBytes, bool async) {
  QLCT_FileAccess f;
  if (!f.OpenFile(Wide(path), ACCESS_MODE_WRITE)) return -1;
  if (async) f.EnableAsyncWrite(1, 10 * kMiB);
  std::vector<BYTE> buf(512 * kKiB, 'w');
  long long total = 0;
  while (total < nBytes) {
    int n = f.Write(buf.data(), static_cast<int>(buf.size()));
    if (n <= 0) break;
    total += n;
  }
  return f.CloseFile() ? total : -1;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

struct Variant {
  std::string name;
  std::function<void()> prepare;
  std::function<long long()> body;
  std::vector<double> rates;
};

// Runs the variants in turn, kRepetitions rounds, and returns the medians.
void RunAlternating(std::vector<Variant>& variants, long long nBytes) {
  for (int r = 0; r < kRepetitions; ++r)
    for (Variant& v : variants) {
      if (v.prepare) v.prepare();
      v.rates.push_back(Rate(nBytes, v.body));
    }
  for (Variant& v : variants)
    std::printf("  %-44s %9.1f MiB/s (median of %d)\n", v.name.c_str(), Median(v.rates) / kMiB, kRepetitions);
  std::fflush(stdout);
}

bool Ratio(const char* label, const Variant& a, const Variant& b, double goal) {
  double ratio = Median(a.rates) / Median(b.rates);
  std::printf("ratio %-52s %.3f  (goal >= %.2f) %s\n", label, ratio, goal, ratio >= goal ? "met" : "NOT MET");
  return ratio >= goal;
}

}  // namespace

int main() {
  if (const char* mb = std::getenv("QLTFS_ACCESS_BENCH_MB")) g_nBytes = std::max(16LL, std::atoll(mb)) << 20;
  g_dir = BenchDir();
  g_file = g_dir / "bench-access.dat";
  MakePatternFile(g_file.string(), g_nBytes);
  SdkSettings.ReadMode = 0;  // the local back-end reads through the page cache
  bool pass = true;
  std::printf("file: %s, %lld MiB\n", g_file.c_str(), g_nBytes >> 20);

  const char* only = std::getenv("QLTFS_ACCESS_BENCH_ONLY");
  auto wanted = [only](const char* section) { return !only || !*only || std::string(only) == section; };

  if (wanted("warm")) {
    std::printf("\nwarm reads\n");
    std::vector<Variant> warm = {
        {"read() 256 KiB", nullptr, [] { return ReadPosix(256 * kKiB); }, {}},
        {"accessor easy-file 256 KiB", nullptr, [] { return ReadAccessor(false, 256 * kKiB); }, {}},
        {"accessor local 256 KiB", nullptr, [] { return ReadAccessor(true, 256 * kKiB); }, {}},
        {"read() 4 KiB", nullptr, [] { return ReadPosix(4 * kKiB); }, {}},
        {"accessor easy-file 4 KiB", nullptr, [] { return ReadAccessor(false, 4 * kKiB); }, {}},
        {"accessor local 4 KiB", nullptr, [] { return ReadAccessor(true, 4 * kKiB); }, {}},
    };
    Warm(g_file);
    RunAlternating(warm, g_nBytes);
    pass &= Ratio("easy-file 256 KiB / read() 256 KiB", warm[1], warm[0], 0.8);
    pass &= Ratio("local 256 KiB / read() 256 KiB", warm[2], warm[0], 0.8);
    pass &= Ratio("easy-file 4 KiB / read() 4 KiB", warm[4], warm[3], 1.5);
    pass &= Ratio("local 4 KiB / read() 4 KiB", warm[5], warm[3], 1.5);
  }

  if (wanted("cold")) {
    std::printf("\ncold reads (evicted before each pass), 1 MiB host reads\n");
    auto evict = [] { Evict(g_file); };
    std::vector<Variant> cold = {
        {"local, 1 ms/MiB consuming, no read-ahead", evict, [] { return ReadAccessor(true, kMiB, 0, 1.0); }, {}},
        {"local, 1 ms/MiB consuming, read-ahead", evict, [] { return ReadAccessor(true, kMiB, 10 * kMiB, 1.0); }, {}},
        {"local, read-ahead, no delay", evict, [] { return ReadAccessor(true, kMiB, 10 * kMiB); }, {}},
        {"dd bs=1M", evict, [] { return ReadDd(); }, {}},
    };
    RunAlternating(cold, g_nBytes);
    pass &= Ratio("read-ahead / none, host consuming 1 ms/MiB", cold[1], cold[0], 1.3);
    pass &= Ratio("read-ahead / dd, cold", cold[2], cold[3], 0.9);
  }

  if (wanted("write")) {
    std::printf("\nwrites of 512 KiB to an existing file\n");
    const fs::path out = g_dir / "bench-access-out.dat";
    MakePatternFile(out.string(), kMiB);
    auto settle = [&out] {
      std::system("sync");
      Evict(out);
    };
    std::vector<Variant> writes = {
        {"write() 512 KiB", settle, [&out] { return WritePosix(out, g_nBytes); }, {}},
        {"accessor local 512 KiB", settle, [&out] { return WriteAccessor(out, g_nBytes, false); }, {}},
        {"accessor local 512 KiB, write-behind", settle, [&out] { return WriteAccessor(out, g_nBytes, true); }, {}},
    };
    RunAlternating(writes, g_nBytes);
    pass &= Ratio("accessor / write(), 512 KiB", writes[1], writes[0], 0.9);
    pass &= Ratio("accessor write-behind / write(), 512 KiB", writes[2], writes[0], 0.9);
    fs::remove(out);
  }

  fs::remove(g_file);
  return pass ? 0 : 1;
}
