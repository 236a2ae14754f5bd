// CPU time of the servers a benchmark starts, read from /proc, so that a
// figure can show how much of the machine the other end took.
#ifndef QLTFSDK_BENCH_PROC_CPU_H
#define QLTFSDK_BENCH_PROC_CPU_H

#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

// The text of /proc/<pid>/stat; empty when the process has gone (a session
// process of a server may end while it is read).
inline std::string ProcStat(const std::string& pid) {
  try {
    std::ifstream in("/proc/" + pid + "/stat");
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  } catch (...) {
    return {};
  }
}

// CPU seconds (user + system) a process and its reaped children have used
// so far; 0 when it has gone.
inline double CpuSeconds(pid_t pid) {
  std::string text = ProcStat(std::to_string(pid));
  size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 2));
  std::string f;
  unsigned long long ticks = 0;
  for (int i = 3; i <= 17 && fields >> f; ++i)
    if (i >= 14) ticks += std::stoull(f);  // utime, stime, cutime, cstime
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The live processes whose parent is pid.
inline std::vector<pid_t> ChildrenOf(pid_t pid) {
  std::vector<pid_t> children;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
    std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string text = ProcStat(name);
    size_t close = text.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream fields(text.substr(close + 2));
    std::string state;
    pid_t ppid = 0;
    fields >> state >> ppid;
    if (ppid == pid) children.push_back(static_cast<pid_t>(std::stoi(name)));
  }
  return children;
}

// CPU seconds of pid and all its live descendants (a server that runs a
// process per session, or a front with its store behind it).
inline double TreeCpuSeconds(pid_t pid) {
  double total = CpuSeconds(pid);
  for (pid_t child : ChildrenOf(pid)) total += TreeCpuSeconds(child);
  return total;
}

#endif  // QLTFSDK_BENCH_PROC_CPU_H
