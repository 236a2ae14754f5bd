// Shared pieces of the FTP back-end tests: a server per suite, logins with
// short time-outs, random contents and a thread count.
#ifndef QLTFSDK_TESTS_ACCESS_FTP_TEST_UTIL_H
#define QLTFSDK_TESTS_ACCESS_FTP_TEST_UTIL_H

#include <string>

#include "access/kx_file_access_ftp.h"
#include "tests/support/ftp_server.h"

// Time-outs short enough that every failure path ends within seconds.
FtpOptions ShortTimeouts();
// Logs acc in to 127.0.0.1:port with the fixture's user (or the password given).
int LogIn(KxFileAccessFtp& acc, int port, const wchar_t* password = nullptr);
// n pseudo-random bytes, different for each seed.
std::string RandomBytes(size_t n, unsigned seed);
// Threads of this process now.
int ThreadCount();
// Waits (up to 2 s) until the process has at most n threads: a joined
// thread leaves the kernel's list a moment after its join returns. Returns
// the count seen last.
int ThreadCountSettled(int n);
// Reads through acc until it returns 0, in pieces of the given size.
std::string ReadAll(KxFileAccessFtp& acc, int piece);

#endif  // QLTFSDK_TESTS_ACCESS_FTP_TEST_UTIL_H
