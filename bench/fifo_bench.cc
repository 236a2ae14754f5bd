// The FIFO component against its baselines, in one process, variants
// interleaved over the repetitions:
//   ring: CRingStream, one producer thread -> one consumer thread, 16 MiB
//         ring, 4 KiB and 64 KiB chunks, against single-threaded streaming
//         memcpy of the same bytes between buffers larger than the caches;
//   pool: QLCT_DataFifoPool with 512 KiB and 4 KiB records against a
//         std::mutex + std::condition_variable + std::deque<std::vector<char>>
//         queue between the same two threads.
// The machine has 2 cores: a producer and a consumer thread use both, so the
// figures also measure how the scheduler shares them with anything else
// running.
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/ratio_reporter.h"
#include "fifo/ring_stream.h"
#include "qltfsdk/datafifopool.h"

namespace {

constexpr size_t kStreamBytes = 64u << 20;  // bytes moved per iteration
constexpr DWORD kRingSize = 16u << 20;

// Source and destination larger than the caches, shared by all variants.
std::vector<char>& Source() {
  static std::vector<char> v = [] {
    std::vector<char> s(kStreamBytes);
    for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<char>(i * 131);
    return s;
  }();
  return v;
}
std::vector<char>& Destination() {
  static std::vector<char> v(kStreamBytes, 1);
  return v;
}

void BM_Memcpy(benchmark::State& state) {
  char* src = Source().data();
  char* dst = Destination().data();
  for (auto _ : state) {
    std::memcpy(dst, src, kStreamBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStreamBytes));
}

void BM_Ring(benchmark::State& state) {
  const LONG nChunk = static_cast<LONG>(state.range(0));
  static CRingStream ring(L"bench");
  static const HRESULT hInit = ring.InitStream(kRingSize);
  if (hInit != S_OK) state.SkipWithError("no ring");
  char* src = Source().data();
  char* dst = Destination().data();
  for (auto _ : state) {
    std::thread producer([&] {
      for (size_t pos = 0; pos < kStreamBytes; pos += static_cast<size_t>(nChunk)) {
        LONG n = nChunk;
        ring.WriteData(src + pos, n);
      }
    });
    for (size_t pos = 0; pos < kStreamBytes; pos += static_cast<size_t>(nChunk)) {
      LONG n = nChunk;
      ring.ReadData(dst + pos, n);
    }
    producer.join();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStreamBytes));
}

void SetRate(benchmark::State& state, size_t nRecord) {
  size_t nRecords = kStreamBytes / nRecord;
  if (nRecord >= (64u << 10))
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStreamBytes));
  else
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * nRecords));
}

// Moves kStreamBytes through a started pool in records of state.range(0)
// bytes, producer on its own thread, consumer on this one.
void RunPool(benchmark::State& state, QLCT_DataFifoPool& pool, int nStarted) {
  const size_t nRecord = static_cast<size_t>(state.range(0));
  const size_t nRecords = kStreamBytes / nRecord;
  if (nStarted != 1) state.SkipWithError("pool did not start");
  char* src = Source().data();
  char* dst = Destination().data();
  for (auto _ : state) {
    std::thread producer([&] {
      for (size_t i = 0; i < nRecords; ++i) pool.WriteBuffer(src + i * nRecord, static_cast<int>(nRecord));
    });
    for (size_t i = 0; i < nRecords; ++i) {
      int n = 0;
      pool.ReadBuffer(dst + i * nRecord, n);
    }
    producer.join();
  }
  SetRate(state, nRecord);
}

// The pool with its default rings (16 MiB write cache, 32 MiB memory ring).
// One pool for every repetition: the figures are its steady state, not the
// first touch of 48 MiB of freshly allocated rings.
void BM_Pool(benchmark::State& state) {
  static QLCT_DataFifoPool pool;
  static const int nStarted = [] {
    pool.Initialize();
    return pool.StartFifo();
  }();
  RunPool(state, pool, nStarted);
}

