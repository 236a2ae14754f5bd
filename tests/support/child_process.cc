#include "tests/support/child_process.h"

#include <chrono>
#include <string>
#include <thread>

#if defined(_WIN32)
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <vector>
#else
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#endif

namespace {

// timeout(1) answers 124 when it had to end the command.
constexpr int kTimedOut = 124;

std::string TimedShell(const std::string& command, int timeoutSeconds) {
  return "/usr/bin/timeout -k 5 " + std::to_string(timeoutSeconds) + " /bin/sh -c " + ShellQuote(command);
}

}  // namespace

std::string ShellQuote(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

#if defined(_WIN32)
namespace {

constexpr int kStopTimeoutMs = 5000;
constexpr int kConnectTimeoutMs = 30000;
constexpr int kPollMs = 20;

// One argument of a Windows command line, quoted so that the program gets it
// back as it stands (backslashes before a quote are doubled).
std::string WindowsQuote(const std::string& arg) {
  std::string out = "\"";
  size_t slashes = 0;
  for (char c : arg) {
    if (c == '\\') {
      ++slashes;
      continue;
    }
    if (c == '"') slashes = slashes * 2 + 1;
    out.append(slashes, '\\');
    slashes = 0;
    out += c;
  }
  out.append(slashes * 2, '\\');
  return out + "\"";
}

std::wstring Wide(const std::string& s) { return QltUtf8ToWide(s); }

bool Exists(const std::string& path) { return GetFileAttributesW(Wide(path).c_str()) != INVALID_FILE_ATTRIBUTES; }

std::string ReadText(const std::string& path) {
  HANDLE h = CreateFileW(Wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return std::string();
  std::string out;
  char buf[4096];
  DWORD n = 0;
  while (ReadFile(h, buf, sizeof buf, &n, nullptr) && n > 0) out.append(buf, n);
  CloseHandle(h);
  return out;
}

// A fresh name in the temporary folder for the files of one child.
std::string TempStem(const char* kind) {
  static std::atomic<int> s_nChildren{0};  // any thread; only uniqueness matters
  wchar_t temp[MAX_PATH + 1];
  DWORD n = GetTempPathW(MAX_PATH + 1, temp);
  std::string dir = (n == 0 || n > MAX_PATH) ? std::string(".\\") : QltWideToUtf8(temp);
  return dir + "qlt-" + kind + "-" + std::to_string(GetCurrentProcessId()) + "-" +
         std::to_string(s_nChildren.fetch_add(1));
}

// Starts `/bin/sh -c script`; false when it cannot. Wine starts a Linux
// program detached, with no process handle to wait on or read an exit code
// from: the scripts leave files behind instead.
bool StartShell(const std::string& script, DWORD* id) {
  std::wstring wcmd = Wide("/bin/sh -c " + WindowsQuote(script));
  std::vector<wchar_t> line(wcmd.begin(), wcmd.end());
  line.push_back(0);
  STARTUPINFOW si{};
  si.cb = sizeof(si);
  PROCESS_INFORMATION pi{};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return false;
  if (pi.hThread) CloseHandle(pi.hThread);
  if (pi.hProcess) CloseHandle(pi.hProcess);
  *id = pi.dwProcessId;
  return true;
}

}  // namespace

std::string UnixPath(const std::string& nativePath) {
  using ToUnix = char*(__cdecl*)(LPCWSTR);
  HMODULE k = GetModuleHandleW(L"kernel32.dll");
  auto fn = k ? reinterpret_cast<ToUnix>(GetProcAddress(k, "wine_get_unix_file_name")) : nullptr;
  if (!fn) return nativePath;
  char* unix = fn(Wide(nativePath).c_str());
  if (!unix) return nativePath;
  std::string out(unix);
  HeapFree(GetProcessHeap(), 0, unix);
  return out;
}

ChildProcess::~ChildProcess() { Stop(); }

bool ChildProcess::Start(const std::vector<std::string>& argv) {
  if (m_bRunning || argv.empty()) return false;
  // The program's input comes from a loopback connection this object holds:
  // it ends when Stop closes it or when the system closes it with this
  // process. (A Linux program started under Wine is detached from us: it
  // gets no pipe of ours and no parent to watch.)
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return false;
  SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int len = sizeof(a);
  if (listener == INVALID_SOCKET || bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 ||
      listen(listener, 1) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    if (listener != INVALID_SOCKET) closesocket(listener);
    WSACleanup();
    return false;
  }
  m_strStem = TempStem("child");
  for (const char* ext : {".out", ".end"}) DeleteFileW(Wide(m_strStem + ext).c_str());
  std::string command;
  for (const std::string& arg : argv) command += (command.empty() ? "" : " ") + ShellQuote(arg);
  // The feeder writes nothing: the program sees an open, empty input until
  // the connection ends. The end file says that the program has ended.
  std::string feeder = "import socket; s = socket.create_connection(('127.0.0.1', " +
                       std::to_string(ntohs(a.sin_port)) + ")); [0 for _ in iter(lambda: s.recv(4096), b'')]";
  std::string script = "/usr/bin/python3 -c " + ShellQuote(feeder) + " | " + command + " > " +
                       ShellQuote(UnixPath(m_strStem + ".out")) + "; touch " + ShellQuote(UnixPath(m_strStem + ".end"));
  DWORD id = 0;
  SOCKET input = INVALID_SOCKET;
  if (StartShell(script, &id)) {
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(listener, &ready);
    timeval wait{kConnectTimeoutMs / 1000, 0};
    if (select(0, &ready, nullptr, nullptr, &wait) == 1) input = accept(listener, nullptr, nullptr);
  }
  closesocket(listener);
  if (input == INVALID_SOCKET) {
    // A feeder that connects later finds no listener and ends the program.
    WSACleanup();
    return false;
  }
  m_sockInput = static_cast<uintptr_t>(input);
  m_bRunning = true;
  m_pid = static_cast<pid_t>(id);
  return true;
}

std::string ChildProcess::FirstLine(int timeoutMs) {
  if (!m_bRunning) return {};
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    std::string text = ReadText(m_strStem + ".out");
    size_t end = text.find('\n');
    if (end != std::string::npos) return text.substr(0, end);
    if (Exists(m_strStem + ".end") || std::chrono::steady_clock::now() >= deadline) return {};
    Sleep(kPollMs);
  }
}

void ChildProcess::Stop() {
  if (!m_bRunning) return;
  closesocket(static_cast<SOCKET>(m_sockInput));
  WSACleanup();
  for (int waited = 0; waited < kStopTimeoutMs && !Exists(m_strStem + ".end"); waited += kPollMs) Sleep(kPollMs);
  m_bRunning = false;
  m_pid = -1;
  for (const char* ext : {".out", ".end"}) DeleteFileW(Wide(m_strStem + ext).c_str());
}

int RunShell(const std::string& command, std::string* output, int timeoutSeconds) {
  std::string stem = TempStem("run");
  std::string out = stem + ".out", code = stem + ".code";
  DeleteFileW(Wide(code).c_str());
  // The exit code is written to a file once the command has ended.
  std::string script = TimedShell(command, timeoutSeconds) + " < /dev/null > " + ShellQuote(UnixPath(out)) +
                       " 2>&1; echo $? > " + ShellQuote(UnixPath(code + ".tmp")) + " && mv " +
                       ShellQuote(UnixPath(code + ".tmp")) + " " + ShellQuote(UnixPath(code));
  DWORD id = 0;
  if (!StartShell(script, &id)) return -1;
  // timeout(1) ends the command and its killer 5 s later; a little more for the shell.
  int limitMs = (timeoutSeconds + 10) * 1000;
  for (int waited = 0; waited < limitMs && !Exists(code); waited += kPollMs) Sleep(kPollMs);
  std::string codeText = ReadText(code);
  if (output != nullptr) *output = ReadText(out);
  DeleteFileW(Wide(out).c_str());
  DeleteFileW(Wide(code).c_str());
  if (codeText.empty()) return -1;
  int status = std::atoi(codeText.c_str());
  return status == kTimedOut ? -1 : status;
}

#else   // POSIX

std::string UnixPath(const std::string& nativePath) { return nativePath; }

ChildProcess::~ChildProcess() { Stop(); }

bool ChildProcess::Start(const std::vector<std::string>& argv) {
  if (m_pid > 0 || argv.empty()) return false;
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return false;
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    return false;
  }
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t parent = getpid();
  pid_t child = fork();
  if (child == 0) {
    // The program also dies with this process, whatever happens to the pipe.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    dup2(in[0], 0);
    dup2(out[1], 1);
    execv(args[0], args.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  if (child < 0) {
    close(in[1]);
    close(out[0]);
    return false;
  }
  m_pid = child;
  m_fdStdin = in[1];
  m_fdStdout = out[0];
  return true;
}

std::string ChildProcess::FirstLine(int timeoutMs) {
  if (m_fdStdout < 0) return {};
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{m_fdStdout, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char c;
    if (read(m_fdStdout, &c, 1) <= 0) break;
    if (c == '\n') {
      close(m_fdStdout);
      m_fdStdout = -1;
      return line;
    }
    line += c;
  }
  close(m_fdStdout);
  m_fdStdout = -1;
  return {};
}

void ChildProcess::Stop() {
  if (m_fdStdout >= 0) close(m_fdStdout);
  m_fdStdout = -1;
  if (m_fdStdin >= 0) close(m_fdStdin);  // the servers exit at the end of their input
  m_fdStdin = -1;
  if (m_pid <= 0) return;
  for (int i = 0; i < 300; ++i) {  // up to 3 s, then force it
    if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
      m_pid = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
  m_pid = -1;
}

int RunShell(const std::string& command, std::string* output, int timeoutSeconds) {
  FILE* pipe = popen((TimedShell(command, timeoutSeconds) + " < /dev/null 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
  int status = pclose(pipe);
  if (output != nullptr) *output = text;
  if (!WIFEXITED(status) || WEXITSTATUS(status) == kTimedOut) return -1;
  return WEXITSTATUS(status);
}
#endif  // POSIX
