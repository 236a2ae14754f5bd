#include "tests/support/ftp_server.h"

#if defined(_WIN32)
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#ifndef QLT_FTP_SERVER_SCRIPT
#error "QLT_FTP_SERVER_SCRIPT must name tests/support/ftp_server.py"
#endif

// Under Wine a Windows program can start the build machine's python by its
// Unix path; the server's root is handed over as the Unix path Wine maps the
// Windows one to. The server ends when its standard input closes.
//
// Wine hands a Linux process no pipe of ours, and it starts one through a
// double fork, so the shell's parent is an intermediate process that is gone
// (or init) by the time the shell looks: watching $PPID either ends the
// server before it listens or never. What does end with this process is a
// socket: Wine closes it when the process goes away, however it ends. So the
// server's standard input is a small relay that connects back to a loopback
// socket of ours and ends when that connection ends.
namespace {

constexpr int kStartTimeoutMs = 15000;

std::string UnixPath(const std::string& windowsPath) {
  using ToUnix = char*(__cdecl*)(LPCWSTR);
  HMODULE k = GetModuleHandleW(L"kernel32.dll");
  auto fn = k ? reinterpret_cast<ToUnix>(GetProcAddress(k, "wine_get_unix_file_name")) : nullptr;
  if (!fn) return windowsPath;
  char* unix = fn(QltUtf8ToWide(windowsPath).c_str());
  if (!unix) return windowsPath;
  std::string out(unix);
  HeapFree(GetProcessHeap(), 0, unix);
  return out;
}

std::string Quote(const std::string& a) { return "\"" + a + "\""; }

std::string ReadWholeText(const std::string& path) {
  HANDLE h = CreateFileW(QltUtf8ToWide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return std::string();
  char buf[64];
  DWORD n = 0;
  std::string out;
  if (ReadFile(h, buf, sizeof buf, &n, nullptr)) out.assign(buf, n);
  CloseHandle(h);
  return out;
}

// A listening socket on 127.0.0.1 and a free port; INVALID_SOCKET on failure.
SOCKET ListenOnLoopback(int& port) {
  SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
  if (s == INVALID_SOCKET) return s;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int len = sizeof(a);
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(s, 1) != 0 ||
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  port = ntohs(a.sin_port);
  return s;
}

// Accepts one connection on listener within timeoutMs; INVALID_SOCKET if none.
SOCKET AcceptWithin(SOCKET listener, int timeoutMs) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(listener, &set);
  timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  if (select(0, &set, nullptr, nullptr, &tv) != 1) return INVALID_SOCKET;
  return accept(listener, nullptr, nullptr);
}

}  // namespace

FtpTestServer::FtpTestServer(const std::string& root, const std::string& fault) : m_strRoot(root) {
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) throw std::runtime_error("no sockets");
  m_bWinsock = true;
  int lifelinePort = 0;
  SOCKET listener = ListenOnLoopback(lifelinePort);
  if (listener == INVALID_SOCKET) {
    Stop();
    throw std::runtime_error("no loopback socket for the FTP test server");
  }
  // The server's first line goes to a file named after the lifeline's port,
  // which no other live server shares.
  wchar_t temp[MAX_PATH + 1];
  DWORD n = GetTempPathW(MAX_PATH + 1, temp);
  if (n == 0 || n > MAX_PATH) {
    closesocket(listener);
    Stop();
    throw std::runtime_error("no temporary folder");
  }
  m_strPortFile = QltWideToUtf8(temp) + "qlt-ftp-" + std::to_string(lifelinePort) + ".port";
  DeleteFileW(QltUtf8ToWide(m_strPortFile).c_str());
  std::string server = "/usr/bin/python3 '" + std::string(QLT_FTP_SERVER_SCRIPT) + "' --root '" + UnixPath(root) +
                       "' --user " + user() + " --password " + password() + " --lifetime 600";
  if (!fault.empty()) server += " --fault '" + fault + "'";
  // No double quotes inside: the command line keeps the script in them.
  std::string relay =
      "/usr/bin/python3 -c 'import socket,sys; s=socket.create_connection((sys.argv[1],int(sys.argv[2]))); "
      "all(iter(lambda: s.recv(4096), bytes()))' 127.0.0.1 " +
      std::to_string(lifelinePort);
  std::string script = relay + " 2>/dev/null | " + server + " > '" + UnixPath(m_strPortFile) + "'";
  std::wstring wcmd = QltUtf8ToWide("/bin/sh -c " + Quote(script));
  std::vector<wchar_t> line(wcmd.begin(), wcmd.end());
  line.push_back(0);
  STARTUPINFOW si{};
  si.cb = sizeof(si);
  PROCESS_INFORMATION pi{};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
    closesocket(listener);
    Stop();
    throw std::runtime_error("cannot start /bin/sh");
  }
  CloseHandle(pi.hThread);
  m_hProcess = pi.hProcess;
  m_pid = static_cast<pid_t>(pi.dwProcessId);
  SOCKET lifeline = AcceptWithin(listener, kStartTimeoutMs);
  closesocket(listener);
  m_lifeline = static_cast<uintptr_t>(lifeline);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
  while (lifeline != INVALID_SOCKET && m_nPort <= 0 && std::chrono::steady_clock::now() < deadline) {
    std::string first = ReadWholeText(m_strPortFile);
    if (first.rfind("PORT ", 0) == 0 && first.find('\n') != std::string::npos)
      m_nPort = std::atoi(first.c_str() + 5);
    else
      Sleep(20);
  }
  if (m_nPort <= 0) {
    Stop();
    throw std::runtime_error("the FTP test server did not start (is python3-pyftpdlib installed?)");
  }
}

