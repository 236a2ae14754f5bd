// Handles: closing from another thread, stale values after reuse, the RAII
// owner, and calls that run out of memory or threads.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/contain.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kCycles = 100000;  // the sanitizers make each call costlier
constexpr int kRounds = 10;
#else
constexpr int kCycles = 1000000;
constexpr int kRounds = 30;
#endif

size_t OpenDescriptors() {
#if defined(_WIN32)
  DWORD n = 0;
  GetProcessHandleCount(GetCurrentProcess(), &n);
  return n;
#endif
  return static_cast<size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
}

// Reader, writer and waiter threads use one file and one event while the main
// thread closes both. Every call either works or fails with
// ERROR_INVALID_HANDLE; once the close has returned, every call fails.
TEST(PlatformHandlesTest, CallsRacingCloseFinishOrFailCleanly) {
  TempDir dir;
  std::wstring path = dir.wpath("race.bin");
  for (int round = 0; round < kRounds; ++round) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              CREATE_ALWAYS, 0, nullptr);
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    ASSERT_NE(event, nullptr);
    std::atomic<int> started{0}, closed{0}, wrongErrors{0}, workedAfterClose{0};
    auto worker = [&](int kind) {
      char buf[64] = {};
      started.fetch_add(1);
      for (int i = 0; i < 100000; ++i) {
        bool wasClosed = closed.load() != 0;
        OVERLAPPED ov{};
        ov.Offset = static_cast<DWORD>(kind * 64);
        DWORD n = 0;
        bool ok = kind == 0   ? WriteFile(file, buf, sizeof(buf), &n, &ov) != FALSE
                  : kind == 1 ? ReadFile(file, buf, sizeof(buf), &n, &ov) != FALSE
                              : WaitForSingleObject(event, static_cast<DWORD>(i & 1)) != WAIT_FAILED;
        if (!ok && GetLastError() != ERROR_INVALID_HANDLE) wrongErrors.fetch_add(1);
        if (ok && wasClosed) workedAfterClose.fetch_add(1);
        if (!ok) return;
      }
    };
    std::vector<std::thread> threads;
    for (int kind = 0; kind < 3; ++kind) threads.emplace_back(worker, kind);
    while (started.load() < 3) std::this_thread::yield();
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_TRUE(CloseHandle(event));
    closed.store(1);
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrongErrors.load(), 0);
    EXPECT_EQ(workedAfterClose.load(), 0);
  }
  // The last reference closed the file: it opens again without sharing.
  HANDLE again = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(again, INVALID_HANDLE_VALUE);
  CloseHandle(again);
}

