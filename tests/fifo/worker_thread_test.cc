#include "fifo/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "tests/fifo/fifo_test_util.h"

namespace {

// A body that waits for the stop request on the event, as the library's
// workers do, and counts its runs.
struct WaitingBody {
  CWorkerThread& worker;
  std::atomic<int>& runs;
  void operator()() const {
    WaitForSingleObject(worker.StopEvent(), INFINITE);
    if (worker.StopRequested()) ++runs;
  }
};

TEST(WorkerThreadTest, StopRequestReachesAWaitingBodyJoinEndsItAndTheWorkerStartsAgain) {
  std::atomic<int> runs{0};
  CWorkerThread worker(L"test worker");
  EXPECT_EQ(worker.StopEvent(), nullptr);
  for (int i = 1; i <= 2; ++i) {
    ASSERT_TRUE(worker.Start(WaitingBody{worker, runs}));
    EXPECT_TRUE(worker.IsRunning());
    EXPECT_FALSE(worker.StopRequested());  // a new start clears the old request
    EXPECT_EQ(WaitForSingleObject(worker.StopEvent(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    worker.RequestStop();
    worker.Join();
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_EQ(runs.load(), i);
  }
  worker.Join();  // nothing started: returns at once
  EXPECT_EQ(worker.GetName(), L"test worker");
}

TEST(WorkerThreadTest, BadStartsFailWithALastErrorAndLeaveTheRunningThreadAlone) {
  std::atomic<int> runs{0};
  CWorkerThread worker(L"w");
  SetLastError(0);
  EXPECT_FALSE(worker.Start(nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  ASSERT_TRUE(worker.Start(WaitingBody{worker, runs}));
  EXPECT_FALSE(worker.Start([] {}));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BUSY));
  worker.RequestStop();
  worker.Join();
  EXPECT_EQ(runs.load(), 1);  // the first body ran, the refused one did not
}

TEST(WorkerThreadTest, DestructorStopsAndJoinsAndAThrowingBodyEndsOnlyItsThread) {
  std::atomic<int> runs{0};
  {
    CWorkerThread worker(L"w");
    ASSERT_TRUE(worker.Start(WaitingBody{worker, runs}));
  }  // would hang here without the stop request, fail under asan without the join
  EXPECT_EQ(runs.load(), 1);

  CWorkerThread thrower(L"t");
  ASSERT_TRUE(thrower.Start([] { throw std::runtime_error("body failed"); }));
  thrower.Join();  // the process goes on
  ASSERT_TRUE(thrower.Start([&] { ++runs; }));
  thrower.Join();
  EXPECT_EQ(runs.load(), 2);
}

}  // namespace
