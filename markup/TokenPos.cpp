#include "markup/TokenPos.h"

#include <bit>
#include <cstring>

#include "markup/Ascii.h"
#include "markup/ByteScan.h"
#include "markup/ElemPosTree.h"
#include "markup/Names.h"

using qx::markup::IsClass;

namespace {

constexpr std::size_t kNotFound = std::string_view::npos;
constexpr std::string_view kDocTypeOpening = "<!DOCTYPE";
constexpr std::string_view kCDataOpening = "<![CDATA[";

// Handles the next quote or angle bracket of a start tag. True for an angle bracket outside quotes. `quote` is the
// quote that is open, or NUL.
bool EndsTag(char c, char& quote) {
  if (quote == '\0' && (c == '>' || c == '<')) return true;
  if (quote == '\0') {
    quote = c;
  } else if (c == quote) {
    quote = '\0';
  }
  return false;
}

#if defined(__SSE2__)
// Searches a start tag, block by block, for angle brackets outside quotes. Each bit is for one byte of the block.
struct TagBlocks {
  unsigned open = 0;      // all bits are set if the previous block ends inside quotes
  unsigned brackets = 0;  // of the current block

  // Searches the block at `p` without its first `seen` bytes. False, with nothing changed, if there is a "'" in it.
  bool Search(const char* p, std::size_t seen) {
    if (qx::markup::HitsInBlock<'\''>(p) >> seen != 0) return false;
    unsigned inside = qx::markup::HitsInBlock<'"'>(p) >> seen;
    // Sets all bits from each opening quote to the byte before the closing one.
    inside ^= inside << 1;
    inside ^= inside << 2;
    inside ^= inside << 4;
    inside ^= inside << 8 ^ open;
    brackets = qx::markup::HitsInBlock<'<', '>'>(p) >> seen & ~inside;
    open = 0 - (inside >> (qx::markup::kScanBlockBytes - 1) & 1);
    return true;
  }
  std::size_t FirstBracket() const { return static_cast<std::size_t>(std::countr_zero(brackets)); }
};
#endif

}  // namespace

// The offset of the first byte at or after `from` that is one of kBytes, or the size of the text.
template <char... kBytes>
std::size_t TokenPos::Find(std::size_t from) const {
  const char* const data = text_.data();
  return static_cast<std::size_t>(qx::markup::FindAnyOf<kBytes...>(data + from, data + text_.size()) - data);
}

NodeType TokenPos::ParseNode() {
  start = end;
  if (start == text_.size()) return NodeType::kEnd;
  if (text_[start] != '<') return ParseText();
  if (start + 1 == text_.size()) return Fail(SyntaxFault::kUnterminated);
  switch (text_[start + 1]) {
    case '/':
      return ParseEndTag();
    case '!':
      return ParseExclamation();
    case '?':
      return Finish(NodeType::kInstruction, InstructionEnd(start + 2));
    default:
      return ParseStartTag();
  }
}

NodeType TokenPos::ParseText() { return Finish(NodeType::kText, Find<'<'>(start)); }

NodeType TokenPos::ParseStartTag() {
  if (!IsClass(text_[start + 1], qx::markup::kNameStart)) return Fail(SyntaxFault::kFirstTag);
  name = qx::markup::LeadingTagName(text_.substr(start + 1));
  const std::size_t tag_end = TagEnd(start + 1 + name.size());
  if (tag_end == kNotFound) return Fail(SyntaxFault::kUnterminated);
  if (name.size() > kTagNameBytesMax) return Fail(SyntaxFault::kNameSize);
  if (tag_end - start > ElemPos::kStartTagLengthMax) return Fail(SyntaxFault::kStartTagSize);
  return Finish(text_[tag_end - 2] == '/' ? NodeType::kEmptyTag : NodeType::kStartTag, tag_end);
}

