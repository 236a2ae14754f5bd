// The safe writer (no cache, 512 KiB write blocks) against plain system
// calls writing 512 KiB blocks to the same file system, in one process, the
// variants alternating over the repetitions. Every side overwrites one
// existing file of the final size, and each pass starts with that file's
// dirty pages written back (outside the timing). Each pass ends with its
// bytes on the device where the variant promises that (the writer's close
// flushes).
//
//   QLTFS_BENCH_DIR       folder of the file (default "build")
//   QLTFS_BENCH_WRITER_MB bytes per pass in MiB (default 1024)
//
// The ceiling is the disk's own speed: O_DIRECT writes of 512 KiB. The
// writer always flushes once more than 16 MiB were written since its last
// flush, so its host slices of 4 KiB, 64 KiB and 1 MiB are held against that
// ceiling; against write() + fdatasync every 16 MiB (the same promise
// without the early write-back); against write() into the page cache (no
// promise, for contrast); and against each other (a small slice should cost
// only its copy). WriteRetryCount 1 (a flush per block) is held against
// write() + fdatasync per block.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "bench/ratio_reporter.h"
#include "qltfsdk/qltfsdk.h"

namespace {

constexpr size_t kBlock = 512 * 1024;
constexpr uint64_t kFlushEvery = 16u << 20;  // a flush once more than this was written

std::string BenchDir() {
  const char* d = std::getenv("QLTFS_BENCH_DIR");
  return (d && *d) ? d : std::string("build");
}

uint64_t PassBytes() {
  const char* mb = std::getenv("QLTFS_BENCH_WRITER_MB");
  uint64_t n = (mb && *mb) ? std::strtoull(mb, nullptr, 10) : 1024;
  return (n ? n : 1) << 20;
}

const std::string& Prepare() {
  static const std::string path = BenchDir() + "/bench-writer.dat";
  static bool bMade = false;
  if (bMade) return path;
  bMade = true;
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  std::vector<char> block(kBlock, 'x');
  for (uint64_t done = 0; done < PassBytes(); done += kBlock)
    if (::write(fd, block.data(), kBlock) != static_cast<ssize_t>(kBlock)) std::abort();
  ::fdatasync(fd);
  ::close(fd);
  return path;
}

// Writes one pass through QLCT_FileEx in host writes of nSlice bytes.
void WriterPass(benchmark::State& state, const std::string& path, const std::vector<char>& data, size_t nSlice) {
  std::wstring wpath(path.begin(), path.end());
  CComBSTR name(wpath.c_str());
  QLT_WriterOption::SetWriteBlockSize(name, static_cast<int>(kBlock));
  QLCT_FileEx* w = QLCT_CreateFileExObj();
  if (!w || !w->Initialize(nullptr) ||
      !w->CreateKXFile(name, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {
    state.SkipWithError("writer open failed");
    QLCT_DeleteFileExObj(w);
    return;
  }
  const uint64_t total = PassBytes();
  for (uint64_t done = 0; done < total; done += nSlice) {
    DWORD n = 0;
    if (!w->WriteFile(data.data() + done % kBlock, static_cast<DWORD>(nSlice), &n, nullptr))
      state.SkipWithError("write failed");
  }
  if (!w->CloseHandle()) state.SkipWithError("close failed");
  QLCT_DeleteFileExObj(w);
}

void BM_Writer(benchmark::State& state) {
  const std::string& path = Prepare();
  const size_t nSlice = static_cast<size_t>(state.range(0));
  const bool bRetry = state.range(1) != 0;
  std::vector<char> data(kBlock + nSlice, 'w');
  QLT_SetWriteRetrySettings(bRetry ? 1 : 0, 0);
  for (auto _ : state) {
    Settle(state, path);
    WriterPass(state, path, data, nSlice);
  }
  QLT_SetWriteRetrySettings(0, 0);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * PassBytes()));
}

// write() of 512 KiB blocks; syncEvery 0: never, 1: after each block, 2:
// once more than 16 MiB were written since the last sync.
void BM_PosixWrite(benchmark::State& state) {
  const std::string& path = Prepare();
  const int syncEvery = static_cast<int>(state.range(0));
  std::vector<char> block(kBlock, 'p');
  for (auto _ : state) {
    Settle(state, path);
    int fd = ::open(path.c_str(), O_WRONLY);
    uint64_t unsynced = 0;
    for (uint64_t done = 0; done < PassBytes(); done += kBlock) {
      if (::write(fd, block.data(), kBlock) != static_cast<ssize_t>(kBlock)) state.SkipWithError("write failed");
      unsynced += kBlock;
      if (syncEvery == 1 || (syncEvery == 2 && unsynced > kFlushEvery)) {
        ::fdatasync(fd);
        unsynced = 0;
      }
    }
    ::close(fd);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * PassBytes()));
}

