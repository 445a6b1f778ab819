// The node scanner: cuts a document's text into start and end tags, other nodes and plain text, front to back.
//
// It knows where each construct begins and ends and nothing of what contains what. It never fails: a construct with a
// fault becomes a fault node that reaches to the next "<", and scanning goes on there. Whatever the text holds, the
// whole scan is linear: a search that once ran to the end of the text without a find is not made again from there on.
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
  kFirstTag,      // "<" or "</" before something that begins no name
  kExclamation,   // "<!" before none of "DOCTYPE", "[" and "-"
  kDocType,       // in a declaration's subset, something that is no declaration; any declaration after a faulty one
  kComment,       // "<!-" before something other than "-"
  kCData,         // "<![" before something other than "CDATA["
  kUnterminated,  // the text ends, or another tag begins, inside a tag
  kStartTagSize,  // a start tag of 4 MiB or more
  kEndTagSize,    // an end tag of 1,024 bytes or more
  kNameSize,      // a tag name of more than 1,020 bytes
};

// The longest tag name: its end tag's three further characters still fit the record.
inline constexpr std::size_t kTagNameBytesMax = 1020;

// Threads: none of its own. Owns: nothing; the text must outlive it and stay as it is.
class TokenPos {
 public:
  explicit TokenPos(std::string_view text, bool ignore_case = false) : text_(text), ignore_case_(ignore_case) {}

  // Steps to the next node. The members below then describe it.
  NodeType ParseNode();

  // Set by the caller: the name that the next end tag most likely has, "" for none. `name` is that very view if it has
  // it, which saves comparing them again.
  std::string_view expected_name;

  std::size_t start = 0;                   // offset of the node's first byte
  std::size_t end = 0;                     // offset behind its last byte
  std::string_view name;                   // of a start, empty or end tag
  SyntaxFault fault = SyntaxFault::kNone;  // of a fault node

  std::string_view Text() const { return text_.substr(start, end - start); }
  // What stands between "<![CDATA[" and "]]>".
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
  std::size_t QuoteEnd(std::size_t from) const;
  std::size_t DocTypeEnd(std::size_t from);
  std::size_t SubsetEnd(std::size_t from);
  std::size_t DeclarationEnd(std::size_t from);
  std::size_t ParameterReferenceEnd(std::size_t from);
  std::size_t BadSubset();
  std::size_t CommentEnd(std::size_t from);
  std::size_t InstructionEnd(std::size_t from);
  std::size_t CDataEnd(std::size_t from);

  enum class Begins : std::uint8_t { kNo, kSoFar, kYes };
  Begins TextBegins(std::size_t from, std::string_view wanted) const;

  template <char... kBytes>
  std::size_t Find(std::size_t from) const;
  template <char kFirst, char kSecond, char kThird>
  std::size_t TerminatorEnd(std::size_t from, std::size_t& missing_from) const;

  std::string_view text_;
  bool ignore_case_;
  // From these offsets on the text holds no "-->", "?>" and "]]>".
  std::size_t no_comment_end_from_ = std::string_view::npos;
  std::size_t no_instruction_end_from_ = std::string_view::npos;
  std::size_t no_cdata_end_from_ = std::string_view::npos;
  bool doctype_failed_ = false;
};
