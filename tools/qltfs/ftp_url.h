// FTP locations on the qltfs command line:
//   ftp://[user[:password]@]host[:port]/path[;passive]
// The path is relative to the login directory; "%2F" at its start makes it
// absolute. Percent escapes are decoded in every part.
#ifndef QLTFS_TOOL_FTP_URL_H
#define QLTFS_TOOL_FTP_URL_H

#include <string>

struct FtpLocation {
  std::string host;
  int port = 21;
  std::string user;      // empty: not given in the URL
  std::string password;  // never printed
  bool hasPassword = false;
  std::string path;  // decoded, without the URL's leading '/'
  bool passive = false;
};

// True when text starts with "ftp://" in any letter case.
bool IsFtpUrl(const std::string& text);

// Parses url into *out. False with a message in *error (which never holds the
// password) when the URL is malformed.
bool ParseFtpUrl(const std::string& url, FtpLocation* out, std::string* error);

// Completes the user and password the URL left out, in this order: the
// environment (QLTFS_FTP_USER, QLTFS_FTP_PASSWORD), then the netrc file
// ($NETRC, else ~/.netrc: "machine HOST login USER password PASS" entries,
// or "default"), then the anonymous login.
void FillFtpCredentials(FtpLocation* loc);

// The location for messages: "ftp://user@host:port/path", no password.
std::string ShownFtpUrl(const FtpLocation& loc);

#endif  // QLTFS_TOOL_FTP_URL_H
