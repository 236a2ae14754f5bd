// Helpers shared by the FIFO suites: bounded waits on background calls,
// thread and file counting, and self-checking record contents.
#ifndef QLTFSDK_TESTS_FIFO_FIFO_TEST_UTIL_H
#define QLTFSDK_TESTS_FIFO_FIFO_TEST_UTIL_H

#include <dirent.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/faults.h"

namespace fifotest {

// A fault rule: the next thread start fails.
inline qlt::fault::Rule ThreadStartFault() {
  qlt::fault::Rule rule;
  rule.ops = qlt::fault::kThreadStart;
  return rule;
}

constexpr auto kLongWait = std::chrono::seconds(20);         // something that must happen
constexpr auto kShortWait = std::chrono::milliseconds(100);  // something that must not

// A call run on its own thread. Done() waits a bounded time for it to
// return; the destructor runs the release action (if the call is still
// blocked, so the test cannot hang) and joins the thread.
class Background {
 public:
  Background(std::function<void()> call, std::function<void()> release = nullptr) : m_release(std::move(release)) {
    std::packaged_task<void()> task(std::move(call));
    m_future = task.get_future();
    m_thread = std::thread(std::move(task));
  }
  ~Background() {
    if (!Done(std::chrono::milliseconds(0)) && m_release) m_release();
    m_thread.join();
  }
  bool Done(std::chrono::milliseconds wait = kLongWait) { return m_future.wait_for(wait) == std::future_status::ready; }

 private:
  std::function<void()> m_release;
  std::future<void> m_future;
  std::thread m_thread;
};

// Entries of a folder (without "." and ".."); empty when it cannot be read.
inline std::vector<std::string> DirEntries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

inline int ThreadCount() { return static_cast<int>(DirEntries("/proc/self/task").size()); }

// Thread count to compare against later: starts and joins one thread first,
// so that helper threads a runtime adds on the first thread start (the
// thread sanitizer's, for one) are already counted, then waits (bounded)
// until the count has stayed the same for 50 ms, so that threads of earlier
// tests still leaving are not counted.
inline int BaselineThreadCount() {
  std::thread([] {}).join();
  auto deadline = std::chrono::steady_clock::now() + kLongWait;
  int n = ThreadCount();
  for (auto since = std::chrono::steady_clock::now(); std::chrono::steady_clock::now() < deadline;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    int now = ThreadCount();
    if (now != n) {
      n = now;
      since = std::chrono::steady_clock::now();
    } else if (std::chrono::steady_clock::now() - since >= std::chrono::milliseconds(50)) {
      break;
    }
  }
  return n;
}

// The thread count once it has come down to n, or whatever it is after a
// bounded wait. A joined thread can stay listed for a moment after the join
// returns (the kernel removes it from /proc after waking the joiner), and
// longer on a loaded machine.
inline int ThreadCountSettling(int n) {
  auto deadline = std::chrono::steady_clock::now() + kLongWait;
  int now = ThreadCount();
  for (; now > n && std::chrono::steady_clock::now() < deadline; now = ThreadCount())
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return now;
}

inline uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// len bytes in a pattern that depends on the record number and on every
// position, so a lost, repeated, reordered or torn record shows.
inline std::string MakeRecord(uint64_t seq, size_t len) {
  std::string r(len, '\0');
  uint64_t v = Mix(seq);
  size_t i = 0;
  for (; i + 8 <= len; i += 8, v += 0x632BE59BD9B4E019ull) std::memcpy(&r[i], &v, 8);
  if (i < len) std::memcpy(&r[i], &v, len - i);
  return r;
}

}  // namespace fifotest

#endif  // QLTFSDK_TESTS_FIFO_FIFO_TEST_UTIL_H
