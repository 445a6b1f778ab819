// The failures of the API. Each has a status, a code that `qxctl explain` knows, and a message that says what happened.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

enum class Failure {
  kNoSession,      // no valid cookie
  kBadToken,       // used, old or wrong
  kForeignHost,    // the Host header names another machine
  kForeignOrigin,  // a page of another origin sent the request
  kNoSuchPath,
  kBadMethod,
  kBadParameter,
  kNoSuchReport,
  kUnreadable,  // a report, or the system, fails
  kBusy,        // too many requests wait
  kNoTraces,    // the trace directory cannot be read
};

[[nodiscard]] std::string_view CodeOf(Failure failure);

// {"code":"QX608","message":"..."}
[[nodiscard]] HttpReply ReplyOf(Failure failure, std::string_view message);

}  // namespace qx::view
