// The sources of the values that the tab key offers and a completion script cannot know itself: reports, keys, codes,
// ...
//
// A folder of commands defines an OfferSource for each such kind, and Main.cpp lists them. `qxctl _offers NAME --
// CURRENT WORDS` prints what a source returns. A source prints no messages and does not fail, because nobody expects
// either of the tab key.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

struct Context;

struct Offer {
  std::string word;
  std::string help = {};
};

// The words of the command line. `before` has the values of the command as far as the line could be parsed.
struct OfferRequest {
  std::string current;  // the word to complete
  Values before;

  // The value of a text parameter; empty if the command has no such parameter, or no value is given.
  std::string Text(std::string_view name) const {
    const std::vector<std::string> texts = Texts(name);
    return texts.empty() ? std::string() : texts.front();
  }
  // All values of a text parameter.
  std::vector<std::string> Texts(std::string_view name) const {
    for (const Value& value : before.All()) {
      if (value.parameter->name != name || !value.is_given) continue;
      return value.parameter->is_repeatable ? value.texts : std::vector<std::string>{value.text};
    }
    return {};
  }
};

struct OfferSource {
  std::string_view name;  // "reports" for the kind "@reports" of the scripts
  std::vector<Offer> (*offers)(const Context& context, const OfferRequest& request) = nullptr;
};

}  // namespace qx::ctl