// The offset after the ">" that ends a start tag. Everything between quotes is skipped; a "<" outside quotes means that
// the tag is unterminated.
std::size_t TokenPos::TagEnd(std::size_t from) const {
  char quote = '\0';
#if defined(__SSE2__)
  TagBlocks blocks;
  const std::size_t block_bytes = qx::markup::kScanBlockBytes;
  for (; text_.size() - from >= block_bytes; from += block_bytes) {
    if (!blocks.Search(text_.data() + from, 0)) break;
    if (blocks.brackets != 0) return TagEndAt(from + blocks.FirstBracket());
  }
  // The last bytes are searched in a block that ends with the text.
  const std::size_t seen = block_bytes - (text_.size() - from);
  if (text_.size() - from < block_bytes && text_.size() >= block_bytes &&
      blocks.Search(text_.data() + from - seen, seen)) {
    return blocks.brackets != 0 ? TagEndAt(from + blocks.FirstBracket()) : kNotFound;
  }
  if (blocks.open != 0) quote = '"';
#endif
  for (; (from = Find<'>', '<', '"', '\''>(from)) < text_.size(); ++from) {
    if (EndsTag(text_[from], quote)) return TagEndAt(from);
  }
  return kNotFound;
}

// The end of a start tag whose first angle bracket outside quotes is at `bracket`.
std::size_t TokenPos::TagEndAt(std::size_t bracket) const { return text_[bracket] == '>' ? bracket + 1 : kNotFound; }

// True for exactly "</name>" with the expected name.
bool TokenPos::IsExpectedEndTag() const {
  const std::size_t name_end = start + 2 + expected_name.size();
  return !expected_name.empty() && name_end < text_.size() && text_[name_end] == '>' &&
         std::memcmp(text_.data() + start + 2, expected_name.data(), expected_name.size()) == 0;
}

NodeType TokenPos::ParseEndTag() {
  if (IsExpectedEndTag()) {
    name = expected_name;
    return Finish(NodeType::kEndTag, start + 2 + name.size() + 1);
  }
  if (start + 2 == text_.size()) return Fail(SyntaxFault::kUnterminated);
  if (!IsClass(text_[start + 2], qx::markup::kNameStart)) return Fail(SyntaxFault::kFirstTag);
  name = qx::markup::LeadingTagName(text_.substr(start + 2));
  const std::size_t last = Find<'>', '<'>(start + 2 + name.size());
  if (last == text_.size() || text_[last] == '<') return Fail(SyntaxFault::kUnterminated);
  if (name.size() > kTagNameBytesMax) return Fail(SyntaxFault::kNameSize);
  if (last + 1 - start > ElemPos::kEndTagLengthMax) return Fail(SyntaxFault::kEndTagSize);
  return Finish(NodeType::kEndTag, last + 1);
}

NodeType TokenPos::ParseExclamation() {
  if (start + 2 == text_.size()) return Fail(SyntaxFault::kUnterminated);
  switch (text_[start + 2]) {
    case '-':
      return ParseComment();
    case '[':
      return ParseCData();
    default:
      return ParseDocType();
  }
}

NodeType TokenPos::ParseComment() {
  if (start + 3 == text_.size()) return Fail(SyntaxFault::kUnterminated);
  if (text_[start + 3] != '-') return Fail(SyntaxFault::kComment);
  return Finish(NodeType::kComment, CommentEnd(start + 4));
}

NodeType TokenPos::ParseCData() {
  switch (TextBegins(start, kCDataOpening)) {
    case Begins::kNo:
      return Fail(SyntaxFault::kCData);
    case Begins::kCutOff:
      return Fail(SyntaxFault::kUnterminated);
    case Begins::kYes:
      break;
  }
  return Finish(NodeType::kCData, CDataEnd(start + kCDataOpening.size()));
}

// After a faulty declaration every further one counts as faulty without a scan. A well-formed document has only one,
// and a text with thousands of incomplete declarations must not be scanned to its end for each of them.
NodeType TokenPos::ParseDocType() {
  switch (TextBegins(start, kDocTypeOpening)) {
    case Begins::kNo:
      return Fail(SyntaxFault::kExclamation);
    case Begins::kCutOff:
      return Fail(SyntaxFault::kUnterminated);
    case Begins::kYes:
      break;
  }
  if (doctype_failed_) return Fail(SyntaxFault::kDocType);
  fault = SyntaxFault::kUnterminated;
  const std::size_t declaration_end = DocTypeEnd(start + kDocTypeOpening.size());
  doctype_failed_ = declaration_end == kNotFound;
  return doctype_failed_ ? Fail(fault) : Finish(NodeType::kDocType, declaration_end);
}

