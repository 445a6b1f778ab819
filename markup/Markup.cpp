#include "markup/Markup.h"

#include <utility>

#include "markup/Attribute.h"
#include "markup/ElemPosTree.h"
#include "markup/Escape.h"
#include "markup/Names.h"
#include "markup/Results.h"
#include "markup/TokenPos.h"

namespace {

std::string_view ViewOf(MCD_CSTR text) { return text == nullptr ? std::string_view() : std::string_view(text); }

}  // namespace

CMarkup::CMarkup() = default;

CMarkup::CMarkup(MCD_CSTR text) { SetDoc(text); }

CMarkup::CMarkup(const std::string& text) { SetDoc(text); }

CMarkup::CMarkup(std::string&& text) { SetDoc(std::move(text)); }

CMarkup::CMarkup(const CMarkup& other)
    : document_(other.document_),
      result_(other.result_),
      parent_position_(other.parent_position_),
      main_position_(other.main_position_),
      child_position_(other.child_position_),
      next_unused_(other.next_unused_),
      free_list_(other.free_list_),
      document_flags_(other.document_flags_),
      tree_(other.tree_ ? std::make_unique<ElemPosTree>(*other.tree_, other.next_unused_) : nullptr) {}

CMarkup& CMarkup::operator=(const CMarkup& other) {
  if (this != &other) *this = CMarkup(other);
  return *this;
}

CMarkup::CMarkup(CMarkup&& other) noexcept { *this = std::move(other); }

CMarkup& CMarkup::operator=(CMarkup&& other) noexcept {
  if (this == &other) return *this;
  document_ = std::exchange(other.document_, std::string());
  result_ = std::exchange(other.result_, std::string());
  parent_position_ = std::exchange(other.parent_position_, 0);
  main_position_ = std::exchange(other.main_position_, 0);
  child_position_ = std::exchange(other.child_position_, 0);
  next_unused_ = std::exchange(other.next_unused_, 0);
  free_list_ = std::exchange(other.free_list_, 0);
  document_flags_ = other.document_flags_;
  tree_ = std::move(other.tree_);
  return *this;
}

CMarkup::~CMarkup() = default;

bool CMarkup::SetDoc(MCD_CSTR text) {
  document_.assign(ViewOf(text));
  if (text == nullptr) {
    ClearRecords();
    result_.clear();
    return false;
  }
  return x_ParseDoc();
}

bool CMarkup::SetDoc(const std::string& text) {
  document_ = text;
  return x_ParseDoc();
}

bool CMarkup::SetDoc(std::string&& text) {
  document_ = std::move(text);
  return x_ParseDoc();
}

std::string CMarkup::ReleaseDoc() {
  std::string text = std::exchange(document_, std::string());
  SetDoc(nullptr);
  return text;
}

bool CMarkup::IsWellFormed() const {
  if (next_unused_ == 0) return false;
  const ElemPos& holder = (*tree_)[0];
  return !holder.Has(kElemIllFormed) && holder.first_child != 0 && (*tree_)[holder.first_child].next == 0;
}

// The result text is itself a document of sibling elements. An element's name selects the phrase, and the phrase names
// the attributes to insert.
//   <lone_end_tag tagname="b" offset="12"/>  =>  lone end tag 'b' at offset 12
std::string CMarkup::GetError() const {
  std::string text;
  CMarkup results(result_);
  while (results.FindElem()) {
    std::string_view phrase = qx::markup::ResultPhrase(results.GetTagName());
    if (phrase.empty()) continue;
    if (!text.empty()) text += ' ';
    for (std::size_t open = phrase.find('{'); open != std::string_view::npos; open = phrase.find('{')) {
      const std::size_t close = phrase.find('}', open);
      const std::string attribute(phrase.substr(open + 1, close - open - 1));
      text.append(phrase.substr(0, open)).append(results.GetAttrib(attribute.c_str()));
      phrase.remove_prefix(close + 1);
    }
    text.append(phrase);
  }
  return text;
}

