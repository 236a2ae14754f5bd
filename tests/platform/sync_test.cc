// Events, waits and threads with the Windows wake-up rules.
#include <gtest/gtest.h>

#include <atomic>

#include "platform/platform.h"

namespace {

TEST(PlatformSyncTest, WaitForMultipleObjectsReportsFirstSignalledHandle) {
  HANDLE a = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  HANDLE b = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  HANDLE both[2] = {a, b};
  EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_TIMEOUT);
  SetEvent(b);
  SetEvent(a);
  EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_OBJECT_0);      // a wins and is consumed
  EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_OBJECT_0 + 1);  // b stays signalled
  EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_OBJECT_0 + 1);
  ResetEvent(b);
  EXPECT_EQ(WaitForSingleObject(b, 10), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_FAILED);  // wait-all is not offered
  CloseHandle(a);
  CloseHandle(b);
  EXPECT_EQ(WaitForSingleObject(a, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

struct WaitParams {
  HANDLE hEvent;
  HANDLE hDone;  // auto-reset: set by each waiter that got through
  std::atomic<int>* pWoken;
};

DWORD WINAPI WaitOnce(LPVOID p) {
  auto* w = static_cast<WaitParams*>(p);
  if (WaitForSingleObject(w->hEvent, 5000) == WAIT_OBJECT_0) {
    w->pWoken->fetch_add(1);
    SetEvent(w->hDone);
  }
  return 7;
}

// An auto-reset event lets exactly one waiter through per signal (each signal
// is given only once the previous waiter got through, as a signal on a set
// event is lost); a manual-reset one lets all through and stays set.
TEST(PlatformSyncTest, AutoResetWakesOneWaiterPerSignalManualResetWakesAllAndStaysSet) {
  for (BOOL bManual : {FALSE, TRUE}) {
    SCOPED_TRACE(bManual);
    std::atomic<int> woken{0};
    WaitParams p{CreateEventW(nullptr, bManual, FALSE, nullptr), CreateEventW(nullptr, FALSE, FALSE, nullptr), &woken};
    HANDLE threads[3];
    for (HANDLE& t : threads) t = CreateThread(nullptr, 0, WaitOnce, &p, 0, nullptr);
    for (int i = 1; i <= (bManual ? 1 : 3); ++i) {
      SetEvent(p.hEvent);
      ASSERT_EQ(WaitForSingleObject(p.hDone, 5000), WAIT_OBJECT_0);
      if (!bManual) {
        EXPECT_EQ(woken.load(), i);
      }
    }
    for (HANDLE t : threads) ASSERT_EQ(WaitForSingleObject(t, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(woken.load(), 3);
    EXPECT_EQ(WaitForSingleObject(p.hEvent, 0), bManual ? WAIT_OBJECT_0 : static_cast<DWORD>(WAIT_TIMEOUT));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(threads[0], &code));
    EXPECT_EQ(code, 7u);
    for (HANDLE t : threads) CloseHandle(t);
    CloseHandle(p.hEvent);
    CloseHandle(p.hDone);
  }
}

TEST(PlatformSyncTest, CriticalSectionIsReentrant) {
  CRITICAL_SECTION cs;
  InitializeCriticalSection(&cs);
  {
    CAutoLock outer(&cs);
    CAutoLock inner(&cs);
  }
  DeleteCriticalSection(&cs);
}

// The counter and its frequency agree with Sleep.
TEST(PlatformSyncTest, PerformanceCounterMeasuresSleep) {
  LARGE_INTEGER f{}, a{}, b{};
  ASSERT_TRUE(QueryPerformanceFrequency(&f));
  ASSERT_TRUE(QueryPerformanceCounter(&a));
  Sleep(2);
  ASSERT_TRUE(QueryPerformanceCounter(&b));
  EXPECT_GE((b.QuadPart - a.QuadPart) * 1000 / f.QuadPart, 2);
}

}  // namespace
