// Decides who may request data: checks the token that is printed at the start, and the signed cookie that a browser
// gets for it.
//
//   token    64 hexadecimal digits; valid once, for five minutes
//   cookie   "1.EXPIRY.NONCE.MAC": the time in seconds since 1970 until which it is valid, 16 random digits, and the
//            MAC of "NAME=1.EXPIRY.NONCE" with the key of the state directory
//
// The name of a cookie has the port of the address that the browser uses, because browsers send the cookies of a host
// to all its ports.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/qxview/session/Key.h"

namespace qx::view {

// Threads: one thread.
class Sessions {
 public:
  static constexpr std::int64_t kTokenS = 300;
  static constexpr std::int64_t kSessionS = 30LL * 24 * 3600;

  explicit Sessions(const KeyBytes& key) : key_(key) {}

  // Makes a new token, which replaces the earlier one. Empty: there are no random numbers. [owning thread]
  [[nodiscard]] std::string NewToken(std::int64_t steady_s);
  // Whether this is the token. A token is accepted only once. [owning thread]
  [[nodiscard]] bool TakeToken(std::string_view token, std::int64_t steady_s);

  // The value of a new cookie. Empty: there are no random numbers. [owning thread]
  [[nodiscard]] std::string NewCookie(const std::string& name, std::int64_t wall_s) const;
  // Whether one of the cookies of a header "a=b; c=d" has this name and a valid value. [owning thread]
  [[nodiscard]] bool HasSession(std::string_view cookies, const std::string& name, std::int64_t wall_s) const;

 private:
  [[nodiscard]] bool IsValid(std::string_view value, const std::string& name, std::int64_t wall_s) const;
  [[nodiscard]] std::string Mac(const std::string& name, std::string_view head) const;

  KeyBytes key_;
  std::string token_;  // empty: no token is valid
  std::int64_t token_end_s_ = 0;
};

}  // namespace qx::view
