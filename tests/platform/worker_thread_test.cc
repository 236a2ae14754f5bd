// CWorkerThread: stop requests, joins and failures to start.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "platform/platform.h"
#include "platform/worker_thread.h"

namespace {

// A stop request reaches a body that waits on the stop event, as the
// library's workers do; Join ends it; a thread that cannot start or a body
// that throws leaves the worker reusable; the thread runs at the priority
// asked for; the destructor stops and joins.
TEST(WorkerThreadTest, StopReachesAWaitingBodyAndFailuresLeaveTheWorkerReusable) {
  std::atomic<int> runs{0};
  {
    CWorkerThread worker(L"test worker");
    auto waitingBody = [&] {
      WaitForSingleObject(worker.StopEvent(), INFINITE);
      if (worker.StopRequested()) ++runs;
    };
    ASSERT_TRUE(worker.Start(waitingBody));
    EXPECT_EQ(worker.GetPriority(), THREAD_PRIORITY_NORMAL);
    EXPECT_FALSE(worker.Start([] {}));  // one thread at a time
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BUSY));
    worker.RequestStop();
    worker.Join();
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_FALSE(worker.Start(nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    {
      qlt::fault::Rule rule;
      rule.ops = qlt::fault::kThreadStart;
      qlt::fault::ScopedFault fault(rule);
      EXPECT_FALSE(worker.Start([&] { runs += 100; }));
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    }
    ASSERT_TRUE(worker.Start([] { throw std::runtime_error("body failed"); }));
    worker.Join();                                                         // the process goes on
    ASSERT_TRUE(worker.Start(waitingBody, THREAD_PRIORITY_ABOVE_NORMAL));  // as the access worker runs
    EXPECT_EQ(worker.GetPriority(), THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_FALSE(worker.StopRequested());  // a new start clears the old request
    // The destructor stops and joins: without either this hangs or fails under asan.
  }
  EXPECT_EQ(runs.load(), 2);  // each waiting body saw its stop request
}

}  // namespace
