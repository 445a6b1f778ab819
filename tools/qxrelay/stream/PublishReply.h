// Reads the server's answer to a publish.
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

// Other bytes count as a refusal; the message is then sent again. [any thread]
[[nodiscard]] StreamReply ReplyToPublish(std::uint64_t token, std::string_view answer);

}  // namespace qx::relay
