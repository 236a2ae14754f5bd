// The writer with and without its write cache (64 MiB pool), in two kinds
// of pass, the variants alternating over the repetitions:
//
// - Flat out: 512 MiB in 512 KiB host writes as fast as the host can go,
//   once with every 32nd block write stalled for 100 ms (fault control) and
//   once without stalls. Reported per pass: the time the host spent inside
//   WriteFile calls, the time close took (the cache's drain) and the total
//   time to a closed file.
// - A recording host: 512 KiB every 5 ms (about 100 MB/s) for
//   QLTFS_BENCH_RECORD_MB MiB (default 1024), every 32nd block write
//   stalled for 100 ms. The host keeps its schedule: a write that comes late
//   is made at once. Reported per pass: the longest single WriteFile and the
//   99.9th percentile of the calls, in milliseconds.
//
// Every pass overwrites one existing file of the final size and starts with
// its dirty pages written back (outside the timing).
//
// The machine has 2 cores: the cached variant runs three busy threads (host,
// pool mover, cache thread), so its figures include scheduling.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/ratio_reporter.h"
#include "platform/platform.h"
#include "qltfsdk/qltfsdk.h"

namespace {

constexpr DWORD kWrite = 512 * 1024;
constexpr int kWrites = 1024;  // 512 MiB per flat-out pass
constexpr auto kRecordPeriod = std::chrono::milliseconds(5);
constexpr int kStallEvery = 32;
constexpr DWORD kStallMs = 100;

using Clock = std::chrono::steady_clock;

std::string BenchDir() {
  const char* d = std::getenv("QLTFS_BENCH_DIR");
  return (d && *d) ? d : std::string("build");
}

// Host writes per recording pass.
int RecordWrites() {
  const char* mb = std::getenv("QLTFS_BENCH_RECORD_MB");
  long n = (mb && *mb) ? std::strtol(mb, nullptr, 10) : 1024;
  return static_cast<int>((n > 0 ? n : 1) * 2);
}

const std::string& Prepare() {
  static const std::string path = BenchDir() + "/bench-write-cache.dat";
  static bool bMade = false;
  if (bMade) return path;
  bMade = true;
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  std::vector<char> block(kWrite, 'x');
  for (int i = 0; i < std::max(kWrites, RecordWrites()); ++i)
    if (::write(fd, block.data(), kWrite) != static_cast<ssize_t>(kWrite)) std::abort();
  ::close(fd);
  return path;
}

void Settle(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY);
  ::fdatasync(fd);
  ::close(fd);
}

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Arms a delay of kStallMs for every kStallEvery-th block write of nWrites;
// returns the rules' ids.
std::vector<int> ArmStalls(int nWrites) {
  std::vector<int> stalls;
  for (int k = 1; k * kStallEvery <= nWrites; ++k) {
    qlt::fault::Rule rule;
    rule.ops = qlt::fault::kWrite;
    rule.pathPattern = L"*bench-write-cache.dat";
    rule.nth = k * kStallEvery;
    rule.action = qlt::fault::Action::kDelay;
    rule.delayMs = kStallMs;
    stalls.push_back(qlt::fault::Arm(rule));
  }
  return stalls;
}

// state.range(0): 1 with the cache; state.range(1): 1 with stalls.
void BM_Writer(benchmark::State& state) {
  const bool bCache = state.range(0) != 0, bStalls = state.range(1) != 0;
  const std::string& path = Prepare();
  std::wstring wpath = QltWindowsPath(path);
  std::vector<char> data(kWrite, 'w');
  double hostMs = 0, closeMs = 0, totalMs = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Settle(path);
    std::vector<int> stalls = bStalls ? ArmStalls(kWrites) : std::vector<int>{};
    QLCT_FileEx* w = QLCT_CreateFileExObj();
    QLCT_FIlEACCESSINFO_ST info{bCache ? 1 : 0, 2, 0, 64u << 20, nullptr, 4194304, 16u << 20};
    w->Initialize(&info);
    state.ResumeTiming();

    Clock::time_point start = Clock::now();
    if (!w->CreateKXFile(CComBSTR(wpath.c_str()), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                         nullptr))
      state.SkipWithError("open failed");
    Clock::duration inWrite{};
    for (int i = 0; i < kWrites; ++i) {
      DWORD n = 0;
      Clock::time_point t = Clock::now();
      if (!w->WriteFile(data.data(), kWrite, &n, nullptr)) state.SkipWithError("write failed");
      inWrite += Clock::now() - t;
    }
    Clock::time_point closing = Clock::now();
    if (!w->CloseHandle()) state.SkipWithError("close failed");
    Clock::time_point end = Clock::now();

    state.PauseTiming();
    QLCT_DeleteFileExObj(w);
    for (int id : stalls) qlt::fault::Disarm(id);
    state.ResumeTiming();
    hostMs += Ms(inWrite);
    closeMs += Ms(end - closing);
    totalMs += Ms(end - start);
  }
  double n = static_cast<double>(state.iterations());
  state.counters["host_ms"] = hostMs / n;
  state.counters["close_ms"] = closeMs / n;
  state.counters["total_ms"] = totalMs / n;
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kWrite) * kWrites);
}

