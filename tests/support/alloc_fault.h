// Allocation failure on demand, for checking that exported calls contain
// std::bad_alloc. A test program that uses this gets the global operator
// new replaced (on Windows for the program; each SDK library there has an
// operator new of its own that counts on the same per-thread countdown, see
// platform/alloc_hook.cc); it allocates normally unless the calling thread
// armed it.
#ifndef QLTFSDK_TESTS_SUPPORT_ALLOC_FAULT_H
#define QLTFSDK_TESTS_SUPPORT_ALLOC_FAULT_H

// While it lives, the Nth allocation through operator new on this thread
// (1 = the next one) throws std::bad_alloc (a nothrow new returns null); the
// others succeed. Allocations made by the platform library's own code are
// not counted: that layer's containment is its own tests' business. Make
// nothing else allocate on the thread while armed (no assertions inside the
// scope).
class ScopedAllocFailure {
 public:
  explicit ScopedAllocFailure(int nNth);
  ~ScopedAllocFailure();
  ScopedAllocFailure(const ScopedAllocFailure&) = delete;
  ScopedAllocFailure& operator=(const ScopedAllocFailure&) = delete;

  // True once the Nth allocation has come and failed.
  bool Fired() const;
};

// Runs call(n) for n = 1, 2, ... with the nth allocation failing, until a
// run makes fewer than n allocations (every allocation point has then
// failed once), at most nLimit runs. check(n, bFired) runs after each, outside
// the armed scope. Returns the number of runs.
template <class Call, class Check>
int ForEachAllocationFailure(Call call, Check check, int nLimit = 500) {
  int n = 1;
  for (; n <= nLimit; ++n) {
    bool bFired;
    {
      ScopedAllocFailure fault(n);
      call(n);
      bFired = fault.Fired();
    }
    check(n, bFired);
    if (!bFired) break;
  }
  return n;
}

#endif  // QLTFSDK_TESTS_SUPPORT_ALLOC_FAULT_H
