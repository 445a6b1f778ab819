// Internal: makes the errors of sdk/.
#pragma once

#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "sdk/Error.h"

namespace qx::sdk {

// "cannot open /data/r1.ind: Permission denied"
[[nodiscard]] inline Error SystemError(const std::string& what, int error) {
  return {.code = error == ENOMEM ? ErrorCode::kNoMemory : ErrorCode::kSystem,
          .system_error = error,
          .text = what + ": " + std::strerror(error)};
}

[[nodiscard]] inline Error MakeError(ErrorCode code, std::string text) {
  return {.code = code, .text = std::move(text)};
}

// Runs `action` and returns its result. If memory runs out, the result is kNoMemory, whose text needs no allocation. No
// exception leaves the function.
template <typename Action>
[[nodiscard]] Error WithoutExceptions(Action action) {
  try {
    return action();
  } catch (const std::bad_alloc&) {
    return {.code = ErrorCode::kNoMemory, .system_error = ENOMEM, .text = "out of memory"};
  } catch (const std::exception& exception) {
    return {.code = ErrorCode::kSystem, .system_error = 0, .text = "failure"};
  }
}

}  // namespace qx::sdk