// The recording host; state.range(0): 1 with the cache.
void BM_Recorder(benchmark::State& state) {
  const bool bCache = state.range(0) != 0;
  const std::string& path = Prepare();
  std::wstring wpath = QltWindowsPath(path);
  std::vector<char> data(kWrite, 'r');
  const int nWrites = RecordWrites();
  double maxMs = 0, p999Ms = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Settle(path);
    std::vector<int> stalls = ArmStalls(nWrites);
    QLCT_FileEx* w = QLCT_CreateFileExObj();
    QLCT_FIlEACCESSINFO_ST info{bCache ? 1 : 0, 2, 0, 64u << 20, nullptr, 4194304, 16u << 20};
    w->Initialize(&info);
    std::vector<double> callMs(static_cast<size_t>(nWrites));
    state.ResumeTiming();

    if (!w->CreateKXFile(CComBSTR(wpath.c_str()), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                         nullptr))
      state.SkipWithError("open failed");
    Clock::time_point due = Clock::now();
    for (int i = 0; i < nWrites; ++i) {
      std::this_thread::sleep_until(due);
      due += kRecordPeriod;
      DWORD n = 0;
      Clock::time_point t = Clock::now();
      if (!w->WriteFile(data.data(), kWrite, &n, nullptr)) state.SkipWithError("write failed");
      callMs[static_cast<size_t>(i)] = Ms(Clock::now() - t);
    }
    if (!w->CloseHandle()) state.SkipWithError("close failed");

    state.PauseTiming();
    QLCT_DeleteFileExObj(w);
    for (int id : stalls) qlt::fault::Disarm(id);
    std::sort(callMs.begin(), callMs.end());
    maxMs = callMs.back();
    p999Ms = callMs[static_cast<size_t>(static_cast<double>(nWrites - 1) * 0.999)];
    state.ResumeTiming();
  }
  // One iteration per repetition: the counters are that pass's figures.
  state.counters["max_ms"] = maxMs;
  state.counters["p999_ms"] = p999Ms;
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kWrite) * nWrites);
}

BENCHMARK(BM_Recorder)
    ->ArgNames({"cache"})
    ->Arg(0)
    ->Arg(1)
    ->Repetitions(7)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The stalled passes take seconds each and vary little; the passes without
// stalls take a fraction of a second and vary with the disk's flushes, so
// they run more often.
BENCHMARK(BM_Writer)
    ->ArgNames({"cache", "stalls"})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Repetitions(3)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Writer)
    ->ArgNames({"cache", "stalls"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Repetitions(11)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Keeps the median of each counter per run name, and each repetition's
// value.
class CounterReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Iteration && !r.error_occurred) {
        for (const auto& c : r.counters) m_values[r.run_name.args + " " + c.first].push_back(c.second.value);
        continue;
      }
      if (r.run_type != Run::RT_Aggregate || r.aggregate_name != "median") continue;
      for (const auto& c : r.counters) m_medians[r.run_name.args + " " + c.first] = c.second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double Get(const std::string& args, const std::string& counter) const {
    auto it = m_medians.find(args + " " + counter);
    return it == m_medians.end() ? 0.0 : it->second;
  }
  // Prints a counter's median with the repetitions' min-max, and whether it
  // stays within goal (goal <= 0: no goal).
  void PrintFigure(const char* label, const std::string& args, const std::string& counter, double goal) const {
    auto it = m_values.find(args + " " + counter);
    if (it == m_values.end() || it->second.empty()) {
      std::printf("value %-48s n/a (did not run)\n", label);
      return;
    }
    auto [lo, hi] = std::minmax_element(it->second.begin(), it->second.end());
    double median = Get(args, counter);
    std::printf("value %-48s %8.2f ms (min-max %.2f-%.2f)", label, median, *lo, *hi);
    if (goal > 0) std::printf("  (goal <= %.1f ms) %s", goal, *hi <= goal ? "met" : "NOT MET");
    std::printf("\n");
  }

 private:
  std::map<std::string, double> m_medians;
  std::map<std::string, std::vector<double>> m_values;
};

void PrintRatio(const char* label, double value, double base, double goal) {
  if (value <= 0 || base <= 0) {
    std::printf("ratio %-48s n/a (a variant did not run)\n", label);
    return;
  }
  double ratio = value / base;
  std::printf("ratio %-48s %.3f  (goal <= %.2f) %s\n", label, ratio, goal, ratio <= goal ? "met" : "NOT MET");
}

}  // namespace

int main(int argc, char** argv) {
  CounterReporter reporter;
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.push_back(interleave.data());
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::printf("\n");
  reporter.PrintFigure("recorder, cached: longest WriteFile", "cache:1", "max_ms", 5.0);
  reporter.PrintFigure("recorder, cached: 99.9th percentile", "cache:1", "p999_ms", 2.0);
  reporter.PrintFigure("recorder, uncached: longest WriteFile", "cache:0", "max_ms", 0);
  reporter.PrintFigure("recorder, uncached: 99.9th percentile", "cache:0", "p999_ms", 0);
  const char* plainStalled = "cache:0/stalls:1";
  const char* cachedStalled = "cache:1/stalls:1";
  PrintRatio("host time in WriteFile, cached/uncached (stalls)", reporter.Get(cachedStalled, "host_ms"),
             reporter.Get(plainStalled, "host_ms"), 0.10);
  PrintRatio("time to closed file, cached/uncached (stalls)", reporter.Get(cachedStalled, "total_ms"),
             reporter.Get(plainStalled, "total_ms"), 1.05);
  PrintRatio("time to closed file, cached/uncached (no stalls)", reporter.Get("cache:1/stalls:0", "total_ms"),
             reporter.Get("cache:0/stalls:0", "total_ms"), 1.15);
  return 0;
}
