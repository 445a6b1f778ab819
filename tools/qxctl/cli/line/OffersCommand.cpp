#include "tools/qxctl/cli/line/OffersCommand.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Offers.h"
#include "tools/qxctl/cli/line/Parser.h"

namespace qx::ctl {

namespace {

constexpr Parameter kParameters[] = {
    {.name = "NAME", .kind = ValueKind::kText, .help = "A kind of value", .is_required = true},
    {.name = "CURRENT", .kind = ValueKind::kText, .help = "The word to complete"},
    {.name = "WORD", .kind = ValueKind::kText, .help = "A word before it", .is_repeatable = true},
};

// A line of the output cannot contain a control character.
bool CanBeShown(const Offer& offer) {
  const bool has_control =
      std::any_of(offer.word.begin(), offer.word.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
  return !has_control && !offer.word.empty();
}

Values ParsedAsFarAsPossible(const Context& context, std::vector<std::string> words) {
  const bool awaits_value = !words.empty() && words.back().starts_with('-') && words.back() != "--";
  if (awaits_value) words.pop_back();  // with an option without its value, the parser would return no arguments either
  std::vector<const char*> argv = {"qxctl"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  CommandLine line;
  // The line is not complete, so most results are failures.
  (void)ParseCommandLine(context.commands, static_cast<int>(argv.size()), argv.data(), line);
  return std::move(line.values);
}

Status PrintOffers(Context& context, const Values& values) {
  const std::string name = values.Text("NAME");
  const auto source = std::find_if(context.offer_sources.begin(), context.offer_sources.end(),
                                   [&](const OfferSource* each) { return each->name == name; });
  if (source == context.offer_sources.end()) return {};
  const OfferRequest request = {.current = values.Text("CURRENT"),
                                .before = ParsedAsFarAsPossible(context, values.Texts("WORD"))};
  std::string text;
  for (const Offer& offer : (*source)->offers(context, request)) {
    if (CanBeShown(offer)) text += offer.word + (offer.help.empty() ? "" : "\t" + offer.help) + "\n";
  }
  return context.output.Data(text);
}

}  // namespace

constinit const Command kOffersCommand = {
    .words = "_offers", .help = "", .run = PrintOffers, .parameters = {kParameters}, .is_hidden = true};

}  // namespace qx::ctl