std::size_t TokenPos::DocTypeEnd(std::size_t from) {
  while (from != kNotFound) {
    from = Find<'>', '<', '[', '"', '\''>(from);
    if (from == text_.size() || text_[from] == '<') return kNotFound;
    if (text_[from] == '>') return from + 1;
    from = text_[from] == '[' ? SubsetEnd(from + 1) : QuoteEnd(from);
  }
  return kNotFound;
}

// The offset after the "]" that ends an internal subset. Declarations are skipped; they have no effect.
std::size_t TokenPos::SubsetEnd(std::size_t from) {
  while (from < text_.size()) {
    const char c = text_[from];
    if (c == ']') return from + 1;
    if (IsClass(c, qx::markup::kWhite)) {
      ++from;
    } else if (c == '<') {
      from = DeclarationEnd(from);
    } else {
      from = c == '%' ? ParameterReferenceEnd(from) : BadSubset();
    }
  }
  return kNotFound;
}

std::size_t TokenPos::DeclarationEnd(std::size_t from) {
  if (from + 1 == text_.size()) return kNotFound;
  if (text_[from + 1] == '?') return InstructionEnd(from + 2);
  if (text_[from + 1] != '!') return BadSubset();
  if (from + 2 == text_.size()) return kNotFound;
  if (IsClass(text_[from + 2], qx::markup::kNameStart)) return TagEnd(from + 2);
  switch (TextBegins(from, "<!--")) {
    case Begins::kYes:
      return CommentEnd(from + 4);
    case Begins::kCutOff:
      return kNotFound;
    default:
      return BadSubset();
  }
}

// "%name;"
std::size_t TokenPos::ParameterReferenceEnd(std::size_t from) {
  from = Find<';', '<', ']', ' ', '\n'>(from + 1);
  if (from == text_.size()) return kNotFound;
  return text_[from] == ';' ? from + 1 : BadSubset();
}

std::size_t TokenPos::BadSubset() {
  fault = SyntaxFault::kDocType;
  return kNotFound;
}

// The offset after the quote that closes the one at `from`.
std::size_t TokenPos::QuoteEnd(std::size_t from) const {
  const std::size_t close = text_[from] == '"' ? Find<'"'>(from + 1) : Find<'\''>(from + 1);
  return close == text_.size() ? kNotFound : close + 1;
}

// The offset after the terminator, which is searched for from `from` on. `missing_from` is the lowest offset from which
// a search has failed so far; a search from this offset or a later one fails at once. (After a faulty declaration, the
// next node may begin before `missing_from`.)
template <char kFirst, char kSecond, char kThird>
std::size_t TokenPos::TerminatorEnd(std::size_t from, std::size_t& missing_from) const {
  if (from >= missing_from || from > text_.size()) return kNotFound;
  const char* const text_end = text_.data() + text_.size();
  const char* const found = qx::markup::FindTriple<kFirst, kSecond, kThird>(text_.data() + from, text_end);
  if (found != text_end) return static_cast<std::size_t>(found - text_.data()) + 3;
  missing_from = from;
  return kNotFound;
}

std::size_t TokenPos::CommentEnd(std::size_t from) { return TerminatorEnd<'-', '-', '>'>(from, no_comment_end_from_); }

std::size_t TokenPos::CDataEnd(std::size_t from) { return TerminatorEnd<']', ']', '>'>(from, no_cdata_end_from_); }

std::size_t TokenPos::InstructionEnd(std::size_t from) {
  if (from >= no_instruction_end_from_) return kNotFound;
  const std::size_t found = text_.find("?>", from);
  if (found != kNotFound) return found + 2;
  no_instruction_end_from_ = from;
  return kNotFound;
}

// Whether `opening` is at `from`; kCutOff if the text ends within it.
TokenPos::Begins TokenPos::TextBegins(std::size_t from, std::string_view opening) const {
  const std::string_view text = text_.substr(from, opening.size());
  if (qx::markup::CompareNames(text.data(), opening.data(), text.size(), ignore_case_) != 0) return Begins::kNo;
  return text.size() == opening.size() ? Begins::kYes : Begins::kCutOff;
}

NodeType TokenPos::Finish(NodeType type, std::size_t node_end) {
  if (node_end == kNotFound) return Fail(SyntaxFault::kUnterminated);
  end = node_end;
  return type;
}

NodeType TokenPos::Fail(SyntaxFault what) {
  fault = what;
  end = Find<'<'>(start + 1);
  return NodeType::kFault;
}
