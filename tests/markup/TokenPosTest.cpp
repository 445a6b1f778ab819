#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>

#include "markup/TokenPos.h"
#include "tests/support/Support.h"

namespace {

// --- The oracle: a plain scanner that reads byte by byte ---

struct PlainToken {
  NodeType type = NodeType::kEnd;
  std::size_t end = 0;
  std::string name;
  SyntaxFault fault = SyntaxFault::kNone;
};

bool OneOf(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }
bool StartsName(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || static_cast<signed char>(c) < 0;
}

class PlainScanner {
 public:
  explicit PlainScanner(std::string text) : text_(std::move(text)) {}

  PlainToken Next(std::size_t at) {
    if (at == text_.size()) return {};
    if (text_[at] != '<') return {NodeType::kText, NextOpening(at), "", SyntaxFault::kNone};
    const std::string rest = text_.substr(at);
    PlainToken token = Markup(rest);
    token.end = token.type == NodeType::kFault ? NextOpening(at + 1) : at + token.end;
    return token;
  }

 private:
  std::size_t NextOpening(std::size_t from) const { return std::min(text_.find('<', from), text_.size()); }

  static PlainToken Fault(SyntaxFault fault) { return {NodeType::kFault, 0, "", fault}; }

  PlainToken Markup(const std::string& rest) {
    if (rest.size() == 1) return Fault(SyntaxFault::kUnterminated);
    if (rest[1] == '?') return Until(rest, "?>", 2, NodeType::kInstruction);
    if (rest[1] == '!') return Declaration(rest);
    return Tag(rest);
  }

  static PlainToken Until(const std::string& rest, const char* terminator, std::size_t from, NodeType type) {
    const std::size_t at = rest.find(terminator, from);
    if (at == std::string::npos) return Fault(SyntaxFault::kUnterminated);
    return {type, at + std::string_view(terminator).size(), "", SyntaxFault::kNone};
  }

  PlainToken Declaration(const std::string& rest) {
    if (rest.size() == 2) return Fault(SyntaxFault::kUnterminated);
    if (rest[2] == '-') {
      if (rest.size() == 3) return Fault(SyntaxFault::kUnterminated);
      return rest[3] == '-' ? Until(rest, "-->", 4, NodeType::kComment) : Fault(SyntaxFault::kComment);
    }
    const bool cdata = rest[2] == '[';
    const std::string opening = cdata ? "<![CDATA[" : "<!DOCTYPE";
    if (rest.substr(0, opening.size()) != opening.substr(0, rest.size())) {
      return Fault(cdata ? SyntaxFault::kCData : SyntaxFault::kExclamation);
    }
    if (rest.size() < opening.size()) return Fault(SyntaxFault::kUnterminated);
    if (cdata) return Until(rest, "]]>", 9, NodeType::kCData);
    const PlainToken token = doctype_failed_ ? Fault(SyntaxFault::kDocType) : DocType(rest);
    doctype_failed_ = token.type == NodeType::kFault;
    return token;
  }

  static PlainToken DocType(const std::string& rest) {
    char quote = 0;
    bool subset = false;
    bool declaration = false;
    for (std::size_t i = 9; i < rest.size(); ++i) {
      const char c = rest[i];
      if (quote != 0) {
        if (c == quote) quote = 0;
      } else if (!subset || declaration) {
        if (OneOf(c, "\"'")) quote = c;
        if (c == '<') return Fault(SyntaxFault::kUnterminated);
        if (c == '[' && !declaration) subset = true;
        if (c == '>' && !declaration) return {NodeType::kDocType, i + 1, "", SyntaxFault::kNone};
        if (c == '>') declaration = false;
      } else if (c == ']') {
        subset = false;
      } else if (c == '<') {
        const std::string inner = rest.substr(i);
        if (inner.size() < 2) break;
        const bool comment = inner.substr(0, 4) == "<!--";
        if (comment || inner[1] == '?') {
          const PlainToken skipped = Until(inner, comment ? "-->" : "?>", comment ? 4 : 2, NodeType::kComment);
          if (skipped.type == NodeType::kFault) break;
          i += skipped.end - 1;
          continue;
        }
        if (inner == "<!" || inner == "<!-") break;
        if (inner[1] != '!' || !StartsName(inner[2])) return Fault(SyntaxFault::kDocType);
        declaration = true;
        ++i;
      } else if (c == '%') {
        const std::size_t stop = rest.find_first_of(";<] \n", i + 1);
        if (stop == std::string::npos) break;
        if (rest[stop] != ';') return Fault(SyntaxFault::kDocType);
        i = stop;
      } else if (!OneOf(c, " \t\r\n")) {
        return Fault(SyntaxFault::kDocType);
      }
    }
    return Fault(SyntaxFault::kUnterminated);
  }

