// Changes documents: a part of CMarkup. Each change replaces a part of the text and then adjusts the records of the
// elements after and around it.
#include <algorithm>
#include <charconv>
#include <span>
#include <utility>

#include "markup/Ascii.h"
#include "markup/Attribute.h"
#include "markup/ElemPosTree.h"
#include "markup/Escape.h"
#include "markup/Limits.h"
#include "markup/Markup.h"
#include "markup/Names.h"
#include "markup/Pieces.h"
#include "markup/TreeWalk.h"

using qx::markup::Pieces;

namespace {

constexpr std::size_t kMuchTextBytes = 4096;
constexpr std::size_t kShortTailBytes = 1024;
constexpr std::size_t kFirstCapacityBytes = 255;  // of a new document; most replies fit

// The decimal form of a number.
class Decimal {
 public:
  explicit Decimal(int number) : end_(std::to_chars(digits_, std::end(digits_), number).ptr) {}
  operator std::string_view() const { return {digits_, static_cast<std::size_t>(end_ - digits_)}; }

 private:
  char digits_[12];
  const char* end_;
};

std::string_view ViewOf(MCD_CSTR text) { return text == nullptr ? std::string_view() : std::string_view(text); }

// A difference of offsets is an unsigned 32-bit number that wraps, so adding it moves an offset in either direction.
constexpr std::uint32_t Low32(std::size_t value) { return static_cast<std::uint32_t>(value); }

// Adds the text, escaped. `escaped` may get the escaped text, of which the pieces are then views; so it must live as
// long as the pieces.
void AddEscapedText(Pieces& pieces, std::string_view text, int flags, std::string& escaped) {
  if (qx::markup::AddEscaped(pieces, text, flags)) return;
  if (!qx::markup::NeedsEscape(text, flags)) return pieces.Add(text);
  qx::markup::AppendEscaped(escaped, text, flags);
  pieces.Add(escaped);
}

void AddData(Pieces& pieces, std::string_view data, int flags, std::string& escaped) {
  if ((flags & CMarkup::kAddCData) != 0) return qx::markup::AppendCDataPieces(pieces, data);
  AddEscapedText(pieces, data, flags, escaped);
}

// An attribute to be set.
struct NewAttribute {
  std::string_view name;
  std::string_view value;
  int flags;
  bool is_number;  // the value needs no escaping
};

// A change within a start tag.
struct TagChange {
  std::size_t at = 0;  // offset in the tag
  std::size_t removed = 0;
  Pieces pieces;
  std::string escaped;
};

void AddValue(TagChange& change, const NewAttribute& attribute) {
  if (attribute.is_number) return change.pieces.Add(attribute.value);
  AddEscapedText(change.pieces, attribute.value, attribute.flags | CMarkup::kEscapeQuotes, change.escaped);
}

// Where the new value is written in the start tag:
//   <a n="1">  =>  between the quotes      <a n=1>  =>  replaces the old one, with quotes
//   <a n>      =>  ="v" after the name     <a>      =>  ` n="v"` before the ">" or "/>"
void PlaceAttribute(TagChange& change, std::string_view tag, const NewAttribute& attribute, bool ignore_case) {
  qx::markup::AttributePos old;
  if (!qx::markup::FindAttribute(tag, attribute.name, ignore_case, old)) {
    change.at = qx::markup::TagClosingOffset(tag);
    change.pieces.Add(" ", attribute.name, "=\"");
    AddValue(change, attribute);
    change.pieces.Add("\"");
    return;
  }
  change.at = old.value_start;
  change.removed = old.value_end - old.value_start;
  if (!old.HasValue()) change.pieces.Add("=");
  if (!old.quoted) change.pieces.Add("\"");
  AddValue(change, attribute);
  if (!old.quoted) change.pieces.Add("\"");
}

// Adds the text of new attributes, ` a="1" b="2"`. False if two names are equal, a name is not valid, or a value might
// not fit into the buffer of the pieces; then the pieces must not be used.
bool AddNewAttributes(Pieces& pieces, std::span<const CMarkup::AttributeText> attributes, int flags, bool ignore_case) {
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    const std::string_view name = ViewOf(attributes[i].name);
    if (!qx::markup::IsAttributeName(name)) return false;
    for (std::size_t earlier = 0; earlier < i; ++earlier) {
      if (qx::markup::SameName(attributes[earlier].name, name, ignore_case)) return false;
    }
    pieces.Add(" ", name, "=\"");
    if (!qx::markup::AddEscaped(pieces, ViewOf(attributes[i].value), flags | CMarkup::kEscapeQuotes)) return false;
    pieces.Add("\"");
  }
  return true;
}