// The same pool configured with rings that fit the caches (2 MiB write
// cache, 4 MiB memory ring): shows how much of the gap to the baseline is
// the default rings' memory traffic rather than the pool's own work.
void BM_PoolCacheSized(benchmark::State& state) {
  static QLCT_DataFifoPool pool;
  static const int nStarted = [] {
    pool.Initialize();
    pool.SetWriteCacheSize(2u << 20);
    pool.SetMemoryPoolSize(4u << 20);
    return pool.StartFifo();
  }();
  RunPool(state, pool, nStarted);
}

// The baseline queue: unbounded, one allocation and one copy per record in,
// one copy out.
class BaselineQueue {
 public:
  void Push(const char* p, size_t n) {
    std::vector<char> v(p, p + n);
    {
      std::lock_guard<std::mutex> g(m_mutex);
      m_queue.push_back(std::move(v));
    }
    m_cv.notify_one();
  }
  size_t Pop(char* dst) {
    std::vector<char> v;
    {
      std::unique_lock<std::mutex> g(m_mutex);
      m_cv.wait(g, [&] { return !m_queue.empty(); });
      v = std::move(m_queue.front());
      m_queue.pop_front();
    }
    std::memcpy(dst, v.data(), v.size());
    return v.size();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::deque<std::vector<char>> m_queue;  // guarded by m_mutex
};

void BM_BaselineQueue(benchmark::State& state) {
  const size_t nRecord = static_cast<size_t>(state.range(0));
  const size_t nRecords = kStreamBytes / nRecord;
  static BaselineQueue queue;
  char* src = Source().data();
  char* dst = Destination().data();
  for (auto _ : state) {
    std::thread producer([&] {
      for (size_t i = 0; i < nRecords; ++i) queue.Push(src + i * nRecord, nRecord);
    });
    for (size_t i = 0; i < nRecords; ++i) queue.Pop(dst + i * nRecord);
    producer.join();
  }
  SetRate(state, nRecord);
}

constexpr int kRepetitions = 9;

BENCHMARK(BM_Memcpy)->Repetitions(kRepetitions)->UseRealTime();
BENCHMARK(BM_Ring)->Arg(4 << 10)->Arg(64 << 10)->Repetitions(kRepetitions)->UseRealTime();
BENCHMARK(BM_Pool)->Arg(512 << 10)->Arg(4 << 10)->Repetitions(kRepetitions)->UseRealTime();
BENCHMARK(BM_PoolCacheSized)->Arg(512 << 10)->Repetitions(kRepetitions)->UseRealTime();
BENCHMARK(BM_BaselineQueue)->Arg(512 << 10)->Arg(4 << 10)->Repetitions(kRepetitions)->UseRealTime();

std::string Run(const std::string& name) { return name + "/repeats:9/real_time"; }

}  // namespace

int main(int argc, char** argv) {
  Source();
  Destination();
  qlt::bench::RatioReporter reporter;
  qlt::bench::RunInterleaved(argc, argv, &reporter);
  reporter.PrintRatio("ring 64 KiB chunks / memcpy", Run("BM_Ring/65536"), Run("BM_Memcpy"), 0.45);
  reporter.PrintRatio("ring 4 KiB chunks / memcpy", Run("BM_Ring/4096"), Run("BM_Memcpy"), 0.25);
  reporter.PrintRatio("pool 512 KiB records / queue (bytes/s)", Run("BM_Pool/524288"), Run("BM_BaselineQueue/524288"),
                      1.0);
  reporter.PrintRatio("pool 512 KiB, 2+4 MiB rings / queue (bytes/s)", Run("BM_PoolCacheSized/524288"),
                      Run("BM_BaselineQueue/524288"), 1.0);
  reporter.PrintRatio("pool 4 KiB records / queue (records/s)", Run("BM_Pool/4096"), Run("BM_BaselineQueue/4096"), 0.5);
  return 0;
}
