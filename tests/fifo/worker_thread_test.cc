#include "fifo/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "tests/fifo/fifo_test_util.h"

namespace {

// A body that waits for the stop request on the event, as the library's
// workers do, and counts the runs that saw the request.
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
  {
    CWorkerThread worker(L"test worker");
    EXPECT_EQ(worker.StopEvent(), nullptr);
    for (int i = 1; i <= 2; ++i) {
      ASSERT_TRUE(worker.Start(WaitingBody{worker, runs}));
      EXPECT_FALSE(worker.StopRequested());  // a new start clears the old request
      EXPECT_FALSE(worker.Start([] {}));     // one thread at a time
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BUSY));
      worker.RequestStop();
      worker.Join();
      EXPECT_FALSE(worker.IsRunning());
      EXPECT_EQ(runs.load(), i);
    }
    EXPECT_FALSE(worker.Start(nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    ASSERT_TRUE(worker.Start(WaitingBody{worker, runs}));
  }  // the destructor requests the stop and joins: without either this hangs or fails under asan
  EXPECT_EQ(runs.load(), 3);
}

TEST(WorkerThreadTest, AThreadThatCannotStartOrAThrowingBodyLeavesTheWorkerReusable) {
  int runs = 0;
  CWorkerThread worker(L"thrower");
  {
    qlt::fault::ScopedFault fault(fifotest::ThreadStartFault());
    EXPECT_FALSE(worker.Start([&] { ++runs; }));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_FALSE(worker.IsRunning());
  }
  ASSERT_TRUE(worker.Start([] { throw std::runtime_error("body failed"); }));
  worker.Join();  // the process goes on
  ASSERT_TRUE(worker.Start([&] { ++runs; }));
  worker.Join();
  EXPECT_EQ(runs, 1);
}

}  // namespace
