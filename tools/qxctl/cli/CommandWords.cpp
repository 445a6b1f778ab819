#include "tools/qxctl/cli/CommandWords.h"

#include <algorithm>
#include <string>
#include <vector>

#include "tools/qxctl/cli/text/NearNames.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

std::vector<std::string> WordsBelow(Commands commands, const Command& command) {
  std::vector<std::string> words;
  for (const Command* const below : Subcommands(commands, command)) words.emplace_back(LastWord(*below));
  return words;
}

// The commands that can be run and end with one of these words: "report cat".
std::vector<std::string> CommandsThatEndWith(Commands commands, const std::vector<std::string>& last_words) {
  std::vector<std::string> found;
  for (const std::string& word : last_words) {
    for (const Command* const command : ShownCommands(commands)) {
      const bool ends_with_it = command->run != nullptr && LastWord(*command) == word;
      if (ends_with_it && found.size() < 3) found.emplace_back(command->words);
    }
  }
  return found;
}

std::vector<std::string> NearCommands(Commands commands, const Command& command, std::string_view word) {
  std::vector<std::string> near = NearNames(word, WordsBelow(commands, command));
  if (!near.empty() || !command.words.empty()) return near;
  std::vector<std::string> last_words;
  for (const Command* const each : ShownCommands(commands)) last_words.emplace_back(LastWord(*each));
  const bool is_last_word = std::find(last_words.begin(), last_words.end(), word) != last_words.end();
  if (is_last_word) return CommandsThatEndWith(commands, {std::string(word)});
  return CommandsThatEndWith(commands, NearNames(word, last_words));
}

}  // namespace

const Command* FindSubcommand(Commands commands, const Command& command, std::string_view word) {
  const std::string words =
      command.words.empty() ? std::string(word) : std::string(command.words).append(" ").append(word);
  const auto found = std::find_if(commands.begin(), commands.end(),
                                  [&](const Command* each) { return !word.empty() && each->words == words; });
  return found == commands.end() ? nullptr : *found;
}

Status FindCommand(Commands commands, const std::vector<std::string>& words, const Command*& command) {
  command = commands.front();
  for (const std::string& word : words) {
    const Command* const below = FindSubcommand(commands, *command, word);
    const bool is_leaf = command->run != nullptr;
    if (is_leaf)
      return {ExitCode::kUsage, "\"" + word + "\" is one word too many: " + FullName(*command) + " has no commands"};
    if (below == nullptr) return UnknownCommand(commands, *command, word);
    command = below;
  }
  return {};
}

Status UnknownCommand(Commands commands, const Command& command, std::string_view word) {
  const std::string what = (command.words.empty() ? "there is no" : std::string(command.words) + " has no") +
                           " command \"" + Visible(word) + "\"";
  const std::vector<std::string> near = NearCommands(commands, command, word);
  if (!near.empty()) return {ExitCode::kUsage, what + DidYouMean(near)};
  if (command.words.empty())
    return {ExitCode::kUsage, what + "; \"" + std::string(command.program) + " help\" lists the commands"};
  return {ExitCode::kUsage, what + "; give one of " + Listed(WordsBelow(commands, command), "and")};
}

Status MissingCommand(Commands commands, const Command& group) {
  return {ExitCode::kUsage,
          std::string(group.words) + " needs one of its commands: " + Listed(WordsBelow(commands, group), "or")};
}

}  // namespace qx::ctl
