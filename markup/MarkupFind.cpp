// Searches for elements by path: a part of CMarkup.
#include <vector>

#include "markup/Ascii.h"
#include "markup/Attribute.h"
#include "markup/ElemPosTree.h"
#include "markup/Escape.h"
#include "markup/Markup.h"
#include "markup/Names.h"
#include "markup/PathPos.h"
#include "markup/TreeWalk.h"

using qx::markup::IsClass;
using qx::markup::kStoredEnd;

namespace {

bool HasAttribute(std::string_view tag, const PathAttribute& requested, bool ignore_case) {
  qx::markup::AttributePos found;
  if (!qx::markup::FindAttribute(tag, requested.name, ignore_case, found)) return false;
  if (requested.any_value) return true;
  std::string value;
  qx::markup::AppendUnescaped(value, tag.substr(found.value_start, found.value_end - found.value_start), 0);
  return value == requested.value;
}

// The state of the search for one step of a path.
struct StepSearch {
  std::uint32_t elem;         // the element that was checked last; 0: no element yet
  std::uint32_t matches = 0;  // the number of elements that have matched, for a position such as [2]
};

}  // namespace

std::uint32_t CMarkup::Find(MCD_CSTR path, std::uint32_t parent, std::uint32_t after) const {
  if (path == nullptr) return NextSibling(parent, after);
  const char* name_end = path;
  while (!IsClass(*name_end, kStoredEnd)) ++name_end;
  if (*name_end != '\0') return FindAlong(PathPos(path), parent, after);
  return FindSibling({path, static_cast<std::size_t>(name_end - path)}, parent, after);
}

// Finds the next sibling with this name, or with any name if `name` is empty. Nearly every search is of this kind.
std::uint32_t CMarkup::FindSibling(std::string_view name, std::uint32_t parent, std::uint32_t after) const {
  std::uint32_t elem = NextSibling(parent, after);
  if (name.empty()) return elem;
  while (elem != 0 && !qx::markup::StoredNameMatches(TagName(elem), name, IgnoresCase())) elem = Record(elem).next;
  return elem;
}

// A depth-first search along the steps: a step's element is kept while the following steps try all of its children.
// Each element is checked at most once per step, because only the first step can search in more than the children of
// one element.
std::uint32_t CMarkup::FindAlong(const PathPos& path, std::uint32_t parent, std::uint32_t after) const {
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
