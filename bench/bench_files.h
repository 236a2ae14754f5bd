// File helpers shared by the benchmarks (POSIX: the baselines are plain
// system calls, measured beside the library in one process).
#ifndef QLTFSDK_BENCH_BENCH_FILES_H
#define QLTFSDK_BENCH_BENCH_FILES_H

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

// Writes nBytes of pseudo-random bytes to path (replacing it) and makes them
// durable, so a pass that reads or overwrites the file starts from disk.
inline void MakePatternFile(const std::string& path, long long nBytes) {
  constexpr long long kChunk = 1 << 20;
  int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  std::vector<char> chunk(kChunk);
  unsigned x = 7;
  for (char& c : chunk) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  for (long long left = nBytes; left > 0; left -= kChunk)
    if (::write(fd, chunk.data(), static_cast<size_t>(std::min(left, kChunk))) < 0) break;
  ::fsync(fd);
  ::close(fd);
}

// Writes back the file's dirty pages outside the timing, so that the next
// pass starts clean.
inline void Settle(benchmark::State& state, const std::string& path) {
  state.PauseTiming();
  int fd = ::open(path.c_str(), O_WRONLY);
  ::fdatasync(fd);
  ::close(fd);
  state.ResumeTiming();
}

#endif  // QLTFSDK_BENCH_BENCH_FILES_H
