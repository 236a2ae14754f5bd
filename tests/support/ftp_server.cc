#include "tests/support/ftp_server.h"

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
    this->~FtpTestServer();
    throw std::runtime_error("the FTP test server did not start (is python3-pyftpdlib installed?)");
  }
}

FtpTestServer::~FtpTestServer() {
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
