// The node scanner: divides a document's text, from front to back, into start and end tags, other nodes and plain text.
//
// It finds where each construct begins and ends; it does not know the structure of the elements. It never fails: a
// faulty construct becomes a fault node that ends at the next "<", and scanning continues there. The time of a whole
// scan is linear for any text: a search for a terminator that has once failed is not repeated from a later offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

enum class NodeType : std::uint8_t {
  kEnd,          // no text left
  kText,         // up to the next "<"
  kStartTag,     // <a x="1">
  kEmptyTag,     // <a x="1"/>
  kEndTag,       // </a>
  kComment,      // <!--...-->
  kCData,        // <![CDATA[...]]>
  kInstruction,  // <?...?>
  kDocType,      // <!DOCTYPE a [...]>
  kFault,        // see SyntaxFault
};

enum class SyntaxFault : std::uint8_t {
  kNone,
  kFirstTag,      // "<" or "</" before a byte that cannot begin a name
  kExclamation,   // "<!" not before "DOCTYPE", "[" or "-"
  kDocType,       // a wrong byte in the subset of a declaration; any declaration after a faulty one
  kComment,       // "<!-" not before "-"
  kCData,         // "<![" not before "CDATA["
  kUnterminated,  // the text ends, or another tag begins, inside a tag
  kStartTagSize,  // a start tag of 4 MiB or more
  kEndTagSize,    // an end tag of 1,024 bytes or more
  kNameSize,      // a tag name of more than 1,020 bytes
};

// The longest tag name: its end tag has three more characters, and that length still fits into the record.
inline constexpr std::size_t kTagNameBytesMax = 1020;

// The scanner and its current node.
//
// Threads: it is used by one thread at a time. Owns: nothing; the text must outlive it and must not change.
class TokenPos {
 public:
  explicit TokenPos(std::string_view text, bool ignore_case = false) : text_(text), ignore_case_(ignore_case) {}

  // Moves to the next node. The members below then describe it.
  NodeType ParseNode();

  // Set by the caller: the name that the next end tag most likely has, or "". If the end tag has this name, `name` is
  // the same view (the same pointer), so that the caller need not compare the names again.
  std::string_view expected_name;

  std::size_t start = 0;                   // offset of the node's first byte
  std::size_t end = 0;                     // offset after its last byte
  std::string_view name;                   // of a start, empty or end tag
  SyntaxFault fault = SyntaxFault::kNone;  // of a fault node

  std::string_view Text() const { return text_.substr(start, end - start); }
  // The text between "<![CDATA[" and "]]>".
  std::string_view CDataText() const { return text_.substr(start + 9, end - start - 12); }

 private:
  NodeType ParseText();
  NodeType ParseStartTag();
  NodeType ParseEndTag();
  bool IsExpectedEndTag() const;
  NodeType ParseExclamation();
  NodeType ParseComment();
  NodeType ParseCData();
  NodeType ParseDocType();
  NodeType Finish(NodeType type, std::size_t node_end);
  NodeType Fail(SyntaxFault what);
  std::size_t TagEnd(std::size_t from) const;
  std::size_t TagEndAt(std::size_t bracket) const;
  std::size_t QuoteEnd(std::size_t from) const;
  std::size_t DocTypeEnd(std::size_t from);
  std::size_t SubsetEnd(std::size_t from);
  std::size_t DeclarationEnd(std::size_t from);
  std::size_t ParameterReferenceEnd(std::size_t from);
  std::size_t BadSubset();
  std::size_t CommentEnd(std::size_t from);
  std::size_t InstructionEnd(std::size_t from);
  std::size_t CDataEnd(std::size_t from);

  enum class Begins : std::uint8_t { kNo, kCutOff, kYes };
  Begins TextBegins(std::size_t from, std::string_view opening) const;

  template <char... kBytes>
  std::size_t Find(std::size_t from) const;
  template <char kFirst, char kSecond, char kThird>
  std::size_t TerminatorEnd(std::size_t from, std::size_t& missing_from) const;

  std::string_view text_;
  bool ignore_case_;
  // There is no "-->", "?>" or "]]>" from these offsets on.
  std::size_t no_comment_end_from_ = std::string_view::npos;
  std::size_t no_instruction_end_from_ = std::string_view::npos;
  std::size_t no_cdata_end_from_ = std::string_view::npos;
  bool doctype_failed_ = false;
};
