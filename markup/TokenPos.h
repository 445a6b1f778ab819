// Scans a document's text from front to back, and divides it into nodes: start and end tags, plain text and others.
//
// The scanner finds where each node begins and ends, but does not know the structure of the elements. It never fails:
// faulty text becomes a fault node that ends at the next "<", and the scan continues there. The time of a whole scan is
// linear for any text, because a search for a terminator that has failed is not repeated from a later offset.
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
  kExclamation,   // "<!" without "DOCTYPE", "[" or "-" after it
  kDocType,       // a wrong byte in the subset of a declaration; any declaration after a faulty one
  kComment,       // "<!-" without "-" after it
  kCData,         // "<![" without "CDATA[" after it
  kUnterminated,  // the text ends, or another tag begins, inside a tag
  kStartTagSize,  // a start tag of 4 MiB or more
  kEndTagSize,    // an end tag of 1,024 bytes or more
  kNameSize,      // a tag name of more than 1,020 bytes
};

// The length of the longest tag name. The length of its end tag, which is greater by three, still fits into the record.
inline constexpr std::size_t kTagNameBytesMax = 1020;

// A scanner and its current node.
//
// Threads: one thread at a time. Owns: nothing; the text must outlive it and must not change.
class TokenPos {
 public:
  explicit TokenPos(std::string_view text, bool ignore_case = false) : text_(text), ignore_case_(ignore_case) {}

  // Moves to the next node. The members below then describe it.
  NodeType ParseNode();

  // Set by the caller: the expected name of the next end tag, or "". If the end tag has this name, `name` has the same
  // pointer, so that the caller need not compare the names again.
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
  // The offsets from which searches for "-->", "?>" and "]]>" have failed.
  std::size_t no_comment_end_from_ = std::string_view::npos;
  std::size_t no_instruction_end_from_ = std::string_view::npos;
  std::size_t no_cdata_end_from_ = std::string_view::npos;
  bool doctype_failed_ = false;
};
