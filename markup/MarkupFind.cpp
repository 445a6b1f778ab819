// CMarkup's search along element paths.
#include <vector>

#include "markup/Attribute.h"
#include "markup/ElemPosTree.h"
#include "markup/Escape.h"
#include "markup/Markup.h"
#include "markup/Names.h"
#include "markup/PathPos.h"
#include "markup/TreeWalk.h"

namespace {

bool HasAttribute(std::string_view tag, const PathAttribute& wanted, bool ignore_case) {
  qx::markup::AttributePos found;
  if (!qx::markup::FindAttribute(tag, wanted.name, ignore_case, found)) return false;
  if (wanted.any_value) return true;
  std::string value;
  qx::markup::AppendUnescaped(value, tag.substr(found.value_start, found.value_end - found.value_start), 0);
  return value == wanted.value;
}

// How far the search along one step has come.
struct StepSearch {
  std::uint32_t elem;         // the element looked at last; 0: none yet
  std::uint32_t matches = 0;  // so far, for a position predicate
};

}  // namespace

// Depth first along the steps: a step's element is kept while the following steps try all of its children. Every
// element is looked at once a step at most, because only the first step can reach below a parent's own children.
std::uint32_t CMarkup::Find(const PathPos& path, std::uint32_t parent, std::uint32_t after) const {
  if (!path.IsValid()) return 0;
  const std::vector<PathStep>& steps = path.Steps();
  if (path.IsAnyDepth() && after == 0) after = parent;
  if (path.IsAbsolute()) parent = 0;

  std::vector<StepSearch> searches{{path.IsAbsolute() && !path.IsAnyDepth() ? 0 : after}};
  while (!searches.empty()) {
    const std::size_t depth = searches.size() - 1;
    StepSearch& search = searches.back();
    const std::uint32_t above = depth == 0 ? parent : searches[depth - 1].elem;
    const bool whole_tree = depth == 0 && path.IsAnyDepth();
    search.elem = whole_tree ? qx::markup::NextInText(*tree_, search.elem) : NextSibling(above, search.elem);
    if (search.elem == 0) {
      searches.pop_back();
      continue;
    }
    if (!StepMatches(steps[depth], search.elem)) continue;
    if (steps[depth].position != 0 && ++search.matches != steps[depth].position) continue;
    if (depth + 1 == steps.size()) return search.elem;
    searches.push_back({0});
  }
  return 0;
}

std::uint32_t CMarkup::NextSibling(std::uint32_t parent, std::uint32_t elem) const {
  return elem == 0 ? Record(parent).first_child : Record(elem).next;
}

bool CMarkup::StepMatches(const PathStep& step, std::uint32_t elem) const {
  if (!step.name.empty() && !qx::markup::StoredNameMatches(TagName(elem), step.name, IgnoresCase())) return false;
  for (const PathAttribute& attribute : step.attributes) {
    if (!HasAttribute(StartTag(elem), attribute, IgnoresCase())) return false;
  }
  return true;
}
