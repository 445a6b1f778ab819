// Reads the parameters of a request. They are hostile texts: each becomes a value within limits, or the request fails.
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

  // The integer of a parameter; unset if it is missing. A text that is not an integer is a problem. The second form
  // returns `otherwise` if the parameter is missing; for it, a number outside the limits is a problem, too. [owning
  // thread]
  [[nodiscard]] std::optional<std::int64_t> Number(std::string_view name);
  [[nodiscard]] std::int64_t Number(std::string_view name, std::int64_t min, std::int64_t max, std::int64_t otherwise);
  // The text of a parameter; empty if it is missing. [owning thread]
  [[nodiscard]] std::string Text(std::string_view name);
  [[nodiscard]] std::vector<std::string> Texts(std::string_view name, std::size_t count_max);

  // Records a problem: the value of this parameter is wrong for another reason. [owning thread]
  void Refuse(std::string_view name, const std::string& why);
  // The first problem; empty if there is no problem. [owning thread]
  [[nodiscard]] const std::string& Problem() const { return problem_; }

 private:
  const HttpRequest& request_;
  std::string problem_;
};

}  // namespace qx::view
