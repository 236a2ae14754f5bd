#include "interrupt.h"

#include <atomic>
#include <chrono>
#include <cstdlib>

namespace {

// Set by the signal handler, read by the watcher. A lock-free atomic may be
// stored from a handler; relaxed ordering is enough as the flag carries no
// data.
std::atomic<int> g_nInterrupted{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal flag must be lock-free");

// The first interrupt asks the command to stop; a second one, while the stop
// has not yet taken effect (a wait that does not see it), ends the process
// at once, as an interrupt does without the watch. std::_Exit is safe here.
extern "C" void OnInterrupt(int) {
  if (g_nInterrupted.exchange(1, std::memory_order_relaxed) != 0) std::_Exit(130);
}

}  // namespace

InterruptWatch::InterruptWatch(std::function<void()> fnStop) : m_fnStop(std::move(fnStop)) {
  g_nInterrupted.store(0, std::memory_order_relaxed);
  m_pfnOldInt = std::signal(SIGINT, OnInterrupt);
  m_pfnOldTerm = std::signal(SIGTERM, OnInterrupt);
#if defined(SIGBREAK)
  m_pfnOldBreak = std::signal(SIGBREAK, OnInterrupt);
#endif
  try {
    m_watcher = std::thread([this] { Watch(); });
  } catch (...) {  // no thread: leave the handlers as they were
    std::signal(SIGINT, m_pfnOldInt == SIG_ERR ? SIG_DFL : m_pfnOldInt);
    std::signal(SIGTERM, m_pfnOldTerm == SIG_ERR ? SIG_DFL : m_pfnOldTerm);
#if defined(SIGBREAK)
    std::signal(SIGBREAK, m_pfnOldBreak == SIG_ERR ? SIG_DFL : m_pfnOldBreak);
#endif
    throw;
  }
}

InterruptWatch::~InterruptWatch() {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_bEnding = true;
  }
  m_wake.notify_one();
  m_watcher.join();
  std::signal(SIGINT, m_pfnOldInt == SIG_ERR ? SIG_DFL : m_pfnOldInt);
  std::signal(SIGTERM, m_pfnOldTerm == SIG_ERR ? SIG_DFL : m_pfnOldTerm);
#if defined(SIGBREAK)
  std::signal(SIGBREAK, m_pfnOldBreak == SIG_ERR ? SIG_DFL : m_pfnOldBreak);
#endif
}

bool InterruptWatch::Interrupted() { return g_nInterrupted.load(std::memory_order_relaxed) != 0; }

void InterruptWatch::Raise() { g_nInterrupted.store(1, std::memory_order_relaxed); }

void InterruptWatch::Watch() {
  std::unique_lock<std::mutex> lock(m_lock);
  // A handler cannot wake a condition variable, so the flag is polled.
  while (!m_wake.wait_for(lock, std::chrono::milliseconds(50), [this] { return m_bEnding; })) {
    if (!Interrupted()) continue;
    lock.unlock();
    m_fnStop();  // may wait until the operation has stopped
    lock.lock();
  }
}
