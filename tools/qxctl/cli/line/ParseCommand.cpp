#include "tools/qxctl/cli/line/ParseCommand.h"

#include <string>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/line/Parser.h"

namespace qx::ctl {

namespace {

constexpr Parameter kParameters[] = {
    {.name = "WORD", .kind = ValueKind::kText, .help = "A word of the command line", .is_repeatable = true},
};

Status Parse(Context& context, const Values& values) {
  const std::vector<std::string> words = values.Texts("WORD");
  std::vector<const char*> argv = {"qxctl"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  CommandLine line;
  return ParseCommandLine(context.commands, static_cast<int>(argv.size()), argv.data(), line);
}

}  // namespace

constinit const Command kParseCommand = {
    .words = "_parse", .help = "", .run = Parse, .parameters = {kParameters}, .is_hidden = true};

}  // namespace qx::ctl