// Handle values are not reused for a long time: after many open/close
// cycles no old value reaches the object now living in its slot.
TEST(PlatformHandlesTest, OldHandlesStayInvalidAfterManyCycles) {
#if defined(_WIN32)
  GTEST_SKIP() << "the system reuses handle values at once; only our POSIX layer keeps old values invalid";
#endif
  std::vector<HANDLE> old;
  old.reserve(kCycles);
  for (int i = 0; i < kCycles; ++i) {
    HANDLE h = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(h, nullptr);
    old.push_back(h);
    ASSERT_TRUE(CloseHandle(h));
  }
  HANDLE live = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  int wrong = 0;
  for (HANDLE h : old) {
    SetLastError(0);
    if (SetEvent(h) || GetLastError() != ERROR_INVALID_HANDLE) ++wrong;
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(WaitForSingleObject(live, 0), static_cast<DWORD>(WAIT_TIMEOUT));  // no stale SetEvent reached it
  std::sort(old.begin(), old.end());
  EXPECT_EQ(std::unique(old.begin(), old.end()), old.end());
  CloseHandle(live);
}

TEST(PlatformHandlesTest, StaleFileHandleNeverWritesIntoTheNextFile) {
#if defined(_WIN32)
  GTEST_SKIP() << "the system reuses handle values at once, so a stale handle may name the next file; "
                  "only our POSIX layer guards against that";
#endif
  TempDir dir;
  HANDLE a = CreateFileW(dir.wpath("a.bin").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  ASSERT_TRUE(CloseHandle(a));
  HANDLE b = CreateFileW(dir.wpath("b.bin").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  ASSERT_NE(b, INVALID_HANDLE_VALUE);
  DWORD n = 0;
  EXPECT_FALSE(WriteFile(a, "x", 1, &n, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(CloseHandle(a));
  LARGE_INTEGER size{};
  EXPECT_TRUE(GetFileSizeEx(b, &size));
  EXPECT_EQ(size.QuadPart, 0);
  CloseHandle(b);
}

TEST(PlatformHandlesTest, AutoHandleClosesExactlyWhatItOwns) {
  HANDLE kept;
  {
    CAutoHandle a(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    CAutoHandle b(std::move(a));
    EXPECT_FALSE(a);
    EXPECT_TRUE(b);
    HANDLE first = b.Get();
    b.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_FAILED);  // Reset closed the old one
    kept = b.Release();
    CAutoHandle none(INVALID_HANDLE_VALUE);
    SetLastError(1234);
  }
  EXPECT_EQ(GetLastError(), 1234u);                                           // nothing was closed on the way out
  EXPECT_EQ(WaitForSingleObject(kept, 0), static_cast<DWORD>(WAIT_TIMEOUT));  // released, still open
  {
    CAutoHandle owner(kept);
    SetLastError(77);
  }
  EXPECT_EQ(GetLastError(), 77u);  // closing keeps the caller's error
  EXPECT_EQ(WaitForSingleObject(kept, 0), WAIT_FAILED);
}

DWORD WINAPI ReturnLastError(LPVOID p) {
  *static_cast<DWORD*>(p) = GetLastError();
  return 0;
}

// Each allocation point of a call fails in turn: the call reports
// ERROR_NOT_ENOUGH_MEMORY and leaves nothing behind (no descriptor, no
// share entry, no signal lost), until the call gets through.
TEST(PlatformHandlesTest, OutOfMemoryAtEveryStepFailsCleanly) {
  TempDir dir;
  std::wstring path = dir.wpath("m.bin");
  std::wstring pattern = dir.wpath("*.bin");
  DWORD seen = 0;
  HANDLE unset = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  const struct {
    const char* name;
    std::function<bool()> call;  // true when the call worked (and was undone)
  } calls[] = {
      {"CreateFileW",
       [&] {
         HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
         return h != INVALID_HANDLE_VALUE && CloseHandle(h);
       }},
      {"CreateEventW named",
       [&] {
         HANDLE h = CreateEventW(nullptr, TRUE, FALSE, L"qlt-test-event");
         return h != nullptr && CloseHandle(h);
       }},
      {"FindFirstFileW",
       [&] {
         WIN32_FIND_DATAW fd;
         HANDLE h = FindFirstFileW(pattern.c_str(), &fd);
         return h != INVALID_HANDLE_VALUE && FindClose(h);
       }},
      {"CreateThread",
       [&] {
         HANDLE h = CreateThread(nullptr, 0, ReturnLastError, &seen, 0, nullptr);
         return h != nullptr && WaitForSingleObject(h, 10000) == WAIT_OBJECT_0 && CloseHandle(h);
       }},
      {"WaitForSingleObject", [&] { return WaitForSingleObject(unset, 1) == WAIT_TIMEOUT; }},
      {"VirtualAlloc",
       [&] {
         const SIZE_T n = 4 << 20;
         BYTE* p = static_cast<BYTE*>(VirtualAlloc(nullptr, n, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
         return p != nullptr && p[0] == 0 && p[n - 1] == 0 && VirtualFree(p, 0, MEM_RELEASE);
       }},
  };
  for (const auto& c : calls) {
    SCOPED_TRACE(c.name);
    size_t fds = OpenDescriptors();
    bool worked = false;
    int failures = 0;
    for (int nth = 1; nth <= 20 && !worked; ++nth) {
      qlt::fault::Rule rule;
      rule.ops = qlt::fault::kAlloc;
      rule.nth = nth;
      qlt::fault::ScopedFault fault(rule);
      SetLastError(0);
      worked = c.call();
      if (!worked) {
        ++failures;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY)) << "allocation " << nth;
      }
    }
    EXPECT_TRUE(worked);
    EXPECT_GE(failures, 1);
    EXPECT_EQ(OpenDescriptors(), fds);
  }
  // The failed opens left no share entry behind: an exclusive open works.
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(h, INVALID_HANDLE_VALUE);
  CloseHandle(h);
  CloseHandle(unset);
  // Regions: what the layer does not do is refused, not half done.
  EXPECT_EQ(VirtualAlloc(nullptr, 0, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(VirtualAlloc(nullptr, 4096, MEM_RESERVE, PAGE_READWRITE), nullptr);
  int nNotARegion = 0;
  EXPECT_FALSE(VirtualFree(&nNotARegion, 0, MEM_RELEASE));
  EXPECT_FALSE(VirtualFree(nullptr, 0, MEM_RELEASE));
}

TEST(PlatformHandlesTest, ThreadThatCannotStartFailsWithoutRunning) {
  std::atomic<int> ran{0};
  auto start = [](LPVOID p) -> DWORD {
    static_cast<std::atomic<int>*>(p)->fetch_add(1);
    return 0;
  };
  qlt::fault::Rule rule;
  rule.ops = qlt::fault::kThreadStart;
  {
    qlt::fault::ScopedFault fault(rule);
    EXPECT_EQ(CreateThread(nullptr, 0, start, &ran, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(fault.Fired(), 1);
  }
  HANDLE t = CreateThread(nullptr, 0, start, &ran, 0, nullptr);  // the next start works
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(WaitForSingleObject(t, 10000), WAIT_OBJECT_0);
  CloseHandle(t);
  EXPECT_EQ(ran.load(), 1);
}

}  // namespace

// Every exported call contains exceptions one way: the failure result, and a
// last error that says whether memory (or a thread) ran out or something
// else went wrong.
TEST(PlatformContainTest, EachExceptionGivesTheFailureResultAndOneOfTwoErrors) {
  const std::pair<std::function<void()>, DWORD> cases[] = {
      {[] { throw std::bad_alloc(); }, ERROR_NOT_ENOUGH_MEMORY},
      {[] { throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again)); },
       ERROR_NOT_ENOUGH_MEMORY},
      {[] { throw std::system_error(std::make_error_code(std::errc::not_enough_memory)); }, ERROR_NOT_ENOUGH_MEMORY},
      {[] { throw std::system_error(std::make_error_code(std::errc::invalid_argument)); }, ERROR_GEN_FAILURE},
      {[] { throw std::runtime_error("x"); }, ERROR_GEN_FAILURE},
      {[] { throw 7; }, ERROR_GEN_FAILURE},
  };
  for (const auto& c : cases) {
    const std::function<void()>& fnThrow = c.first;
    const DWORD nError = c.second;
    SetLastError(0);
    EXPECT_EQ(QltContain(-1,
                         [&] {
                           fnThrow();
                           return 1;
                         }),
              -1);
    EXPECT_EQ(GetLastError(), nError);
    SetLastError(0);
    QltContainVoid(fnThrow);
    EXPECT_EQ(GetLastError(), nError);
  }
  SetLastError(5);
  EXPECT_EQ(QltContain(-1, [] { return 1; }), 1);
  EXPECT_EQ(GetLastError(), 5u);  // a call that returns keeps its own last error
}