bool HasNoAttributes(std::string_view tag) {
  return 1 + qx::markup::NameInStartTag(tag).size() == qx::markup::TagClosingOffset(tag);
}

}  // namespace

bool CMarkup::SetAttrib(MCD_CSTR name, MCD_CSTR value, int flags) {
  return SetAttributeOf(main_position_, name, ViewOf(value), flags);
}

bool CMarkup::SetAttrib(MCD_CSTR name, int value, int flags) {
  return SetAttributeOf(main_position_, name, Decimal(value), flags, true);
}

bool CMarkup::SetChildAttrib(MCD_CSTR name, MCD_CSTR value, int flags) {
  return SetAttributeOf(child_position_, name, ViewOf(value), flags);
}

bool CMarkup::SetChildAttrib(MCD_CSTR name, int value, int flags) {
  return SetAttributeOf(child_position_, name, Decimal(value), flags, true);
}

bool CMarkup::SetAttributeOf(std::uint32_t elem, MCD_CSTR name, std::string_view value, int flags, bool is_number) {
  if (elem == 0 || name == nullptr || !qx::markup::IsAttributeName(name)) return false;
  const std::string_view tag = StartTag(elem);
  TagChange change;
  PlaceAttribute(change, tag, {name, value, flags, is_number}, IgnoresCase());
  return ChangeTag(elem, change.at, change.removed, change.pieces);
}

// If the element has no attributes yet, all of them are inserted at once.
bool CMarkup::SetAttribs(std::span<const AttributeText> attributes, int flags) {
  if (main_position_ == 0) return attributes.empty();
  if (const std::string_view tag = StartTag(main_position_); HasNoAttributes(tag)) {
    Pieces pieces;
    if (AddNewAttributes(pieces, attributes, flags, IgnoresCase()) &&
        ChangeTag(main_position_, qx::markup::TagClosingOffset(tag), 0, pieces)) {
      return true;
    }
  }
  return SetAttribsSingly(attributes, flags);
}

bool CMarkup::SetAttribsSingly(std::span<const AttributeText> attributes, int flags) {
  bool all_set = true;
  for (const AttributeText& attribute : attributes) {
    all_set = SetAttributeOf(main_position_, attribute.name, ViewOf(attribute.value), flags) && all_set;
  }
  return all_set;
}

// Replaces `removed` bytes of the start tag, `at` bytes after its "<", by the pieces.
bool CMarkup::ChangeTag(std::uint32_t elem, std::size_t at, std::size_t removed, Pieces& pieces) {
  ElemPos& record = (*tree_)[elem];
  const std::size_t added = pieces.Bytes();
  if (!qx::markup::StartTagFits(record.StartTagLength() - removed + added)) return false;
  if (!qx::markup::DocumentFits(document_.size(), removed, added)) return false;

  Splice(record.start + at, removed, pieces);
  const std::uint32_t delta = Low32(added - removed);
  record.SetTagLengths(record.StartTagLength() + delta, record.EndTagLength());
  record.length += delta;
  ShiftSiblings(record.first_child, delta);
  Shift(elem, delta);
  return true;
}

bool CMarkup::SetData(MCD_CSTR text, int flags) { return SetDataOf(main_position_, ViewOf(text), flags); }

bool CMarkup::SetData(std::string_view text, int flags) { return SetDataOf(main_position_, text, flags); }

bool CMarkup::SetChildData(MCD_CSTR text, int flags) { return SetDataOf(child_position_, ViewOf(text), flags); }

bool CMarkup::SetChildData(std::string_view text, int flags) { return SetDataOf(child_position_, text, flags); }

// The part of the text that new data replaces:
//   <a>|text|</a>   =>  the text between the tags
//   <a n="1"|/>|    =>  the "/>"; the element gets an end tag
struct CMarkup::DataPlace {
  std::size_t at;
  std::size_t removed;
  std::size_t slashes;      // number of "/" at the end of an empty element; 0 for any other
  std::string_view opened;  // written before the data
  std::string end_tag;      // written after the data
};

bool CMarkup::MayHaveData(std::uint32_t elem) const {
  return elem != 0 && Record(elem).first_child == 0 && !Record(elem).Has(kElemNoEnd);
}

