// Internal: the parts of the table of explanations.
#pragma once

#include <span>

#include "tools/qxctl/doctor/Explanations.h"

namespace qx::ctl {

std::span<const Explanation> CodeExplanations();
std::span<const Explanation> FindingExplanations();
std::span<const Explanation> MessageExplanations();
std::span<const Explanation> TraceExplanations();
std::span<const Explanation> ViewExplanations();

}  // namespace qx::ctl
