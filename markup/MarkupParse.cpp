// Parses documents: a part of CMarkup. Makes records from the scanner's nodes, and repairs the structure if tags are
// missing or in the wrong order.
#include <algorithm>
#include <utility>

#include "markup/ElemPosTree.h"
#include "markup/ElemStack.h"
#include "markup/Limits.h"
#include "markup/Markup.h"
#include "markup/Results.h"
#include "markup/TokenPos.h"
#include "markup/TreeWalk.h"

using qx::markup::AddResult;
using qx::markup::Result;

namespace {

constexpr std::uint32_t Low32(std::size_t value) { return static_cast<std::uint32_t>(value); }

// The result that describes a fault of the scanner.
Result ResultFor(SyntaxFault fault, std::size_t offset) {
  switch (fault) {
    case SyntaxFault::kFirstTag:
      return {.name = "first_tag_syntax", .offset = offset};
    case SyntaxFault::kExclamation:
      return {.name = "exclamation_tag_syntax", .offset = offset};
    case SyntaxFault::kDocType:
      return {.name = "doctype_tag_syntax", .offset = offset};
    case SyntaxFault::kComment:
      return {.name = "comment_tag_syntax", .offset = offset};
    case SyntaxFault::kCData:
      return {.name = "cdata_section_syntax", .offset = offset};
    case SyntaxFault::kStartTagSize:
      return {.name = "record_limit", .value = "start tag", .offset = offset, .value_name = "type"};
    case SyntaxFault::kEndTagSize:
      return {.name = "record_limit", .value = "end tag", .offset = offset, .value_name = "type"};
    case SyntaxFault::kNameSize:
      return {.name = "record_limit", .value = "tag name", .offset = offset, .value_name = "type"};
    default:
      return {.name = "unterminated_tag_syntax", .offset = offset};
  }
}

}  // namespace

struct CMarkup::ParseState {
  explicit ParseState(CMarkup& markup)
      : doc(markup), tree(*markup.tree_), token(markup.document_, markup.IgnoresCase()), open(markup.IgnoresCase()) {}

  void ParseElem();
  std::uint32_t CurrentParent() const { return open.Depth() == 0 ? 0 : open.Top().elem; }
  void AddElement(bool empty);
  void CloseElement();
  void CloseUnended(std::size_t depth, std::size_t expected_at);
  void MoveChildrenAfter(std::uint32_t elem, std::uint32_t parent);
  void NoteFault(const Result& result);
  void SetLevels();

  CMarkup& doc;
  ElemPosTree& tree;
  TokenPos token;
  ElemStack open;
  bool too_deep = false;
  bool moved = false;  // elements were moved out of unended ones, so all levels must be set again
};

void CMarkup::ParseState::ParseElem() {
  for (;;) {
    switch (token.ParseNode()) {
      case NodeType::kStartTag:
        AddElement(false);
        break;
      case NodeType::kEmptyTag:
        AddElement(true);
        break;
      case NodeType::kEndTag:
        CloseElement();
        break;
      case NodeType::kFault:
        NoteFault(ResultFor(token.fault, token.start));
        break;
      case NodeType::kEnd:
        if (open.Depth() != 0) CloseUnended(0, token.end);
        return;
      default:
        break;
    }
  }
}

void CMarkup::ParseState::AddElement(bool empty) {
  doc.ReserveRecord();
  const std::uint32_t elem = doc.TakeRecord();
  const std::uint32_t parent = CurrentParent();
  if (open.Depth() > ElemPos::kLevelMax && !too_deep) {
    too_deep = true;
    NoteFault({.name = "record_limit", .value = "depth", .offset = token.start, .value_name = "type"});
  }
  const std::uint32_t tag_length = Low32(token.end - token.start);
  tree[elem] = {.start = Low32(token.start),
                .length = tag_length,
                .tag_lengths = tag_length,
                .level_and_flags = std::min(Low32(open.Depth()), ElemPos::kLevelMax),
                .parent = parent,
                .first_child = 0,
                .next = 0,
                .previous = 0};
  if (const std::uint32_t last = qx::markup::LastChild(tree, parent); last != 0) {
    qx::markup::LinkAfter(tree, last, elem);
  } else {
    qx::markup::LinkFirst(tree, parent, elem);
  }
  if (empty) return;
  open.Push(token.name, elem);
  token.expected_name = token.name;
}

void CMarkup::ParseState::CloseElement() {
  const bool is_expected = token.name.data() == token.expected_name.data();
  const std::size_t depth = is_expected ? open.Depth() - 1 : open.FindInnermost(token.name);
  if (depth == ElemStack::kNone) {
    NoteFault({.name = "lone_end_tag", .value = token.name, .offset = token.start});
    return;
  }
  if (depth + 1 < open.Depth()) CloseUnended(depth + 1, token.start + 1);
  ElemPos& record = tree[open.Top().elem];
  record.length = Low32(token.end) - record.start;
  record.SetTagLengths(record.StartTagLength(), Low32(token.end - token.start));
  open.Pop();
  token.expected_name = open.Depth() == 0 ? std::string_view() : open.Top().Name();
}

