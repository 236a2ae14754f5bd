#include "ftp_url.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "text.h"

namespace {

bool Decode(const std::string& in, std::string* out) {
  out->clear();
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '%') {
      *out += in[i];
      continue;
    }
    if (i + 2 >= in.size() || !std::isxdigit(static_cast<unsigned char>(in[i + 1])) ||
        !std::isxdigit(static_cast<unsigned char>(in[i + 2])))
      return false;
    *out += static_cast<char>(std::stoi(in.substr(i + 1, 2), nullptr, 16));
    i += 2;
  }
  return true;
}

// Looks host up in a netrc-style file; fills what the entry has.
void ReadNetrc(const std::string& file, FtpLocation* loc) {
  std::ifstream in(NativePath(file));
  if (!in) return;
  std::stringstream all;
  all << in.rdbuf();
  std::string word, login, password;
  bool inMatch = false, found = false, inDefault = false;
  std::string defLogin, defPassword;
  while (all >> word) {
    if (word == "machine") {
      std::string name;
      all >> name;
      if (found) break;
      inMatch = name == loc->host;
      found = inMatch;
      inDefault = false;
    } else if (word == "default") {
      if (found) break;
      inMatch = false;
      inDefault = true;
    } else if (word == "login" || word == "password") {
      std::string value;
      all >> value;
      if (inMatch) (word == "login" ? login : password) = value;
      if (inDefault) (word == "login" ? defLogin : defPassword) = value;
    }
  }
  if (!found) {
    login = defLogin;
    password = defPassword;
  }
  if (loc->user.empty() && !login.empty()) loc->user = login;
  if (!loc->hasPassword && !password.empty() && (login.empty() || login == loc->user)) {
    loc->password = password;
    loc->hasPassword = true;
  }
}

}  // namespace

bool IsFtpUrl(const std::string& text) {
  if (text.size() < 6) return false;
  std::string scheme = text.substr(0, 6);
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return scheme == "ftp://";
}

bool ParseFtpUrl(const std::string& url, FtpLocation* out, std::string* error) {
  FtpLocation loc;
  if (!IsFtpUrl(url)) {
    *error = "not an ftp:// URL";
    return false;
  }
  std::string rest = url.substr(6);
  size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  std::string path = slash == std::string::npos ? "" : rest.substr(slash + 1);
  size_t at = authority.rfind('@');
  if (at != std::string::npos) {
    std::string userinfo = authority.substr(0, at);
    authority = authority.substr(at + 1);
    size_t colon = userinfo.find(':');
    if (!Decode(userinfo.substr(0, colon), &loc.user)) {
      *error = "bad escape in the user name";
      return false;
    }
    if (colon != std::string::npos) {
      if (!Decode(userinfo.substr(colon + 1), &loc.password)) {
        *error = "bad escape in the password";
        return false;
      }
      loc.hasPassword = true;
    }
  }
  size_t colon = authority.rfind(':');
  if (colon != std::string::npos && authority.find(']', colon) == std::string::npos) {
    std::string port = authority.substr(colon + 1);
    authority = authority.substr(0, colon);
    char* end = nullptr;
    long value = std::strtol(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || value < 1 || value > 65535) {
      *error = "bad port '" + port + "'";
      return false;
    }
    loc.port = static_cast<int>(value);
  }
  if (authority.size() > 2 && authority.front() == '[' && authority.back() == ']')
    authority = authority.substr(1, authority.size() - 2);
  if (authority.empty()) {
    *error = "no host";
    return false;
  }
  loc.host = authority;
  const std::string passive = ";passive";
  if (path.size() >= passive.size() && path.compare(path.size() - passive.size(), passive.size(), passive) == 0) {
    loc.passive = true;
    path.resize(path.size() - passive.size());
  }
  if (!Decode(path, &loc.path) || loc.path.empty()) {
    *error = loc.path.empty() ? "no file path" : "bad escape in the path";
    return false;
  }
  *out = loc;
  return true;
}

void FillFtpCredentials(FtpLocation* loc) {
  if (loc->user.empty()) {
    if (const char* u = std::getenv("QLTFS_FTP_USER")) loc->user = u;
  }
  if (!loc->hasPassword) {
    if (const char* p = std::getenv("QLTFS_FTP_PASSWORD")) {
      loc->password = p;
      loc->hasPassword = true;
    }
  }
  if (loc->user.empty() || !loc->hasPassword) {
    std::string file;
    if (const char* n = std::getenv("NETRC"); n && *n) {
      file = n;
    } else if (const char* home = std::getenv("HOME")) {
      file = std::string(home) + "/.netrc";
    }
    if (!file.empty()) ReadNetrc(file, loc);
  }
  if (loc->user.empty()) loc->user = "anonymous";
  if (!loc->hasPassword && loc->user == "anonymous") {
    loc->password = "qltfs@";
    loc->hasPassword = true;
  }
}

std::string ShownFtpUrl(const FtpLocation& loc) {
  std::string host = loc.host.find(':') != std::string::npos ? "[" + loc.host + "]" : loc.host;
  return "ftp://" + (loc.user.empty() ? "" : loc.user + "@") + host + ":" + std::to_string(loc.port) + "/" + loc.path;
}
