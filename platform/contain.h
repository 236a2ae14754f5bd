// Keeping exceptions inside exported calls and facade operations: one
// wrapper and one mapping from an exception to a last error, used by every
// entry point of every layer.
#ifndef QLTFSDK_PLATFORM_CONTAIN_H
#define QLTFSDK_PLATFORM_CONTAIN_H

#include <cerrno>
#include <new>
#include <system_error>

#include "platform/platform.h"

// The last error the exception being handled stands for:
// ERROR_NOT_ENOUGH_MEMORY when memory or another resource ran out
// (std::bad_alloc, or a std::system_error of ENOMEM or EAGAIN, as when a
// thread cannot start), ERROR_GEN_FAILURE for anything else. Call it only
// inside a catch block: it rethrows the current exception to look at it.
// Any thread.
inline DWORD QltCurrentExceptionError() noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  } catch (const std::system_error& e) {
    int nCode = e.code().value();
    bool bErrno = e.code().category() == std::generic_category() || e.code().category() == std::system_category();
    return bErrno && (nCode == ENOMEM || nCode == EAGAIN) ? ERROR_NOT_ENOUGH_MEMORY : ERROR_GEN_FAILURE;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

// Runs fn and returns its result; when it throws, returns fail instead with
// the last error set by QltCurrentExceptionError. Resources fn holds must be
// owned by objects that release them as the exception passes. Any thread.
template <class R, class Fn>
R QltContain(R fail, Fn&& fn) noexcept {
  try {
    return fn();
  } catch (...) {
    SetLastError(QltCurrentExceptionError());
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