CMarkup::DataPlace CMarkup::PlaceOfData(std::uint32_t elem) const {
  const ElemPos& record = Record(elem);
  if (!record.IsEmptyElement()) {
    return {record.ContentStart(), record.ContentEnd() - record.ContentStart(), 0, {}, {}};
  }
  const std::size_t slashes = TrailingSlashes(elem);
  std::string end_tag = "</";
  end_tag.append(TagName(elem)).append(">");
  return {record.End() - slashes - 1, slashes + 1, slashes, ">", std::move(end_tag)};
}

bool CMarkup::SetDataOf(std::uint32_t elem, std::string_view text, int flags) {
  if (!MayHaveData(elem)) return false;
  const DataPlace place = PlaceOfData(elem);
  Pieces pieces;
  std::string escaped;
  pieces.Add(place.opened);
  AddData(pieces, text, flags, escaped);
  pieces.Add(place.end_tag);
  if (!qx::markup::DocumentFits(document_.size(), place.removed, pieces.Bytes())) return false;

  Splice(place.at, place.removed, pieces);
  CommitData(elem, place, pieces.Bytes());
  return true;
}

// Adjusts the records after the text has changed: `added` bytes have replaced the removed ones.
void CMarkup::CommitData(std::uint32_t elem, const DataPlace& place, std::size_t added) {
  ElemPos& record = (*tree_)[elem];
  if (place.slashes != 0) {
    record.SetTagLengths(record.StartTagLength() - Low32(place.slashes), Low32(place.end_tag.size()));
  }
  record.Clear(kElemUnendedInside);
  record.length += Low32(added - place.removed);
  Shift(elem, Low32(added - place.removed));
}

bool CMarkup::SetCDataBy(const DataWriter& write) {
  if (!MayHaveData(main_position_)) return false;
  const DataPlace place = PlaceOfData(main_position_);
  const std::string rest = document_.substr(place.at);
  bool fits = false;
  try {
    document_.resize(place.at);
    document_.append(place.opened).append(qx::markup::kCDataStart);
    const std::size_t data_at = document_.size();
    if (write(document_)) qx::markup::SplitCDataEnds(document_, data_at);
    document_.append(qx::markup::kCDataEnd).append(place.end_tag).append(rest, place.removed);
    fits = qx::markup::DocumentFits(document_.size());
  } catch (...) {
    document_.replace(place.at, std::string::npos, rest);  // cannot fail: the capacity was large enough before
    throw;
  }
  if (!fits) {
    document_.replace(place.at, std::string::npos, rest);
    return false;
  }
  CommitData(main_position_, place, document_.size() - place.at - (rest.size() - place.removed));
  return true;
}

bool CMarkup::AddElem(MCD_CSTR name, MCD_CSTR data, int flags) {
  if ((flags & kAddChild) != 0) return AddChildElem(name, data, flags);
  const std::uint32_t elem = Insert(parent_position_, main_position_, ViewOf(name), ViewOf(data), flags);
  if (elem == 0) return false;
  SetPosition(parent_position_, elem, 0);
  return true;
}

bool CMarkup::AddChildElem(MCD_CSTR name, MCD_CSTR data, int flags) {
  if (main_position_ == 0) return false;
  const std::uint32_t elem = Insert(main_position_, child_position_, ViewOf(name), ViewOf(data), flags);
  if (elem == 0) return false;
  SetPosition(parent_position_, main_position_, elem);
  return true;
}

// A new element to be inserted.
struct CMarkup::Insertion {
  std::uint32_t parent = 0;
  std::uint32_t previous = 0;
  std::string_view line;    // a line feed, or empty with kAddNoLines
  std::size_t at = 0;       // where the text changes
  std::size_t removed = 0;  // the "/>" of an empty parent
  std::string parent_name;  // of an empty parent, for its new end tag
  Pieces pieces;            // the new text
  std::size_t lead = 0;     // bytes of the new text before the element
  std::size_t length = 0;   // of the element
  std::size_t start_tag_length = 0;
  std::size_t end_tag_length = 0;
  std::string escaped;
};