// Closes the open elements from `depth` on; none of them has an end tag. They and their children become siblings, in
// the order of the text:
//   <m><a><x/><b><y/></m>   =>   the children of m are a, x, b, y
// Each element gets its final parent at once, so the time to repair a whole document is linear.
void CMarkup::ParseState::CloseUnended(std::size_t depth, std::size_t expected_at) {
  if (depth >= open.Depth()) return;
  const std::uint32_t parent = depth == 0 ? 0 : open[depth - 1].elem;
  for (std::size_t i = open.Depth(); i-- > depth;) {
    const OpenTag& tag = open[i];
    const Result result = {
        .name = "unended_start_tag", .value = tag.Name(), .offset = tree[tag.elem].start, .offset2 = expected_at};
    if (!AddResult(doc.result_, result)) break;
  }
  for (std::size_t i = depth; i < open.Depth(); ++i) MoveChildrenAfter(open[i].elem, parent);
  while (open.Depth() > depth) open.Pop();
  tree[0].Set(kElemIllFormed);
  moved = true;
}

// Marks `elem` as unended and makes its children its following siblings. It must be the last child of `parent`.
void CMarkup::ParseState::MoveChildrenAfter(std::uint32_t elem, std::uint32_t parent) {
  ElemPos& record = tree[elem];
  record.Set(kElemNoEnd);
  if (record.Has(kElemUnendedInside)) tree[parent].Set(kElemUnendedInside);
  record.Clear(kElemUnendedInside);

  const std::uint32_t first = std::exchange(record.first_child, 0);
  if (first == 0) return;
  const std::uint32_t last = std::exchange(tree[first].previous, elem);
  tree[first].Clear(kElemFirst);
  record.next = first;
  for (std::uint32_t child = first; child != 0; child = tree[child].next) tree[child].parent = parent;
  tree[tree[parent].first_child].previous = last;
}

void CMarkup::ParseState::NoteFault(const Result& result) {
  tree[0].Set(kElemIllFormed);
  tree[CurrentParent()].Set(kElemUnendedInside);
  AddResult(doc.result_, result);
}

void CMarkup::ParseState::SetLevels() {
  for (std::uint32_t elem = qx::markup::NextInText(tree, 0); elem != 0; elem = qx::markup::NextInText(tree, elem)) {
    const std::uint32_t parent = tree[elem].parent;
    tree[elem].SetLevel(parent == 0 ? 0 : std::min(tree[parent].Level() + 1, ElemPos::kLevelMax));
  }
}

// Parses document_. If memory runs out, the document becomes empty.
bool CMarkup::x_ParseDoc() {
  SetPosition(0, 0, 0);
  result_.clear();
  next_unused_ = 0;
  try {
    InitRecords();
    if (!document_.empty()) ParseText();
  } catch (...) {
    ClearRecords();
    document_.clear();
    throw;
  }
  return IsWellFormed();
}

void CMarkup::InitRecords() {
  if (!tree_) tree_ = std::make_unique<ElemPosTree>();
  tree_->Grow(static_cast<std::int64_t>(std::min(document_.size(), qx::markup::kDocumentBytesMax) / 64 + 8));
  free_list_ = 0;
  next_unused_ = 1;
  (*tree_)[0] = {};
}

void CMarkup::ParseText() {
  if (!qx::markup::DocumentFits(document_.size())) {
    (*tree_)[0].Set(kElemIllFormed);
    AddResult(result_, {.name = "record_limit", .value = "document", .offset = 0, .value_name = "type"});
    return;
  }
  ParseState state(*this);
  state.ParseElem();
  if (state.moved) state.SetLevels();

  ElemPos& holder = (*tree_)[0];
  holder.length = Low32(document_.size());
  if (holder.first_child == 0) {
    AddResult(result_, {.name = "no_root_element"});
  } else if (Record(holder.first_child).next != 0) {
    AddResult(result_, {.name = "root_has_sibling"});
  }
}

void CMarkup::ClearRecords() {
  SetPosition(0, 0, 0);
  next_unused_ = 0;
  free_list_ = 0;
  tree_.reset();
}

// Ensures that the next TakeRecord does not have to allocate.
void CMarkup::ReserveRecord() {
  if (free_list_ != 0 || next_unused_ < static_cast<std::uint32_t>(tree_->Capacity())) return;
  tree_->Grow(std::int64_t{next_unused_} + next_unused_ / 2);
}

std::uint32_t CMarkup::TakeRecord() {
  if (free_list_ != 0) return std::exchange(free_list_, Record(free_list_).next);
  return next_unused_++;
}

void CMarkup::ReleaseRecord(std::uint32_t index) {
  (*tree_)[index] = {};
  (*tree_)[index].next = std::exchange(free_list_, index);
}
