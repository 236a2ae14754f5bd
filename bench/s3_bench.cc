// Object upload and download through the library against the AWS command
// line client doing the same, on loopback, against the same store: the
// tests' S3 front (tests/support/s3_front.py, which checks every signature)
// before the npm object store. The upload goes through the safe writer
// (QLCT_FileEx on oss://, the plug-in's multipart engine), the download
// through the accessor (ranged reads); the client runs `/usr/bin/aws s3 cp`
// both ways. Each side reads its source from, and writes its download to, a
// local file. The four variants alternate (the order rotates each
// repetition), 5 repetitions by default; medians are compared with min-max
// beside them. Goal: >= 1.0x the client both ways.
//
// Beside each figure: the client's CPU share (ours: this process's CPU
// seconds over the wall time, the plug-in's threads included; the AWS
// client: its CPU from getrusage of reaped children) and the store's share
// (the front and the node store together). The front and the store are
// interpreted and may be what limits both sides: a store share near 100% of
// a core says so. The upload's peak memory is this process's resident-set
// growth over the upload (the peak is reset before it), to be held within the
// plug-in's memory limit (QLTFS_WEB_MEMORY_LIMIT, default 64 MiB) + 16 MiB.
//
// Environment: QLTFS_S3_BENCH_MB (object size, default 512),
// QLTFS_S3_BENCH_REPS (default 5), QLTFS_BENCH_DIR (folder, default "build").
// Exits non-zero when a goal is missed or a transfer fails. The machine's
// other load shows in the figures: run it idle.
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "bench/proc_cpu.h"
#include "qltfsdk/qltfsdk.h"
#include "tests/support/s3_server.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
constexpr long long kMiB = 1 << 20;
constexpr int kBlock = 1 << 20;  // host read and write size on our side

long long EnvNumber(const char* name, long long fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::atoll(v) : fallback;
}

double RusageSeconds(int who) {
  rusage u{};
  getrusage(who, &u);
  auto s = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return s(u.ru_utime) + s(u.ru_stime);
}

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM").
long long StatusKiB(const std::string& field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(field + ":", 0) == 0) return std::atoll(line.c_str() + field.size() + 1);
  return 0;
}

CComBSTR Wide(const std::string& text) { return CComBSTR(std::wstring(text.begin(), text.end()).c_str()); }

bool UploadThroughWriter(const std::string& file, const std::string& url) {
  std::FILE* in = std::fopen(file.c_str(), "rb");
  if (!in) return false;
  QLCT_FileEx* writer = QLCT_CreateFileExObj();
  QLCT_FIlEACCESSINFO_ST info{0, 0, 0, 32u << 20, nullptr, 4u << 20, 16u << 20};
  bool ok = writer && writer->Initialize(&info) &&
            writer->CreateKXFile(Wide(url), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
  std::vector<char> buffer(kBlock);
  size_t n;
  while (ok && (n = std::fread(buffer.data(), 1, buffer.size(), in)) > 0) {
    DWORD written = 0;
    ok = writer->WriteFile(buffer.data(), static_cast<DWORD>(n), &written, nullptr) && written == n;
  }
  ok = ok && writer->CloseHandle();
  if (writer) QLCT_DeleteFileExObj(writer);
  std::fclose(in);
  return ok;
}

bool DownloadThroughAccessor(const std::string& url, const std::string& file, long long size) {
  QLCT_FileAccess access;
  if (!access.OpenFile(Wide(url), ACCESS_MODE_READ)) return false;
  std::FILE* out = std::fopen(file.c_str(), "wb");
  if (!out) return false;
  std::vector<BYTE> buffer(kBlock);
  long long done = 0;
  int n;
  while ((n = access.Read(buffer.data(), kBlock)) > 0) {
    if (std::fwrite(buffer.data(), 1, static_cast<size_t>(n), out) != static_cast<size_t>(n)) break;
    done += n;
  }
  access.CloseFile();
  return std::fclose(out) == 0 && n == 0 && done == size;
}

struct Sample {
  double seconds = 0, clientCpu = 0, storeCpu = 0;
};

struct Figures {
  std::vector<Sample> samples;
  double Median(double Sample::*field) const {
    std::vector<double> v;
    for (const Sample& s : samples) v.push_back(s.*field);
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
  }
  double MedianSeconds() const { return Median(&Sample::seconds); }
  double MinSeconds() const {
    double m = samples.empty() ? 0 : samples[0].seconds;
    for (const Sample& s : samples) m = std::min(m, s.seconds);
    return m;
  }
  double MaxSeconds() const {
    double m = 0;
    for (const Sample& s : samples) m = std::max(m, s.seconds);
    return m;
  }
};

}  // namespace