std::uint32_t CMarkup::Insert(std::uint32_t parent, std::uint32_t previous, std::string_view name,
                              std::string_view data, int flags) {
  if (!qx::markup::IsTagName(name) || !qx::markup::TagNameFits(name.size())) return 0;
  if ((flags & kAddNoEnd) != 0 && !data.empty()) return 0;
  if (next_unused_ == 0) InitRecords();
  if (parent != 0 && (Record(parent).Has(kElemNoEnd) || Record(parent).Level() == ElemPos::kLevelMax)) return 0;

  Insertion insertion;
  insertion.parent = parent;
  insertion.previous = previous != 0 ? previous : qx::markup::LastChild(*tree_, parent);
  insertion.line = (flags & kAddNoLines) != 0 ? "" : "\n";
  PlaceInsertion(insertion);
  WriteElement(insertion, name, data, flags);
  insertion.pieces.Add(insertion.line);
  if (insertion.removed != 0) insertion.pieces.Add("</", insertion.parent_name, ">");

  if (!qx::markup::DocumentFits(document_.size(), insertion.removed, insertion.pieces.Bytes())) return 0;
  const std::uint32_t elem = CommitInsertion(insertion);
  if ((flags & kAddNoEnd) != 0) {
    (*tree_)[elem].Set(kElemNoEnd);
    (*tree_)[0].Set(kElemIllFormed);  // as a parse of this text would do
  }
  return elem;
}

// Where a new element is inserted:
//   after a sibling and the white space that follows it            <p><a/> |</p>
//   as first child of an empty element, which gets an end tag      <p/>   =>  <p>(line feed)|</p>
//   as first child of another element, after its start tag         <p>|text</p>
//   as first element of the document, at the end of the text       <?xml version="1.0"?>|
void CMarkup::PlaceInsertion(Insertion& insertion) const {
  if (insertion.previous != 0) {
    insertion.at = Record(insertion.previous).End();
    while (insertion.at < document_.size() && qx::markup::IsClass(document_[insertion.at], qx::markup::kWhite)) {
      ++insertion.at;
    }
    return;
  }
  const ElemPos& parent = Record(insertion.parent);
  if (insertion.parent == 0) {
    insertion.at = document_.size();
  } else if (!parent.IsEmptyElement()) {
    insertion.at = parent.ContentStart();
  } else {
    insertion.removed = TrailingSlashes(insertion.parent) + 1;
    insertion.at = parent.End() - insertion.removed;
    insertion.parent_name = TagName(insertion.parent);
    insertion.pieces.Add(">", insertion.line);
    insertion.lead = 1 + insertion.line.size();
  }
}

//   <a/>   <a />   <a>   <a>data</a>
void CMarkup::WriteElement(Insertion& insertion, std::string_view name, std::string_view data, int flags) {
  Pieces& pieces = insertion.pieces;
  if (data.empty()) {
    const std::string_view space_slash = (flags & kAddSpaceSlash) != 0 ? " />" : "/>";
    const std::string_view closing = (flags & kAddNoEnd) != 0 ? ">" : space_slash;
    pieces.Add("<", name, closing);
    insertion.start_tag_length = 1 + name.size() + closing.size();
  } else {
    pieces.Add("<", name, ">");
    AddData(pieces, data, flags, insertion.escaped);
    pieces.Add("</", name, ">");
    insertion.start_tag_length = name.size() + 2;
    insertion.end_tag_length = name.size() + 3;
  }
  insertion.length = pieces.Bytes() - insertion.lead;
}

std::uint32_t CMarkup::CommitInsertion(Insertion& insertion) {
  ReserveRecord();
  Splice(insertion.at, insertion.removed, insertion.pieces);

  ElemPosTree& tree = *tree_;
  const std::uint32_t elem = TakeRecord();
  const std::uint32_t parent = insertion.parent;
  tree[elem] = {.start = Low32(insertion.at + insertion.lead),
                .length = Low32(insertion.length),
                .tag_lengths = ElemPos::TagLengths(Low32(insertion.start_tag_length), Low32(insertion.end_tag_length)),
                .level_and_flags = parent == 0 ? 0 : tree[parent].Level() + 1,
                .parent = parent,
                .first_child = 0,
                .next = 0,
                .previous = 0};
  if (insertion.removed != 0) {
    const std::uint32_t start_tag = tree[parent].StartTagLength() - Low32(insertion.removed - 1);
    tree[parent].SetTagLengths(start_tag, Low32(insertion.parent_name.size() + 3));
  }
  if (insertion.previous != 0) {
    qx::markup::LinkAfter(tree, insertion.previous, elem);
  } else {
    qx::markup::LinkFirst(tree, parent, elem);
  }
  Shift(elem, Low32(insertion.pieces.Bytes() - insertion.removed));
  return elem;
}

