// The operator new of one SDK library on Windows. The runtime is linked
// statically there, so every library has an operator new of its own and a
// test program's replacement never reaches it; this one lets the per-thread
// allocation failure of the fault control (qlt::fault::ArmAllocFailure)
// reach each library's allocations. Disarmed it costs one relaxed load per
// allocation. Compiled into every Windows library of the SDK except the
// platform library (see cmake/QltExports.cmake); elsewhere a program's own
// operator new serves the whole process and this file is not built.
#include "platform/faults.h"

namespace {

bool AllocationRefused() { return qlt::fault::AllocationMustFail(); }

}  // namespace

#include "platform/alloc_operators.inc"
