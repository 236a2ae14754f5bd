#include "tests/support/ftp_server.h"

#include <cstdlib>
#include <stdexcept>
#include <vector>

#if !defined(_WIN32)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#ifndef QLT_FTP_SERVER_SCRIPT
#error "QLT_FTP_SERVER_SCRIPT must name tests/support/ftp_server.py"
#endif

namespace {

constexpr int kStartTimeoutMs = 15000;

}  // namespace

// The server runs under the build machine's python (also under Wine), so its
// root is handed over as a Unix path.
FtpTestServer::FtpTestServer(const std::string& root, const std::string& fault) : m_strRoot(root) {
  std::vector<std::string> argv{"/usr/bin/python3", QLT_FTP_SERVER_SCRIPT, "--root", UnixPath(root)};
  for (const char* arg : {"--user", user(), "--password", password(), "--lifetime", "600"}) argv.push_back(arg);
  if (!fault.empty()) {
    argv.push_back("--fault");
    argv.push_back(fault);
  }
  if (m_child.Start(argv)) {
    std::string line = m_child.FirstLine(kStartTimeoutMs);
    if (line.rfind("PORT ", 0) == 0) m_nPort = std::atoi(line.c_str() + 5);
  }
  if (m_nPort <= 0) {
    m_child.Stop();
    throw std::runtime_error("the FTP test server did not start (is python3-pyftpdlib installed?)");
  }
}

FtpTestServer::~FtpTestServer() = default;

std::string FtpTestServer::Url(const std::string& path) const {
  return std::string("ftp://") + user() + ":" + password() + "@127.0.0.1:" + std::to_string(m_nPort) + "/" + path;
}

#if defined(_WIN32)
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
#else
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
#endif
