// Finds commands by their words, and writes the message about a word that no command has.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The command one word below `command`, hidden ones included; null if it does not exist.
const Command* FindSubcommand(Commands commands, const Command& command, std::string_view word);

// The command or the group with these words; qxctl itself if there are no words. kUsage if it does not exist.
Status FindCommand(Commands commands, const std::vector<std::string>& words, const Command*& command);

// kUsage for a word that no command below `command` has, with the words that may have been meant. For the first word of
// a line, these include the last words of all commands.
//   "reprot" => did you mean report?     "cat" => did you mean report cat?
Status UnknownCommand(Commands commands, const Command& command, std::string_view word);

// The error for a line with a group but none of its commands (kUsage). The message lists them.
Status MissingCommand(Commands commands, const Command& group);

}  // namespace qx::ctl
