// Writes the elements of a document as one line, from the records:  a(b,c!,d?(e))  "!" marks an element without end
// tag, "?" an element with faults inside.
#pragma once

#include <string>
#include <vector>

#include "markup/ElemPosTree.h"
#include "markup/Markup.h"
#include "markup/Names.h"

namespace qx::test {

inline std::string NameOf(const CMarkup& markup, std::uint32_t elem) {
  return std::string(
      qx::markup::LeadingTagName(std::string_view(markup.GetDoc()).substr(markup.Record(elem).start + 1)));
}

inline std::string Outline(const CMarkup& markup) {
  std::string text;
  if (markup.RecordCount() == 0) return text;
  std::uint32_t elem = markup.Record(0).first_child;
  while (elem != 0) {
    const ElemPos& record = markup.Record(elem);
    text += NameOf(markup, elem);
    if (record.Has(kElemNoEnd)) text += '!';
    if (record.Has(kElemUnendedInside)) text += '?';
    if (record.first_child != 0) {
      text += '(';
      elem = record.first_child;
      continue;
    }
    while (elem != 0 && markup.Record(elem).next == 0) {
      elem = markup.Record(elem).parent;
      if (elem != 0) text += ')';
    }
    if (elem == 0) break;
    text += ',';
    elem = markup.Record(elem).next;
  }
  return text;
}

// All records in the order of the text. Two documents with the same records are equal.
inline std::string Records(const CMarkup& markup) {
  std::string text;
  if (markup.RecordCount() == 0) return text;
  std::vector<std::uint32_t> stack{markup.Record(0).first_child};
  while (!stack.empty()) {
    const std::uint32_t elem = stack.back();
    stack.pop_back();
    if (elem == 0) continue;
    const ElemPos& record = markup.Record(elem);
    text += std::to_string(record.start) + "+" + std::to_string(record.length) + "/" +
            std::to_string(record.StartTagLength()) + "/" + std::to_string(record.EndTagLength()) + "@" +
            std::to_string(record.Level()) + (record.Has(kElemNoEnd) ? "! " : " ");
    stack.push_back(record.next);
    stack.push_back(record.first_child);
  }
  return text;
}

}  // namespace qx::test
