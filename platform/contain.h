// Keeping exceptions inside exported calls and facade operations.
#ifndef QLTFSDK_PLATFORM_CONTAIN_H
#define QLTFSDK_PLATFORM_CONTAIN_H

#include <new>

#include "platform/platform.h"

// Runs fn and returns its result; when it throws, returns fail instead with
// the last error set: ERROR_NOT_ENOUGH_MEMORY for std::bad_alloc,
// ERROR_INVALID_FUNCTION for anything else. Resources fn holds must be
// owned by objects that release them as the exception passes. Any thread.
template <class R, class Fn>
R QltContain(R fail, Fn&& fn) noexcept {
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  } catch (...) {
    SetLastError(ERROR_INVALID_FUNCTION);
  }
  return fail;
}

// The same for a call without a result.
template <class Fn>
void QltContainVoid(Fn&& fn) noexcept {
  QltContain(0, [&] {
    fn();
    return 0;
  });
}

#endif  // QLTFSDK_PLATFORM_CONTAIN_H
