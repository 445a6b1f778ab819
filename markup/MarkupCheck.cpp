// Checks the records of a CMarkup against its text, for tests and fuzzing.
#include <vector>

#include "markup/ElemPosTree.h"
#include "markup/Markup.h"
#include "markup/TreeWalk.h"

namespace {

struct Checker {
  const std::string& text;
  const ElemPosTree& tree;
  std::uint32_t record_count;
  std::string fault;
  std::uint32_t seen = 0;

  // Records only the first fault.
  bool Expect(bool holds, std::uint32_t elem, const char* what) {
    if (!holds && fault.empty()) fault = "element " + std::to_string(elem) + ": " + what;
    return holds;
  }
};

bool CheckTags(Checker& check, std::uint32_t elem) {
  const ElemPos& record = check.tree[elem];
  const std::size_t size = check.text.size();
  const std::size_t tags = std::size_t{record.StartTagLength()} + record.EndTagLength();
  if (!check.Expect(record.start < size && record.length <= size - record.start, elem, "outside of the text"))
    return false;
  if (!check.Expect(record.StartTagLength() >= 3 && tags <= record.length, elem, "tags longer than the element")) {
    return false;
  }
  const std::string_view whole = std::string_view(check.text).substr(record.start, record.length);
  const std::string_view end_tag = whole.substr(whole.size() - record.EndTagLength());
  check.Expect(whole.front() == '<', elem, "does not start with <");
  check.Expect(whole[record.StartTagLength() - 1] == '>', elem, "start tag does not end with >");
  check.Expect(whole.back() == '>', elem, "does not end with >");
  check.Expect(end_tag.empty() || end_tag.substr(0, 2) == "</", elem, "end tag does not start with </");
  const bool slash = whole[record.StartTagLength() - 2] == '/';
  if (end_tag.empty()) {
    check.Expect(record.length == record.StartTagLength() && record.first_child == 0, elem, "content without end tag");
    check.Expect(slash != record.Has(kElemNoEnd), elem, "NoEnd disagrees with the tag");
  } else {
    check.Expect(!slash && !record.Has(kElemNoEnd), elem, "an end tag that the flags exclude");
  }
  return check.fault.empty();
}

bool CheckLinks(Checker& check, std::uint32_t elem) {
  const ElemPos& record = check.tree[elem];
  const auto known = [&check](std::uint32_t index) { return index < check.record_count; };
  if (!check.Expect(known(record.parent) && known(record.first_child) && known(record.next) && known(record.previous),
                    elem, "link to no record")) {
    return false;
  }
  const ElemPos& parent = check.tree[record.parent];
  const std::uint32_t expected_level = record.parent == 0 ? 0 : parent.Level() + 1;
  check.Expect(record.Level() == (expected_level > ElemPos::kLevelMax ? ElemPos::kLevelMax : expected_level), elem,
               "wrong level");
  check.Expect(record.Has(kElemFirst) == (parent.first_child == elem), elem, "kElemFirst in the wrong place");
  const std::uint32_t after = record.next != 0 ? record.next : parent.first_child;
  check.Expect(check.tree[after].previous == elem, elem, "ring of siblings broken");
  if (record.next != 0) {
    check.Expect(check.tree[record.next].parent == record.parent, elem, "next sibling has another parent");
    check.Expect(check.tree[record.next].start >= record.End(), elem, "overlaps its next sibling");
  }
  if (record.first_child != 0) {
    const ElemPos& first = check.tree[record.first_child];
    check.Expect(first.parent == elem, elem, "first child has another parent");
    check.Expect(first.start >= record.ContentStart(), elem, "first child starts too early");
    if (!check.Expect(known(first.previous), elem, "ring of children broken")) return false;
    check.Expect(check.tree[first.previous].End() <= record.ContentEnd(), elem, "last child ends too late");
  }
  return check.fault.empty();
}

// The length of the list of released records. The count stops at the number of records, in case the list is a loop.
std::uint32_t CountReleased(const Checker& check, std::uint32_t head) {
  std::uint32_t count = 0;
  for (std::uint32_t i = head; i != 0 && i < check.record_count && count < check.record_count; i = check.tree[i].next) {
    ++count;
  }
  return count;
}

bool IsChildOf(const ElemPosTree& tree, std::uint32_t elem, std::uint32_t parent) {
  return elem == 0 || tree[elem].parent == parent;
}

}  // namespace

bool CMarkup::CheckInvariants(std::string* why) const {
  if (next_unused_ == 0) {
    const bool holds = document_.empty() && parent_position_ == 0 && main_position_ == 0 && child_position_ == 0;
    if (!holds && why != nullptr) *why = "text or position without records";
    return holds;
  }
  Checker check{document_, *tree_, next_unused_, {}};
  const ElemPos& holder = (*tree_)[0];
  check.Expect(holder.start == 0 && holder.parent == 0 && holder.next == 0, 0, "record 0 has links");
  const bool too_long = document_.size() > UINT32_MAX;
  check.Expect(too_long ? holder.first_child == 0 : holder.length == document_.size(), 0, "wrong document length");
  for (std::uint32_t elem = holder.first_child; elem != 0; elem = qx::markup::NextInText(*tree_, elem)) {
    if (!check.Expect(++check.seen < next_unused_, elem, "links form a loop")) break;
    if (!CheckLinks(check, elem) || !CheckTags(check, elem)) break;
  }
  check.Expect(check.seen + CountReleased(check, free_list_) + 1 == next_unused_, 0, "records lost");
  check.Expect(next_unused_ <= static_cast<std::uint32_t>(tree_->Capacity()), 0, "more records than the capacity");
  check.Expect(IsChildOf(*tree_, main_position_, parent_position_), main_position_, "main position has another parent");
  check.Expect(IsChildOf(*tree_, child_position_, main_position_), child_position_,
               "child position has another parent");
  if (why != nullptr && !check.fault.empty()) *why = check.fault;
  return check.fault.empty();
}
