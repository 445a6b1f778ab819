// Shows the difference between a call's reply and the recorded one.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qx::ctl {

// `reply` with every value of these attributes as "*".
//   <A version="1.2" x="y"/>, version  => <A version="*" x="y"/>
[[nodiscard]] std::string WithoutAttributes(const std::string& reply, const std::vector<std::string>& names);

// Empty if both are equal; otherwise lines that show the first difference and the text around it:
//   reply differs at byte 57, line 2 column 3
//     recorded ...
//     now      ...
[[nodiscard]] std::string ReplyDiff(const std::optional<std::string>& recorded, const std::optional<std::string>& now);

}  // namespace qx::ctl
