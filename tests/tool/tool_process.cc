#include "tests/tool/tool_process.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "companions/virtualfile/storage_root.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern char** environ;
#endif

#ifndef QLTFS_TOOL_PATH
#error "QLTFS_TOOL_PATH must name the built qltfs"
#endif

namespace {

std::atomic<int> g_nFolders{0};

#if defined(_WIN32)
// One argument as CommandLineToArgvW reads it back: quoted when it is empty
// or holds a blank or a quote; a quote is escaped with a backslash, and the
// backslashes before a quote (or before the closing quote) are doubled.
std::wstring QuoteArgument(const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\n\v\"") == std::wstring::npos) return arg;
  std::wstring out = L"\"";
  size_t nBackslashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++nBackslashes;
      continue;
    }
    out.append(c == L'"' ? 2 * nBackslashes + 1 : nBackslashes, L'\\');
    nBackslashes = 0;
    out += c;
  }
  out.append(2 * nBackslashes, L'\\');
  return out + L"\"";
}

// An inheritable handle on path for writing (truncated), or on the null
// device when path is empty.
HANDLE OpenOutput(const std::string& path) {
  SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
  const std::wstring name = path.empty() ? std::wstring(L"NUL") : QltUtf8ToWide(path);
  return CreateFileW(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &sa,
                     CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// This process's environment with the run's settings applied, as a block
// for CreateProcessW. Names compare without regard to letter case.
std::vector<wchar_t> EnvironmentBlock(const std::vector<std::pair<std::string, std::string>>& changes) {
  std::vector<std::wstring> entries;
  if (LPWCH block = GetEnvironmentStringsW()) {
    for (const wchar_t* p = block; *p; p += wcslen(p) + 1) entries.emplace_back(p);
    FreeEnvironmentStringsW(block);
  }
  for (const auto& change : changes) {
    const std::wstring name = QltUtf8ToWide(change.first);
    for (size_t i = 0; i < entries.size();) {
      const std::wstring& e = entries[i];
      if (e.size() > name.size() && e[name.size()] == L'=' && _wcsnicmp(e.c_str(), name.c_str(), name.size()) == 0)
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
      else
        ++i;
    }
    if (!change.second.empty()) entries.push_back(name + L"=" + QltUtf8ToWide(change.second));
  }
  std::vector<wchar_t> out;
  for (const std::wstring& e : entries) {
    out.insert(out.end(), e.begin(), e.end());
    out.push_back(0);
  }
  out.push_back(0);
  return out;
}
#endif

}  // namespace

#if defined(_WIN32)
ToolProcess::ToolProcess(const ToolRun& run) : m_nTimeoutSeconds(run.nTimeoutSeconds) {
  std::wstring line = QuoteArgument(QltUtf8ToWide(QLTFS_TOOL_PATH));
  for (const std::string& arg : run.args) line += L" " + QuoteArgument(QltUtf8ToWide(arg));
  std::vector<wchar_t> lineBuffer(line.begin(), line.end());
  lineBuffer.push_back(0);
  std::vector<wchar_t> env = EnvironmentBlock(run.env);

  HANDLE hOut = OpenOutput(run.outPath), hErr = OpenOutput(run.errPath), hIn = OpenOutput("");
  if (hOut != INVALID_HANDLE_VALUE && hErr != INVALID_HANDLE_VALUE && hIn != INVALID_HANDLE_VALUE) {
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = hIn;
    si.hStdOutput = hOut;
    si.hStdError = hErr;
    PROCESS_INFORMATION pi{};
    // Its own process group, so that Ctrl-Break reaches the child alone.
    if (CreateProcessW(nullptr, lineBuffer.data(), nullptr, nullptr, TRUE,
                       CREATE_UNICODE_ENVIRONMENT | CREATE_NEW_PROCESS_GROUP, env.data(), nullptr, &si, &pi)) {
      CloseHandle(pi.hThread);
      m_hProcess = pi.hProcess;
      m_nProcessId = pi.dwProcessId;
    }
  }
  for (HANDLE h : {hOut, hErr, hIn})
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
}

ToolProcess::~ToolProcess() {
  if (!m_hProcess) return;
  if (!m_bWaited) {
    TerminateProcess(m_hProcess, 1);
    WaitForSingleObject(m_hProcess, INFINITE);
  }
  CloseHandle(m_hProcess);
}

bool ToolProcess::Started() const { return m_hProcess != nullptr; }

bool ToolProcess::Interrupt() {
  return m_hProcess && !m_bWaited && GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, m_nProcessId) != FALSE;
}

int ToolProcess::Wait() {
  if (!m_hProcess || m_bWaited) return m_nExit;
  m_bWaited = true;
  if (WaitForSingleObject(m_hProcess, static_cast<DWORD>(m_nTimeoutSeconds) * 1000) != WAIT_OBJECT_0) {
    TerminateProcess(m_hProcess, 1);
    WaitForSingleObject(m_hProcess, INFINITE);
    return m_nExit = kNotEnded;
  }
  DWORD nCode = 0;
  GetExitCodeProcess(m_hProcess, &nCode);
  return m_nExit = static_cast<int>(nCode);
}

std::vector<std::pair<std::string, std::string>> TempFolderEnv(const std::string& dir) {
  std::string windows = dir;
  for (char& c : windows)
    if (c == '/') c = '\\';
  return {{"TMP", windows}, {"TEMP", windows}};
}

const char* NullDevice() { return "NUL"; }

