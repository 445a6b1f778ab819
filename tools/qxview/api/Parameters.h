// The parameters of a request: hostile texts that become values within limits, or a failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

// Reads parameters one after the other, and keeps the first problem.
//
// Threads: one thread. Borrows the request.
class Parameters {
 public:
  static constexpr std::size_t kTextBytesMax = 512;

  explicit Parameters(const HttpRequest& request) : request_(request) {}

  // Unset if the parameter is missing, or is not an integer, which is a problem. The second form returns `otherwise`
  // for a missing parameter; a number outside the limits is a problem. [owning thread]
  [[nodiscard]] std::optional<std::int64_t> Number(std::string_view name);
  [[nodiscard]] std::int64_t Number(std::string_view name, std::int64_t min, std::int64_t max, std::int64_t otherwise);
  // Empty without the parameter. [owning thread]
  [[nodiscard]] std::string Text(std::string_view name);
  [[nodiscard]] std::vector<std::string> Texts(std::string_view name, std::size_t count_max);

  // The value of a parameter is wrong for another reason. [owning thread]
  void Refuse(std::string_view name, const std::string& why);
  // What is wrong; empty if nothing is. [owning thread]
  [[nodiscard]] const std::string& Problem() const { return problem_; }

 private:
  const HttpRequest& request_;
  std::string problem_;
};

}  // namespace qx::view
