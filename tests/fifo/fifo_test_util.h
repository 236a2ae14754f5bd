// Helpers shared by the FIFO suites: bounded waits on background calls and
// folder listings.
#ifndef QLTFSDK_TESTS_FIFO_FIFO_TEST_UTIL_H
#define QLTFSDK_TESTS_FIFO_FIFO_TEST_UTIL_H

#include <dirent.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

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

// Polls done() every millisecond for at most kLongWait; its last answer.
inline bool Eventually(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + kLongWait;
  while (!done() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
}

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

// Runs call on its own thread and expects it to block until release runs
// (on this thread), then to return. stop releases the call if it stays
// blocked anyway, so the test cannot hang.
inline bool BlocksUntil(std::function<void()> call, const std::function<void()>& release, std::function<void()> stop) {
  Background blocked(std::move(call), std::move(stop));
  EXPECT_FALSE(blocked.Done(kShortWait)) << "returned without waiting";
  release();
  return blocked.Done();
}

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

}  // namespace fifotest

#endif  // QLTFSDK_TESTS_FIFO_FIFO_TEST_UTIL_H