bool CMarkup::RemoveElem() {
  if (main_position_ == 0) return false;
  const std::uint32_t previous = qx::markup::PreviousSibling(*tree_, main_position_);
  Remove(main_position_);
  SetPosition(parent_position_, previous, 0);
  return true;
}

bool CMarkup::RemoveChildElem() {
  if (child_position_ == 0) return false;
  const std::uint32_t previous = qx::markup::PreviousSibling(*tree_, child_position_);
  Remove(child_position_);
  SetPosition(parent_position_, main_position_, previous);
  return true;
}

void CMarkup::Remove(std::uint32_t elem) {
  const ElemPos record = Record(elem);
  document_.erase(record.start, record.length);
  Shift(elem, 0 - record.length);
  qx::markup::Unlink(*tree_, elem);
  ReleaseSubtree(elem);
}

// Releases the records of a subtree, each one after all of its descendants.
void CMarkup::ReleaseSubtree(std::uint32_t top) {
  ElemPosTree& tree = *tree_;
  std::uint32_t elem = top;
  for (;;) {
    if (const std::uint32_t child = tree[elem].first_child; child != 0) {
      tree[elem].first_child = tree[child].next;
      elem = child;
      continue;
    }
    const std::uint32_t parent = tree[elem].parent;
    ReleaseRecord(elem);
    if (elem == top) return;
    elem = parent;
  }
}

// The number of "/" before the ">" of an empty element: more than one in `<p//>`. All of them are removed when the
// element gets an end tag; otherwise its start tag would still end with "/>".
std::size_t CMarkup::TrailingSlashes(std::uint32_t elem) const {
  const std::string_view tag = StartTag(elem);
  return tag.size() - 2 - tag.find_last_not_of('/', tag.size() - 2);
}

void CMarkup::ShiftSiblings(std::uint32_t first, std::uint32_t delta) {
  ElemPosTree& tree = *tree_;
  for (std::uint32_t sibling = first; sibling != 0; sibling = tree[sibling].next) {
    qx::markup::ForEachInSubtree(tree, sibling, [&tree, delta](std::uint32_t elem) { tree[elem].start += delta; });
  }
}

// Moves the elements after `elem` by `delta` bytes and adds `delta` to the length of its ancestors. An element that was
// appended to the document has no element after it, so the cost of appending is its depth.
void CMarkup::Shift(std::uint32_t elem, std::uint32_t delta) {
  ElemPosTree& tree = *tree_;
  while (elem != 0) {
    const ElemPos& record = tree[elem];
    if (record.next != 0) ShiftSiblings(record.next, delta);
    elem = record.parent;
    tree[elem].length += delta;
  }
}

// Replaces `removed` bytes at `offset` by the pieces. If memory runs out, nothing has changed.
//
// If the new text is long and only a short rest follows it, the rest is cut off, and new text and rest are appended. So
// a large text is copied once. To combine several pieces with std::string::replace, the space would first be filled
// with zeros.
void CMarkup::Splice(std::size_t offset, std::size_t removed, Pieces& pieces) {
  const std::size_t added = pieces.Bytes();
  const std::size_t tail_bytes = document_.size() - offset - removed;
  const std::size_t needed = document_.size() - removed + added;
  if (needed > document_.capacity())
    document_.reserve(std::max({needed, 2 * document_.capacity(), kFirstCapacityBytes}));

  if (tail_bytes <= kShortTailBytes) {
    const std::string_view text = pieces.TextBefore({document_.data() + offset + removed, tail_bytes});
    if (text.data() != nullptr) {
      document_.resize(offset);
      document_.append(text);
      return;
    }
  }
  const std::span<const qx::markup::Piece> all = pieces.All();
  if (added < kMuchTextBytes || tail_bytes > kShortTailBytes) {
    if (all.size() == 1) {
      document_.replace(offset, removed, all.front().data, added);
      return;
    }
    document_.replace(offset, removed, added, '\0');
    for (char* out = document_.data() + offset; const qx::markup::Piece piece : all) {
      out = std::copy_n(piece.data, piece.size, out);
    }
    return;
  }
  char tail[kShortTailBytes];
  std::copy_n(document_.data() + offset + removed, tail_bytes, tail);
  document_.resize(offset);
  for (const qx::markup::Piece piece : all) document_.append(piece.data, piece.size);
  document_.append(tail, tail_bytes);
}