// The ceiling: O_DIRECT writes of 512 KiB from an aligned buffer, then one
// fdatasync for the file's metadata.
void BM_DirectWrite(benchmark::State& state) {
  const std::string& path = Prepare();
  void* p = nullptr;
  if (::posix_memalign(&p, 4096, kBlock) != 0) std::abort();
  std::memset(p, 'd', kBlock);
  for (auto _ : state) {
    Settle(state, path);
    int fd = ::open(path.c_str(), O_WRONLY | O_DIRECT);
    if (fd < 0) {
      state.SkipWithError("O_DIRECT open failed");
      break;
    }
    for (uint64_t done = 0; done < PassBytes(); done += kBlock)
      if (::write(fd, p, kBlock) != static_cast<ssize_t>(kBlock)) state.SkipWithError("write failed");
    ::fdatasync(fd);
    ::close(fd);
  }
  std::free(p);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * PassBytes()));
}

BENCHMARK(BM_Writer)
    ->Args({4096, 0})
    ->Args({65536, 0})
    ->Args({1 << 20, 0})
    ->Args({static_cast<int64_t>(kBlock), 1})
    ->Repetitions(7)
    ->Iterations(1)
    ->UseRealTime();
BENCHMARK(BM_PosixWrite)->Arg(0)->Arg(1)->Arg(2)->Repetitions(7)->Iterations(1)->UseRealTime();
BENCHMARK(BM_DirectWrite)->Repetitions(7)->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  qlt::bench::RatioReporter reporter;
  qlt::bench::RunInterleaved(argc, argv, &reporter);
  std::printf("\n");
  reporter.PrintRate("ceiling: O_DIRECT 512 KiB", "BM_DirectWrite");
  reporter.PrintRate("write() + fdatasync every 16 MiB", "BM_PosixWrite/2");
  reporter.PrintRate("write() + fdatasync per block", "BM_PosixWrite/1");
  reporter.PrintRate("write() into the page cache", "BM_PosixWrite/0");
  reporter.PrintRate("writer 1 MiB slices", "BM_Writer/1048576/0");
  reporter.PrintRatio("writer 1 MiB slices / O_DIRECT", "BM_Writer/1048576/0", "BM_DirectWrite", 0.9);
  reporter.PrintRatio("writer 64 KiB slices / O_DIRECT", "BM_Writer/65536/0", "BM_DirectWrite", 0.9);
  reporter.PrintRatio("writer 4 KiB slices / O_DIRECT", "BM_Writer/4096/0", "BM_DirectWrite", 0.8);
  reporter.PrintRatio("writer retry 1 / write()+fdatasync per block", "BM_Writer/524288/1", "BM_PosixWrite/1", 0.9);
  reporter.PrintRatio("writer 1 MiB / write()+fdatasync/16 MiB", "BM_Writer/1048576/0", "BM_PosixWrite/2", 0.9);
  reporter.PrintRatio("writer 64 KiB slices / 1 MiB slices", "BM_Writer/65536/0", "BM_Writer/1048576/0", 0.95);
  reporter.PrintRatio("writer 4 KiB slices / 1 MiB slices", "BM_Writer/4096/0", "BM_Writer/1048576/0", 0.9);
  reporter.PrintRatio("writer 1 MiB slices / write() (no flush)", "BM_Writer/1048576/0", "BM_PosixWrite/0", 0.0);
  ::unlink((BenchDir() + "/bench-writer.dat").c_str());
  return 0;
}
