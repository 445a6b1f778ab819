// Internal: runs an operation on a directory tree to its end.
#pragma once

#include <cerrno>
#include <new>

#include "registry/Uncancellable.h"

namespace qx::report {

// Runs `operation`, which returns 0 or an error number, to its end: the thread is not cancelled in the middle of it,
// and running out of memory is a failure like any other. Returns the error number.
template <typename Operation>
[[nodiscard]] int ErrorOfOperation(const Operation& operation) {
  const registry::UncancellableScope no_cancellation;
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

}  // namespace qx::report
