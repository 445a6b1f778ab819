// The data that every command gets in addition to its values.
#pragma once

#include <span>
#include <string_view>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Offers.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/TraceDirectory.h"

namespace qx::ctl {

struct Context {
  Output output;
  TraceDirectory traces;
  std::span<const Command* const> commands = {};           // all commands, for those that describe qxctl itself
  std::span<const OfferSource* const> offer_sources = {};  // for the completion scripts
  std::string_view version = {};                           // of qxctl
};

}  // namespace qx::ctl