// --- Position ---

void CMarkup::SetPosition(std::uint32_t parent, std::uint32_t main, std::uint32_t child) {
  parent_position_ = parent;
  main_position_ = main;
  child_position_ = child;
  node_type_ = node_offset_ = node_length_ = 0;
}

bool CMarkup::FindElem(MCD_CSTR path) {
  if (next_unused_ == 0) return false;
  const std::uint32_t found = Find(path, parent_position_, main_position_);
  if (found == 0) return false;
  SetPosition(Record(found).parent, found, 0);
  return true;
}

bool CMarkup::FindChildElem(MCD_CSTR path) {
  if (next_unused_ == 0) return false;
  if (main_position_ == 0 && !FindElem()) return false;
  const std::uint32_t found = Find(path, main_position_, child_position_);
  if (found == 0) return false;
  const std::uint32_t parent = Record(found).parent;
  SetPosition(Record(parent).parent, parent, found);
  return true;
}

bool CMarkup::IntoElem() {
  if (main_position_ == 0 || node_type_ != 0) return false;
  SetPosition(main_position_, child_position_, 0);
  return true;
}

bool CMarkup::OutOfElem() {
  if (parent_position_ == 0) return false;
  SetPosition(Record(parent_position_).parent, parent_position_, main_position_);
  return true;
}

// --- Reading ---

const ElemPos& CMarkup::Record(std::uint32_t index) const { return (*tree_)[index]; }

std::string_view CMarkup::StartTag(std::uint32_t elem) const {
  const ElemPos& record = (*tree_)[elem];
  return std::string_view(document_).substr(record.start, record.StartTagLength());
}

std::string_view CMarkup::TagName(std::uint32_t elem) const { return qx::markup::NameInStartTag(StartTag(elem)); }

std::string CMarkup::GetTagName() const {
  return main_position_ == 0 ? std::string() : std::string(TagName(main_position_));
}

std::string CMarkup::GetChildTagName() const {
  return child_position_ == 0 ? std::string() : std::string(TagName(child_position_));
}

std::string CMarkup::GetAttrib(MCD_CSTR name) const { return AttributeOf(main_position_, name); }

std::string CMarkup::GetChildAttrib(MCD_CSTR name) const { return AttributeOf(child_position_, name); }

std::string CMarkup::GetData() const { return DataOf(main_position_); }

std::string CMarkup::GetChildData() const { return DataOf(child_position_); }

std::string CMarkup::AttributeOf(std::uint32_t elem, MCD_CSTR name) const {
  if (elem == 0 || name == nullptr) return {};
  const std::string_view tag = StartTag(elem);
  qx::markup::AttributePos attribute;
  if (!qx::markup::FindAttribute(tag, name, IgnoresCase(), attribute)) return {};
  const std::string_view stored = tag.substr(attribute.value_start, attribute.value_end - attribute.value_start);
  if (stored.find('&') == std::string_view::npos) return std::string(stored);
  std::string value;
  qx::markup::AppendUnescaped(value, stored, 0);
  return value;
}

std::string CMarkup::DataOf(std::uint32_t elem) const {
  if (elem == 0 || Record(elem).first_child != 0) return {};
  const ElemPos& record = Record(elem);
  if (record.EndTagLength() == 0) return {};

  std::string data;
  TokenPos token(
      std::string_view(document_).substr(record.ContentStart(), record.ContentEnd() - record.ContentStart()));
  for (NodeType type = token.ParseNode(); type != NodeType::kEnd; type = token.ParseNode()) {
    // A fault is text that somebody forgot to escape: <a>1 < 2</a>
    if (type == NodeType::kText || type == NodeType::kFault) qx::markup::AppendUnescaped(data, token.Text(), 0);
    if (type == NodeType::kCData) data.append(token.CDataText());
  }
  return data;
}