std::filesystem::path NativePathOf(const std::string& path) { return std::filesystem::u8path(path); }

bool MakeFifo(const std::string& /*path*/) { return false; }

VirtualFolder::VirtualFolder()
    : m_strFolder("t-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(g_nFolders.fetch_add(1))) {}

VirtualFolder::~VirtualFolder() {
  std::error_code ec;
  std::filesystem::remove_all(std::filesystem::path(qvf::kDefaultRoot) / QltUtf8ToWide(m_strFolder), ec);
}
#else
ToolProcess::ToolProcess(const ToolRun& run) : m_nTimeoutSeconds(run.nTimeoutSeconds) {
  // Everything the child needs is made before the fork: between fork and
  // exec only async-signal-safe calls are allowed.
  std::vector<std::string> args{QLTFS_TOOL_PATH};
  args.insert(args.end(), run.args.begin(), run.args.end());
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  std::vector<std::string> entries;
  for (char** e = environ; *e; ++e) entries.emplace_back(*e);
  for (const auto& change : run.env) {
    const std::string prefix = change.first + "=";
    for (size_t i = 0; i < entries.size();) {
      if (entries[i].compare(0, prefix.size(), prefix) == 0)
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
      else
        ++i;
    }
    if (!change.second.empty()) entries.push_back(prefix + change.second);
  }
  std::vector<char*> envp;
  for (std::string& e : entries) envp.push_back(e.data());
  envp.push_back(nullptr);

  const char* outPath = run.outPath.empty() ? "/dev/null" : run.outPath.c_str();
  const char* errPath = run.errPath.empty() ? "/dev/null" : run.errPath.c_str();
  const rlim_t nFileSize = static_cast<rlim_t>(run.nFileSizeLimit);
  const rlim_t nMemory = static_cast<rlim_t>(run.nMemoryLimit);

  m_pid = ::fork();
  if (m_pid != 0) return;
  // The child: the test program may ignore or catch SIGINT; the tool starts
  // with the default, as from a shell.
  ::signal(SIGINT, SIG_DFL);
  const int in = ::open("/dev/null", O_RDONLY);
  const int out = ::open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const int err = ::open(errPath, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (in < 0 || out < 0 || err < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0) ::_exit(127);
  if (nFileSize > 0) {
    // A write past the limit then fails with EFBIG instead of killing.
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{nFileSize, nFileSize};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(127);
  }
  if (nMemory > 0) {
    const rlimit limit{nMemory, nMemory};
    if (::setrlimit(RLIMIT_AS, &limit) != 0) ::_exit(127);
  }
  ::execve(argv[0], argv.data(), envp.data());
  ::_exit(127);
}

ToolProcess::~ToolProcess() {
  if (m_pid <= 0 || m_bWaited) return;
  ::kill(m_pid, SIGKILL);
  int nStatus = 0;
  ::waitpid(m_pid, &nStatus, 0);
}

bool ToolProcess::Started() const { return m_pid > 0; }

bool ToolProcess::Interrupt() { return m_pid > 0 && !m_bWaited && ::kill(m_pid, SIGINT) == 0; }

int ToolProcess::Wait() {
  if (m_pid <= 0 || m_bWaited) return m_nExit;
  m_bWaited = true;
  // waitpid has no time-out: the child is polled until the deadline.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(m_nTimeoutSeconds);
  int nStatus = 0;
  pid_t done = 0;
  while ((done = ::waitpid(m_pid, &nStatus, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (done == 0) {
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, &nStatus, 0);
    return m_nExit = kNotEnded;
  }
  if (done < 0) return m_nExit = kNotEnded;
  if (WIFEXITED(nStatus)) return m_nExit = WEXITSTATUS(nStatus);
  return m_nExit = WIFSIGNALED(nStatus) ? 128 + WTERMSIG(nStatus) : kNotEnded;
}

std::vector<std::pair<std::string, std::string>> TempFolderEnv(const std::string& dir) { return {{"TMPDIR", dir}}; }

const char* NullDevice() { return "/dev/null"; }

std::filesystem::path NativePathOf(const std::string& path) { return std::filesystem::path(path); }

bool MakeFifo(const std::string& path) { return ::mkfifo(path.c_str(), 0600) == 0; }

VirtualFolder::VirtualFolder()
    : m_strFolder("t-" + std::to_string(::getpid()) + "-" + std::to_string(g_nFolders.fetch_add(1))) {}

VirtualFolder::~VirtualFolder() = default;  // inside the test's temporary folder
#endif

std::string ReadToolOutput(const std::string& path) {
  std::string text = ReadWholeFile(path);
#if defined(_WIN32)
  std::string out;
  for (size_t i = 0; i < text.size(); ++i)
    if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) out += text[i];
  text.swap(out);
#endif
  return text;
}

int RunTool(const ToolRun& run) {
#if defined(_WIN32)
  // Under a loaded Wine a process start now and then fails in the loader
  // (STATUS_DLL_INIT_FAILED) before the tool's main runs: nothing was done,
  // so the run is started again, at most twice more.
  constexpr int kDllInitFailed = static_cast<int>(0xC0000142);
  int nExit = kDllInitFailed;
  for (int nTry = 0; nTry < 3 && nExit == kDllInitFailed; ++nTry) {
    ToolProcess process(run);
    nExit = process.Wait();
  }
  return nExit;
#else
  ToolProcess process(run);
  return process.Wait();
#endif
}
