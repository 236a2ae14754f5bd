// Allocation faults for a test program that links tests/fifo/alloc_fault.cc,
// which replaces the program's operator new.
#ifndef QLTFSDK_TESTS_FIFO_ALLOC_FAULT_H
#define QLTFSDK_TESTS_FIFO_ALLOC_FAULT_H

namespace fifotest {

// Starts counting the allocations on the calling thread; the nth of them
// throws std::bad_alloc (n <= 0: none does). The library's allocations count
// too (the dynamic linker binds them to the program's operator new, and the
// nothrow and array forms go through it), except those made by the platform
// library's own code, whose calls are its own to contain.
void ArmAllocationFault(int n);
// Stops counting and failing; returns how many allocations were counted
// (the failed one included).
int DisarmAllocationFault();

}  // namespace fifotest

#endif  // QLTFSDK_TESTS_FIFO_ALLOC_FAULT_H
