// Prints the meaning of a code or a trace line, its cause and the action to take.
#include "tools/qxctl/doctor/ExplainCommand.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/doctor/Explanations.h"

namespace qx::ctl {

namespace {

std::string ToText(const Explanation& one) {
  return std::string(NameOf(one.kind)) + " " + std::string(one.code) + "\n  meaning  " + std::string(one.meaning) +
         "\n  cause    " + std::string(one.cause) + "\n  to do    " + std::string(one.action) + "\n";
}

Json ToJson(const std::vector<const Explanation*>& found) {
  Json json = {{"explanations", Json::Array()}};
  for (const Explanation* const one : found) {
    json["explanations"].Append({{"kind", NameOf(one->kind)},
                                 {"code", one->code},
                                 {"meaning", one->meaning},
                                 {"cause", one->cause},
                                 {"action", one->action}});
  }
  return json;
}

// "doctor code QX100 - The module loads and is complete"
std::string ToLine(const Explanation& one) {
  return std::string(NameOf(one.kind)) + " " + std::string(one.code) + " - " + std::string(one.meaning) + "\n";
}

std::string ToText(const std::vector<const Explanation*>& found, bool is_list) {
  std::string text;
  for (const Explanation* const one : found) {
    text += is_list ? ToLine(*one) : ToText(*one);
  }
  return text;
}

Status ExplainAll(Context& context, const Values& values) {
  const std::vector<std::string> words = values.Texts("TEXT");
  const bool is_list = values.Flag("--list");
  if (is_list == !words.empty()) return {ExitCode::kUsage, "give a code or a text, or --list for all"};
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  std::vector<const Explanation*> found;
  if (is_list) {
    for (const Explanation& one : AllExplanations()) found.push_back(&one);
  } else {
    found = Explain(text);
  }
  if (found.empty()) {
    return {ExitCode::kNotFound, "nothing is known about \"" + Visible(text) + "\"; --list shows what is known"};
  }
  return ShowResult(
      context, values, [&] { return ToJson(found); }, [&] { return ToText(found, is_list); });
}

std::vector<Offer> Codes(const Context&, const OfferRequest&) {
  std::vector<Offer> offers;
  for (const Explanation& one : AllExplanations()) {
    if (one.kind == ExplainedKind::kMessage || one.kind == ExplainedKind::kTrace) continue;
    const std::string meaning(one.meaning);
    offers.push_back({std::string(one.code), meaning});
    const char* const name =
        one.kind == ExplainedKind::kErrorNumber ? strerrorname_np(std::stoi(offers.back().word)) : nullptr;
    if (name != nullptr && name != one.code) offers.push_back({name, meaning});
  }
  return offers;
}

constexpr Parameter kParameters[] = {
    {.name = "TEXT",
     .kind = ValueKind::kCode,
     .help = "Result code, error number, exit code, code of doctor or qxview, or line of a trace",
     .is_repeatable = true},
    {.name = "--list", .help = "Print all codes and texts that are known, each with its meaning"},
    {.name = "--json", .help = "Print the explanations as JSON"},
};

constexpr Example kExplainExamples[] = {
    {"qxctl explain 1313", "Explain a number of a reply or a trace"},
    {"qxctl explain QX301", "Explain a finding of qxctl doctor"},
    {"qxctl explain --list", "List everything that can be explained"},
};

}  // namespace

constinit const OfferSource kCodeOffers = {"codes", Codes};

constinit const Command kExplainCommand = {.words = "explain",
                                           .help = "Explain a code or a line of a trace",
                                           .group = kTroubleHeading,
                                           .run = ExplainAll,
                                           .parameters = {kParameters},
                                           .examples = kExplainExamples};

}  // namespace qx::ctl
