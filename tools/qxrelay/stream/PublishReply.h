// What the server's answer to a publish means.
//
//   {"stream":"QX","seq":7}                                       => kStored, 7
//   {"error":{"code":400,"err_code":10071,"description":"..."}}   => kWrongLast
//   {"error":{"code":503,"err_code":10077,"description":"..."}}   => kRefused
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/qxrelay/stream/Stream.h"

namespace qx::relay {

// Bytes that are no such answer count as a refusal, which is tried again. [any thread]
[[nodiscard]] StreamReply ReplyToPublish(std::uint64_t token, std::string_view answer);

}  // namespace qx::relay
