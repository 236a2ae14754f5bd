// Linux programs started by the test fixtures (the loopback servers and the
// clients they are checked against), the same way on Linux and under Wine.
#ifndef QLTFSDK_TESTS_SUPPORT_CHILD_PROCESS_H
#define QLTFSDK_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// The path the build machine's programs use for a native path: under Wine the
// Unix path Wine maps the Windows path to (its last part need not exist);
// elsewhere, and when Wine cannot map it, the path itself.
std::string UnixPath(const std::string& nativePath);

// One Linux program that runs until Stop, the object's end or the end of this
// process, whichever comes first. Its standard input stays open and empty
// while it runs (the servers end when it closes); FirstLine reads its
// standard output. On Linux it is a child with pipes that the system kills
// when this process goes away. Under Wine, where a Linux program starts
// detached (no pipe of ours, no process handle, no parent to watch), its
// input is fed from a loopback connection this object holds, which the
// system closes with this process, and its output goes to a file.
// Not thread-safe: one owner.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // Stop()
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts argv[0], an absolute Linux path, with the arguments argv[1...]
  // (Linux paths among them: see UnixPath). False, with nothing left
  // running, when it cannot be started or one is running already.
  bool Start(const std::vector<std::string>& argv);
  // The first line of its standard output without the newline, waiting up to
  // timeoutMs for it; empty when the program ends or the time runs out first.
  // Call it at most once per start.
  std::string FirstLine(int timeoutMs);
  // Closes its input and waits (bounded) for it to end; on Linux it is
  // killed when it has not ended within 3 s. Does nothing when not running.
  void Stop();
  // Its process id, -1 when not running.
  pid_t pid() const { return m_pid; }

 private:
  pid_t m_pid = -1;
#if defined(_WIN32)
  bool m_bRunning = false;
  uintptr_t m_sockInput = 0;  // the connection that feeds its input, while running
  std::string m_strStem;      // its output and end files: stem + ".out", ".end"
#else
  int m_fdStdin = -1;   // our end of its standard input
  int m_fdStdout = -1;  // our end of its standard output, until FirstLine
#endif
};

// Runs `/bin/sh -c command` to its end with standard output and error both
// into *output (when not null); it is killed after timeoutSeconds. Returns
// its exit code; -1 when it could not start or did not exit by itself.
// Any thread may call it.
int RunShell(const std::string& command, std::string* output, int timeoutSeconds);

// The text as one word of a /bin/sh command line.
std::string ShellQuote(const std::string& text);

#endif  // QLTFSDK_TESTS_SUPPORT_CHILD_PROCESS_H