FtpTestServer::~FtpTestServer() { Stop(); }

void FtpTestServer::Stop() {
  // Closing the lifeline ends the relay, and the server with its input.
  if (m_lifeline != static_cast<uintptr_t>(INVALID_SOCKET)) closesocket(static_cast<SOCKET>(m_lifeline));
  m_lifeline = static_cast<uintptr_t>(INVALID_SOCKET);
  if (m_hProcess) {
    WaitForSingleObject(m_hProcess, 5000);
    CloseHandle(m_hProcess);
    m_hProcess = nullptr;
  }
  m_pid = -1;
  if (!m_strPortFile.empty()) DeleteFileW(QltUtf8ToWide(m_strPortFile).c_str());
  m_strPortFile.clear();
  if (m_bWinsock) WSACleanup();
  m_bWinsock = false;
}

std::string FtpTestServer::Url(const std::string& path) const {
  return std::string("ftp://") + user() + ":" + password() + "@127.0.0.1:" + std::to_string(m_nPort) + "/" + path;
}

int UnusedLoopbackPort() {
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 0;
  SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = 0;
  int len = sizeof(a);
  int port = 0;
  if (s != INVALID_SOCKET && bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  if (s != INVALID_SOCKET) closesocket(s);
  WSACleanup();
  return port;
}

#else  // POSIX
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#ifndef QLT_FTP_SERVER_SCRIPT
#error "QLT_FTP_SERVER_SCRIPT must name tests/support/ftp_server.py"
#endif

namespace {

constexpr int kStartTimeoutMs = 15000;

// Reads one line from fd within the time limit; empty on time-out or end.
std::string ReadLine(int fd, int timeoutMs) {
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return {};
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n <= 0) return {};
    if (c == '\n') return line;
    line += c;
  }
}

}  // namespace

FtpTestServer::FtpTestServer(const std::string& root, const std::string& fault) : m_strRoot(root) {
  int in[2], out[2];
  if (pipe(in) != 0) throw std::runtime_error("pipe failed");
  if (pipe(out) != 0) {
    close(in[0]);
    close(in[1]);
    throw std::runtime_error("pipe failed");
  }
  pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    // The server also dies with this process, whatever happens to the pipe.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    dup2(in[0], 0);
    dup2(out[1], 1);
    close(in[0]);
    close(in[1]);
    close(out[0]);
    close(out[1]);
    std::string lifetime = std::to_string(600);
    if (fault.empty()) {
      execl("/usr/bin/python3", "python3", QLT_FTP_SERVER_SCRIPT, "--root", root.c_str(), "--user", user(),
            "--password", password(), "--lifetime", lifetime.c_str(), static_cast<char*>(nullptr));
    } else {
      execl("/usr/bin/python3", "python3", QLT_FTP_SERVER_SCRIPT, "--root", root.c_str(), "--user", user(),
            "--password", password(), "--lifetime", lifetime.c_str(), "--fault", fault.c_str(),
            static_cast<char*>(nullptr));
    }
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  if (m_pid < 0) {
    close(in[1]);
    close(out[0]);
    throw std::runtime_error("fork failed");
  }
  m_fdStdin = in[1];
  std::string line = ReadLine(out[0], kStartTimeoutMs);
  close(out[0]);
  if (line.rfind("PORT ", 0) == 0) m_nPort = std::atoi(line.c_str() + 5);
  if (m_nPort <= 0) {
    Stop();
    throw std::runtime_error("the FTP test server did not start (is python3-pyftpdlib installed?)");
  }
}

FtpTestServer::~FtpTestServer() { Stop(); }

void FtpTestServer::Stop() {
  if (m_fdStdin >= 0) close(m_fdStdin);  // the server exits at the end of its input
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

std::string FtpTestServer::Url(const std::string& path) const {
  return std::string("ftp://") + user() + ":" + password() + "@127.0.0.1:" + std::to_string(m_nPort) + "/" + path;
}

int UnusedLoopbackPort() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = 0;
  socklen_t len = sizeof(a);
  int port = 0;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(s);
  return port;
}
#endif  // POSIX
