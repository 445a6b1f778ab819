// How the reply of a call differs from the one that was recorded.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qx::ctl {

// `reply` with the values of these attributes, wherever they stand, as "*".
//   <A version="1.2" x="y"/>, version  => <A version="*" x="y"/>
[[nodiscard]] std::string WithoutAttributes(const std::string& reply, const std::vector<std::string>& names);

// Empty when both are the same; else a few lines that show the first difference with what stands around it:
//   reply differs at byte 57, line 2 column 3
//     recorded ...
//     now      ...
[[nodiscard]] std::string ReplyDiff(const std::optional<std::string>& recorded, const std::optional<std::string>& now);

}  // namespace qx::ctl
