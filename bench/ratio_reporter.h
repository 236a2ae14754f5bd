// Runs the registered benchmarks and prints, for each pair of a component and
// its baseline, the ratio of their median rates.
//
// Benchmarks report their rate as bytes or items per second; with
// repetitions the reporter keeps the "median" aggregate of each benchmark,
// keyed by its function name and arguments ("BM_Ring/65536").
#ifndef QLTFSDK_BENCH_RATIO_REPORTER_H
#define QLTFSDK_BENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qlt::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      auto bytes = r.counters.find("bytes_per_second");
      auto items = r.counters.find("items_per_second");
      double rate = bytes != r.counters.end()   ? bytes->second.value
                    : items != r.counters.end() ? items->second.value
                                                : 0.0;
      std::string key = r.run_name.function_name;
      if (!r.run_name.args.empty()) key += "/" + r.run_name.args;
      if (r.run_type == Run::RT_Iteration && !r.error_occurred) {
        m_rates[key].push_back(rate);
        continue;
      }
      if (r.run_type != Run::RT_Aggregate || r.aggregate_name != "median") continue;
      m_medians[key] = rate;
      m_medians[r.run_name.str()] = rate;  // the full run name works too
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The lowest and highest rate of a benchmark's repetitions (0, 0 when it
  // did not run), keyed by function name and arguments.
  std::pair<double, double> Range(const std::string& name) const {
    auto it = m_rates.find(name);
    if (it == m_rates.end() || it->second.empty()) return {0.0, 0.0};
    auto [lo, hi] = std::minmax_element(it->second.begin(), it->second.end());
    return {*lo, *hi};
  }

  // Prints a benchmark's median rate in MB/s with the repetitions' min-max.
  void PrintRate(const std::string& label, const std::string& name) const {
    auto [lo, hi] = Range(name);
    std::printf("rate  %-48s %8.0f MB/s  (min-max %.0f-%.0f)\n", label.c_str(), Median(name) / 1e6, lo / 1e6, hi / 1e6);
  }

  double Median(const std::string& name) const {
    auto it = m_medians.find(name);
    return it == m_medians.end() ? 0.0 : it->second;
  }

  // Prints "ratio <label>: <component/baseline> (goal >= <goal>)" and returns
  // whether the goal was met.
  bool PrintRatio(const std::string& label, const std::string& component, const std::string& baseline,
                  double goal) const {
    double c = Median(component), b = Median(baseline);
    double ratio = b > 0 ? c / b : 0.0;
    std::printf("ratio %-40s %.3f  (goal >= %.2f) %s", label.c_str(), ratio, goal, ratio >= goal ? "met" : "NOT MET");
    // Repetitions were not paired, so the spread is the widest and narrowest
    // quotient of the two sides' ranges.
    auto [cLo, cHi] = Range(component);
    auto [bLo, bHi] = Range(baseline);
    if (bLo > 0 && bHi > 0) std::printf("  [%.3f-%.3f]", cLo / bHi, cHi / bLo);
    std::printf("\n");
    return ratio >= goal;
  }

 private:
  std::map<std::string, double> m_medians;             // run name -> median rate
  std::map<std::string, std::vector<double>> m_rates;  // function/args -> each repetition's rate
};

// Initialises Google Benchmark with interleaved repetitions (variants
// alternate rather than run back to back) unless the command line says
// otherwise, runs everything, and returns the reporter for the ratios.
inline void RunInterleaved(int argc, char** argv, RatioReporter* reporter) {
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.push_back(interleave.data());
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  benchmark::RunSpecifiedBenchmarks(reporter);
  benchmark::Shutdown();
}

}  // namespace qlt::bench

#endif  // QLTFSDK_BENCH_RATIO_REPORTER_H