  static PlainToken Tag(const std::string& rest) {
    const bool end_tag = rest[1] == '/';
    std::size_t at = end_tag ? 2 : 1;
    if (at == rest.size()) return Fault(SyntaxFault::kUnterminated);
    if (!StartsName(rest[at])) return Fault(SyntaxFault::kFirstTag);
    std::string name;
    while (at < rest.size() && !OneOf(rest[at], " \t\r\n/><\"'")) name += rest[at++];
    char quote = 0;
    for (; at < rest.size(); ++at) {
      const char c = rest[at];
      if (quote != 0) {
        if (c == quote) quote = 0;
      } else if (OneOf(c, "\"'") && !end_tag) {
        quote = c;
      } else if (c == '<') {
        break;
      } else if (c == '>') {
        const NodeType start = rest[at - 1] == '/' ? NodeType::kEmptyTag : NodeType::kStartTag;
        return {end_tag ? NodeType::kEndTag : start, at + 1, name, SyntaxFault::kNone};
      }
    }
    return Fault(SyntaxFault::kUnterminated);
  }

  std::string text_;
  bool doctype_failed_ = false;
};

void ExpectSameTokens(const std::string& text) {
  TokenPos token(text);
  PlainScanner plain(text);
  for (;;) {
    const std::size_t at = token.end;
    const NodeType type = token.ParseNode();
    const PlainToken expected = plain.Next(at);
    ASSERT_EQ(type, expected.type) << text << " at " << at;
    if (type == NodeType::kEnd) return;
    ASSERT_EQ(token.start, at) << text;
    ASSERT_EQ(token.end, expected.end) << text << " at " << at;
    if (!expected.name.empty()) {
      ASSERT_EQ(token.name, expected.name) << text << " at " << at;
    }
    if (type == NodeType::kFault) {
      ASSERT_EQ(token.fault, expected.fault) << text << " at " << at;
    }
  }
}

// A random text of pieces that the scanner knows, so that most texts are nearly correct.
std::string RandomNodes(std::mt19937_64& random) {
  static const std::string_view kPieces[] = {"<",       "</",        "a",
                                             "b1",      ">",         "/>",
                                             "/",       " ",         "=",
                                             "\"",      "'",         "x",
                                             "\n",      "<!--",      "--",
                                             "-->",     "-",         "<?",
                                             "?>",      "<![CDATA[", "]]>",
                                             "]",       "[",         "<!DOCTYPE",
                                             "!",       "<!EL",      "%p;",
                                             "%",       "&",         "\xC3",
                                             "<a",      "</a>",      "<b x='1'>",
                                             "<![CDAT", "<!DOC",     "<!DOCTYPE a [",
                                             "]>",      "text",      std::string_view("\0", 1)};
  std::string text;
  const std::size_t count = random() % 14;
  for (std::size_t i = 0; i < count; ++i) text += kPieces[random() % std::size(kPieces)];
  return text;
}

TEST(TokenPos, RandomTextHasTheSameNodesAsInAPlainScanner) {
  std::mt19937_64 random(qx::test::Seed("TokenPos"));
  for (int i = 0; i < 20000; ++i) {
    ExpectSameTokens(RandomNodes(random));
    if (HasFatalFailure()) return;
  }
}

TEST(TokenPos, EveryPrefixHasTheSameNodesAsInAPlainScanner) {
  const std::string text =
      "t<a b='<' c=\">\"/></a ><!-- - -- --><?p ?x?><![CDATA[]]]>]]>"
      "<!DOCTYPE r 'x>' [ <!ENTITY e \"]>'\"> <!-- ] --> <?p ]?> %pe; ] ><x>";
  for (std::size_t size = 0; size <= text.size(); ++size) ExpectSameTokens(text.substr(0, size));
}

TEST(TokenPos, CDataTextIsTheTextBetweenTheBrackets) {
  TokenPos token("<![CDATA[a]]]>");
  ASSERT_EQ(token.ParseNode(), NodeType::kCData);
  EXPECT_EQ(token.CDataText(), "a]");
}

TEST(TokenPos, DeclarationAfterAFaultyOneIsFaulty) {
  TokenPos good("<!DOCTYPE a><!DOCTYPE b>");
  EXPECT_EQ(good.ParseNode(), NodeType::kDocType);
  EXPECT_EQ(good.ParseNode(), NodeType::kDocType);
  TokenPos bad("<!DOCTYPE a [x]><!DOCTYPE b>");
  ASSERT_EQ(bad.ParseNode(), NodeType::kFault);
  EXPECT_EQ(bad.fault, SyntaxFault::kDocType);
  ASSERT_EQ(bad.ParseNode(), NodeType::kFault);
  EXPECT_EQ(bad.fault, SyntaxFault::kDocType);
}

TEST(TokenPos, HyphensThatBeginACommentDoNotEndIt) {
  TokenPos token("<!--><!---->");
  ASSERT_EQ(token.ParseNode(), NodeType::kComment);
  EXPECT_EQ(token.end, 12U);
}

}  // namespace
