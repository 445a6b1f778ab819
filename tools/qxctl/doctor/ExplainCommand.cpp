// qxctl explain: what a code or a trace line means, why it comes and what to do.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Commands.h"
#include "tools/qxctl/cli/Text.h"
#include "tools/qxctl/doctor/Explanations.h"

namespace qx::ctl {

namespace {

struct Options {
  std::vector<std::string> words;
  bool list = false;
  bool json = false;
};

std::string ToText(const Explanation& one) {
  return std::string(NameOf(one.kind)) + " " + std::string(one.code) + "\n  meaning  " + std::string(one.meaning) +
         "\n  cause    " + std::string(one.cause) + "\n  to do    " + std::string(one.action) + "\n";
}

Json ToJson(const std::vector<const Explanation*>& found) {
  Json json = {{"explanations", Json::array()}};
  for (const Explanation* const one : found) {
    json["explanations"].push_back({{"kind", NameOf(one->kind)},
                                    {"code", one->code},
                                    {"meaning", one->meaning},
                                    {"cause", one->cause},
                                    {"action", one->action}});
  }
  return json;
}

Status Show(Context& context, const Options& options, const std::vector<const Explanation*>& found) {
  if (options.json) return context.output.Document(ToJson(found));
  std::string text;
  for (const Explanation* const one : found) {
    text += options.list ? std::string(NameOf(one->kind)) + " " + std::string(one->code) + "\n" : ToText(*one);
  }
  return context.output.Data(text);
}

Status ExplainAll(Context& context, const Options& options) {
  if (options.list == !options.words.empty()) return {ExitCode::kUsage, "give a code or a text, or --list for all"};
  std::string text;
  for (const std::string& word : options.words) text += (text.empty() ? "" : " ") + word;
  std::vector<const Explanation*> found;
  if (options.list) {
    for (const Explanation& one : AllExplanations()) found.push_back(&one);
  } else {
    found = Explain(text);
  }
  if (found.empty()) {
    return {ExitCode::kNotFound, "nothing is known about \"" + Visible(text) + "\"; --list shows what is"};
  }
  return Show(context, options, found);
}

}  // namespace

void AddExplainCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand("explain", "Explain a code or a line of a trace");
  command.add_option("TEXT", options->words, "Result code, error number, exit code, doctor code or trace line");
  command.add_flag("--list", options->list, "Print all codes and texts that are known");
  command.add_flag("--json", options->json, "Print the explanations as JSON");
  command.callback(
      [&context, options] { context.run = [&context, options] { return ExplainAll(context, *options); }; });
}

}  // namespace qx::ctl
