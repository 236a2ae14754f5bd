// Ctrl-C, Ctrl-Break (Windows) and SIGTERM for a long qltfs command.
#ifndef QLTFS_TOOL_INTERRUPT_H
#define QLTFS_TOOL_INTERRUPT_H

#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>

// While it lives, an interrupt (SIGINT, SIGTERM, and on Windows SIGBREAK:
// Ctrl-Break, the only console event that can be sent to one process group)
// does not end the process: the handler only raises a flag, and a watcher
// thread then calls fnStop (which asks the running operation to stop) every
// 50 ms until the object is destroyed. Calling it again and again matters: the
// interrupt may come before the operation has started, when a stop request has
// nothing to act on yet; the next call catches it once it runs. fnStop must
// therefore be harmless when nothing runs, and is called on the watcher thread
// only. fnStop may wait until the operation has stopped; the watcher makes no
// further calls meanwhile, so the operation must never wait for the watcher
// (its stop would then never come). A second interrupt that arrives before the
// command ends exits the process at once with status 130, so a wait that cannot
// be stopped still yields to Ctrl-C.
//
// One object at a time, created and destroyed on the command's thread; the
// destructor joins the watcher and restores the previous handlers.
class InterruptWatch {
 public:
  explicit InterruptWatch(std::function<void()> fnStop);
  ~InterruptWatch();
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

  // True once an interrupt has arrived (since this object was made).
  static bool Interrupted();
  // Raises the flag as a first interrupt does (how tests interrupt).
  static void Raise();

 private:
  void Watch();

  const std::function<void()> m_fnStop;
  std::mutex m_lock;
  std::condition_variable m_wake;
  bool m_bEnding = false;  // m_lock: the destructor asks the watcher to end
  void (*m_pfnOldInt)(int);
  void (*m_pfnOldTerm)(int);
#if defined(SIGBREAK)
  void (*m_pfnOldBreak)(int);
#endif
  std::thread m_watcher;  // started last, joined by the destructor
};

#endif  // QLTFS_TOOL_INTERRUPT_H
