// The platform layer's WriteFile against plain write() of the same 512 KiB
// blocks. Both overwrite the same existing file of the final size (new-file
// writes into the page cache swing several-fold between runs), each pass
// starts with that file's dirty pages written back (outside the timing, so
// neither side waits for the other's writeback), and the variants alternate
// over the repetitions.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "bench/ratio_reporter.h"
#include "platform/platform.h"

namespace {

constexpr DWORD kBlock = 512 * 1024;
constexpr int kBlocks = 256;  // 128 MiB per pass

std::string BenchDir() {
  const char* d = std::getenv("QLTFS_BENCH_DIR");
  return (d && *d) ? d : std::string("build");
}

const std::string& Prepare() {
  static const std::string path = BenchDir() + "/bench-platform-write.dat";
  static bool bMade = false;
  if (bMade) return path;
  bMade = true;
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  std::vector<char> block(kBlock, 'x');
  for (int i = 0; i < kBlocks; ++i)
    if (::write(fd, block.data(), kBlock) != static_cast<ssize_t>(kBlock)) std::abort();
  ::close(fd);
  return path;
}

void BM_PlatformWriteFile(benchmark::State& state) {
  const std::string& path = Prepare();
  std::wstring wpath = QltWindowsPath(path);
  std::vector<char> block(kBlock, 'p');
  for (auto _ : state) {
    Settle(state, path);
    HANDLE h = CreateFileW(wpath.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) state.SkipWithError("open failed");
    for (int i = 0; i < kBlocks; ++i) {
      DWORD n = 0;
      if (!WriteFile(h, block.data(), kBlock, &n, nullptr) || n != kBlock) state.SkipWithError("write failed");
    }
    CloseHandle(h);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kBlock) * kBlocks);
}

void BM_PosixWrite(benchmark::State& state) {
  const std::string& path = Prepare();
  std::vector<char> block(kBlock, 'p');
  for (auto _ : state) {
    Settle(state, path);
    int fd = ::open(path.c_str(), O_WRONLY);
    for (int i = 0; i < kBlocks; ++i)
      if (::write(fd, block.data(), kBlock) != static_cast<ssize_t>(kBlock)) state.SkipWithError("write failed");
    ::close(fd);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kBlock) * kBlocks);
}

BENCHMARK(BM_PlatformWriteFile)->Repetitions(9)->MinTime(0.3)->UseRealTime();
BENCHMARK(BM_PosixWrite)->Repetitions(9)->MinTime(0.3)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  qlt::bench::RatioReporter reporter;
  qlt::bench::RunInterleaved(argc, argv, &reporter);
  reporter.PrintRatio("platform WriteFile / write()", "BM_PlatformWriteFile", "BM_PosixWrite", 0.98);
  ::unlink((BenchDir() + "/bench-platform-write.dat").c_str());
  return 0;
}
