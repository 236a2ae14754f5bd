// Shared pieces of the file access tests: pattern and sparse files, thread
// counts and the error log.
#ifndef QLTFSDK_TESTS_ACCESS_ACCESS_FIXTURE_H
#define QLTFSDK_TESTS_ACCESS_ACCESS_FIXTURE_H

#include <gtest/gtest.h>
#if defined(_WIN32)
#include <tlhelp32.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#endif

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/module_paths.h"
#include "diagnostics/sdk_settings.h"
#include "platform/faults.h"
#include "tests/support/temp_dir.h"

// n bytes of the pattern file from offset on: bytes vary within a block and
// between blocks, so a byte delivered from the wrong offset shows.
inline std::string Pattern(uint64_t offset, size_t n) {
  std::string s(n, '\0');
  for (uint64_t i = offset; i < offset + n; ++i) s[i - offset] = static_cast<char>((i * 131u) ^ (i >> 12) ^ (i >> 20));
  return s;
}

inline bool WritePatternFile(const std::string& path, size_t n) { return WriteWholeFile(path, Pattern(0, n)); }

// Writes data at offset into path, leaving a hole before it.
inline bool WriteAt(const std::string& path, int64_t offset, const std::string& data) {
#if defined(_WIN32)
  HANDLE h = CreateFileW(QltWindowsPath(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  OVERLAPPED at{};
  at.Offset = static_cast<DWORD>(offset);
  at.OffsetHigh = static_cast<DWORD>(static_cast<uint64_t>(offset) >> 32);
  DWORD n = 0;
  bool ok = WriteFile(h, data.data(), static_cast<DWORD>(data.size()), &n, &at) && n == data.size();
  CloseHandle(h);
  return ok;
#else
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  bool ok = fd >= 0 && ::pwrite(fd, data.data(), data.size(), offset) == static_cast<ssize_t>(data.size());
  if (fd >= 0) ::close(fd);
  return ok;
#endif
}

// Turns the error log on into dir's "sdk-log" for its lifetime.
class ErrorLogCapture {
 public:
  explicit ErrorLogCapture(const TempDir& dir) : m_dir(dir) {
    SetModuleDirectoryOverride(dir.wpath());
    std::filesystem::create_directories(dir.file("sdk-log/ErrorLog"));
    SdkSettings.LogFileOn = 1;
  }
  ~ErrorLogCapture() {
    SdkSettings.LogFileOn = 0;
    SetModuleDirectoryOverride(L"");
  }
  // Ends the logging and returns what was logged.
  std::string Text() const {
    SdkSettings.LogFileOn = 0;
    return ReadWholeFile(m_dir.file("sdk-log/ErrorLog/ErrorLogFileForTarnwell.txt"));
  }

 private:
  const TempDir& m_dir;
};

// Threads that are not ours start before any count a test takes. Some
// sanitizer runtimes start a helper with the first thread of the process:
// making (and joining) one at load moves it here. On Windows the test
// framework starts a watcher thread for each thread the first time that
// thread uses the framework's per-thread state (a trace, an assertion), and
// the main thread's watcher lives as long as the main thread: a trace pushed
// and popped here starts it now.
inline const bool g_bFirstThreadMade = [] {
  std::thread([] {}).join();
  { SCOPED_TRACE("starts the framework's watcher of the main thread"); }
  return true;
}();

// Threads of this process right now.
inline int ThreadCount() {
  int n = 0;
#if defined(_WIN32)
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snap == INVALID_HANDLE_VALUE) return 0;
  THREADENTRY32 te{};
  te.dwSize = sizeof(te);
  for (BOOL more = Thread32First(snap, &te); more; more = Thread32Next(snap, &te))
    if (te.th32OwnerProcessID == GetCurrentProcessId()) ++n;
  CloseHandle(snap);
#else
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
#endif
  return n;
}

// Waits (up to 2 s) until the process has at most n threads: a joined thread
// leaves the kernel's list a moment after its join returns. Returns the count
// seen last.
inline int ThreadCountSettled(int n) {
  int count = ThreadCount();
  for (int i = 0; i < 200 && count > n; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    count = ThreadCount();
  }
  return count;
}

#endif  // QLTFSDK_TESTS_ACCESS_ACCESS_FIXTURE_H