int main() {
  const long long nBytes = EnvNumber("QLTFS_S3_BENCH_MB", 512) * kMiB;
  const int reps = static_cast<int>(std::max(1LL, EnvNumber("QLTFS_S3_BENCH_REPS", 5)));
  const long long memoryLimit = EnvNumber("QLTFS_WEB_MEMORY_LIMIT", 64 * kMiB);
  const char* dirEnv = std::getenv("QLTFS_BENCH_DIR");
  const fs::path dir = fs::absolute(dirEnv && *dirEnv ? dirEnv : "build") / "s3-bench";
  fs::remove_all(dir);
  fs::create_directories(dir);
  const std::string src = (dir / "src.bin").string();
  MakePatternFile(src, nBytes);
  std::printf("S3 bench: %lld MiB objects, %d repetitions, writer/accessor vs /usr/bin/aws s3 cp\n", nBytes / kMiB,
              reps);

  S3TestServer server((dir / "store").string());
  server.UseInThisProcess();
  server.CreateBucket("qlt-bench");
  const std::string ours = "oss://qlt-bench/ours.bin";

  long long peakGrowthKiB = 0;
  std::map<std::string, bool> failed;  // a variant that failed once is not run again
  std::map<std::string, std::function<bool()>> runs{
      {"upload writer",
       [&] {
         const long long base = StatusKiB("VmRSS");
         std::ofstream("/proc/self/clear_refs") << "5";  // restarts the peak (VmHWM) from now
         bool ok = UploadThroughWriter(src, ours);
         peakGrowthKiB = std::max(peakGrowthKiB, StatusKiB("VmHWM") - base);
         return ok;
       }},
      {"upload aws",
       [&] {
         std::string out;
         bool ok = server.RunAwsCli("s3 cp --no-progress " + src + " s3://qlt-bench/aws.bin", &out) == 0;
         if (!ok) std::fprintf(stderr, "%s\n", out.c_str());
         return ok;
       }},
      {"download accessor", [&] { return DownloadThroughAccessor(ours, (dir / "down-ours.bin").string(), nBytes); }},
      {"download aws",
       [&] {
         std::string out;
         bool ok = server.RunAwsCli("s3 cp --no-progress s3://qlt-bench/aws.bin " + (dir / "down-aws.bin").string(),
                                    &out) == 0;
         if (!ok) std::fprintf(stderr, "%s\n", out.c_str());
         return ok;
       }},
  };
  // Each download needs its object: the uploads run first in every order.
  std::vector<std::vector<std::string>> orders{{"upload writer", "upload aws", "download accessor", "download aws"},
                                               {"upload aws", "upload writer", "download aws", "download accessor"}};
  std::map<std::string, Figures> figures;
  for (int rep = 0; rep < reps; ++rep) {
    for (const std::string& name : orders[static_cast<size_t>(rep) % orders.size()]) {
      if (failed[name]) continue;
      const bool aws = name.find("aws") != std::string::npos;
      const double self0 = RusageSeconds(RUSAGE_SELF), children0 = RusageSeconds(RUSAGE_CHILDREN);
      const double store0 = TreeCpuSeconds(server.pid());
      const Clock::time_point t0 = Clock::now();
      const bool ok = runs[name]();
      Sample s;
      s.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
      s.clientCpu = aws ? RusageSeconds(RUSAGE_CHILDREN) - children0 : RusageSeconds(RUSAGE_SELF) - self0;
      s.storeCpu = TreeCpuSeconds(server.pid()) - store0;
      if (!ok) {
        std::printf("%s failed in repetition %d\n", name.c_str(), rep + 1);
        failed[name] = true;
        continue;
      }
      figures[name].samples.push_back(s);
    }
    if (rep == 0) {
      // Once: every side moved the same bytes.
      for (const char* name : {"download accessor", "download aws"}) {
        if (failed[name]) continue;
        const char* file = std::string(name) == "download aws" ? "down-aws.bin" : "down-ours.bin";
        std::string cmd = "cmp -s '" + src + "' '" + (dir / file).string() + "'";
        if (std::system(cmd.c_str()) != 0) {
          std::printf("%s: %s differs from the source\n", name, file);
          failed[name] = true;
        }
      }
    }
  }

  bool met = true;
  for (const auto& [name, bad] : failed) met &= !bad;
  {
    std::printf("\n%-18s %10s %21s %11s %10s\n", "variant", "MiB/s", "min-max MiB/s", "client CPU", "store CPU");
    for (const auto& [name, f] : figures) {
      if (failed[name]) {
        std::printf("%-18s %10s\n", name.c_str(), "failed");
        continue;
      }
      const double rate = static_cast<double>(nBytes) / kMiB / f.MedianSeconds();
      std::printf("%-18s %10.1f %10.1f - %8.1f %10.0f%% %9.0f%%\n", name.c_str(), rate,
                  static_cast<double>(nBytes) / kMiB / f.MaxSeconds(),
                  static_cast<double>(nBytes) / kMiB / f.MinSeconds(),
                  100 * f.Median(&Sample::clientCpu) / f.MedianSeconds(),
                  100 * f.Median(&Sample::storeCpu) / f.MedianSeconds());
    }
    auto ratio = [&](const char* label, const char* mine, const char* theirs) {
      if (failed[mine] || failed[theirs] || figures[mine].samples.empty() || figures[theirs].samples.empty()) {
        std::printf("ratio %-28s not measured (a side failed)\n", label);
        return false;
      }
      const double r = figures[theirs].MedianSeconds() / figures[mine].MedianSeconds();
      std::printf("ratio %-28s %.3f  (goal >= 1.00) %s\n", label, r, r >= 1.0 ? "met" : "NOT MET");
      return r >= 1.0;
    };
    std::printf("\n");
    met &= ratio("upload writer / aws", "upload writer", "upload aws");
    met &= ratio("download accessor / aws", "download accessor", "download aws");
    const long long allowedKiB = (memoryLimit + 16 * kMiB) / 1024;
    std::printf("upload peak memory: %.1f MiB resident growth (limit %.0f MiB + 16 MiB) %s\n",
                static_cast<double>(peakGrowthKiB) / 1024, static_cast<double>(memoryLimit) / kMiB,
                peakGrowthKiB <= allowedKiB ? "met" : "NOT MET");
    met &= peakGrowthKiB <= allowedKiB;
  }
  fs::remove_all(dir);
  return met ? 0 : 1;
}
