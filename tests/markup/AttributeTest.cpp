// Compares the fast forms for attributes of unusual start tags, and for expected end tags, with plain forms.
#include "markup/Attribute.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "markup/Names.h"
#include "markup/TokenPos.h"
#include "tests/support/Support.h"

namespace {

using qx::markup::AttributePos;
using qx::markup::AttributeScan;

using Random = std::mt19937_64;

bool IsIn(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }

// The same walk in a plain form: with offsets, one byte at a time, each compared with the end.
class PlainScan {
 public:
  explicit PlainScan(std::string_view tag) : tag_(tag), end_(qx::markup::TagClosingOffset(tag)) {
    for (at_ = 1; !IsIn(tag_[at_], kNameEnds);) ++at_;
  }

  bool Next(AttributePos& found) {
    for (SkipWhite(); at_ < end_; SkipWhite()) {
      found.name_start = at_;
      while (at_ < end_ && !IsIn(tag_[at_], kNameEnds) && tag_[at_] != '=') ++at_;
      found.name_end = at_;
      ReadValue(found);
      if (found.name_end != found.name_start) return true;
      if (at_ == found.name_start) ++at_;
    }
    return false;
  }

 private:
  static constexpr std::string_view kWhite = "\t\n\r ";
  static constexpr std::string_view kNameEnds = "\t\n\r /><\"'";

  void SkipWhite() {
    while (at_ < end_ && IsIn(tag_[at_], kWhite)) ++at_;
  }
  bool AtQuote() const { return at_ < end_ && IsIn(tag_[at_], "\"'"); }

  void ReadValue(AttributePos& found) {
    found.value_start = found.value_end = found.name_end;
    found.quoted = false;
    SkipWhite();
    if (at_ < end_ && tag_[at_] == '=') {
      found.value_start = found.value_end = ++at_;
      SkipWhite();
    } else if (found.name_end != found.name_start || !AtQuote()) {
      return;
    }
    if (AtQuote()) {
      const char quote = tag_[at_++];
      found.quoted = true;
      found.value_start = at_;
      while (at_ < end_ && tag_[at_] != quote) ++at_;
      found.value_end = at_;
      if (at_ < end_) ++at_;
    } else if (at_ == found.value_start) {
      while (at_ < end_ && !IsIn(tag_[at_], kWhite) && !AtQuote()) ++at_;
      found.value_end = at_;
    }
  }

  std::string_view tag_;
  std::size_t at_ = 0;
  std::size_t end_;
};

bool Same(const AttributePos& a, const AttributePos& b) {
  return a.name_start == b.name_start && a.name_end == b.name_end && a.value_start == b.value_start &&
         a.value_end == b.value_end && a.quoted == b.quoted;
}

void ExpectSameAttributes(const std::string& tag) {
  AttributeScan scan(tag);
  PlainScan plain(tag);
  for (;;) {
    AttributePos found;
    AttributePos expected;
    const bool more = plain.Next(expected);
    ASSERT_EQ(scan.Next(found), more) << tag;
    if (!more) return;
    ASSERT_TRUE(Same(found, expected)) << tag << " at " << expected.name_start;
  }
}

TEST(Attribute, RandomTagsHaveTheSameAttributesAsInThePlainWalk) {
  static constexpr std::string_view kPieces[] = {" ",    " a",         "a", "=",   "\"",     "'",  "=\"1\"",
                                                 "='2'", " b=\"x y\"", "/", "<",   ">",      "\n", " =",
                                                 "= ",   "\xE4",       "[", "a=b", " abc='", "\0"};
  Random random(qx::test::Seed("Attribute"));
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    std::string tag = "<n";
    for (std::size_t pieces = random() % 12; pieces > 0; --pieces) tag += kPieces[random() % std::size(kPieces)];
    tag += random() % 3 == 0 ? "/>" : ">";
    ExpectSameAttributes(tag);
  }
}

// A tag whose size is near the limit of a search in blocks of 16 bytes or in windows of 64 bytes. Some tags have an
// unusual attribute.
std::string LongTag(Random& random) {
  static constexpr std::string_view kUnusual[] = {" a='1'",     "  abc=\"1\"", " a",     " a=1", "\ta=\"1\"", " =\"1\"",
                                                  " x-y=\"1\"", " a-\"1\"",    " b=\"x", "/",    "'"};
  std::string tag = "<" + std::string(1 + random() % 20, 'n');
  const std::size_t unusual_at = random() % 12;
  for (std::size_t i = 0; i < 6; ++i) {
    if (i == unusual_at) tag += kUnusual[random() % std::size(kUnusual)];
    tag += " " + std::string(1 + random() % 20, static_cast<char>('a' + random() % 3)) + "=\"";
    tag += std::string(random() % (i == 3 ? 80 : 12), random() % 2 == 0 ? '\'' : '>') + "\"";
  }
  return tag + (random() % 2 == 0 ? "/>" : ">");
}

// The text is copied to a block of exactly its size, so that the address sanitizer finds a read beyond its end.
void ExpectFoundAsByWalk(const std::string& tag, std::string_view name, bool ignore_case) {
  const std::vector<char> copy(tag.begin(), tag.end());
  const std::string_view view(copy.data(), copy.size());
  AttributePos found;
  AttributePos expected;
  const bool exists = qx::markup::FindAttributeByWalk(view, name, ignore_case, expected);
  ASSERT_EQ(qx::markup::FindAttribute(view, name, ignore_case, found), exists) << tag << " " << name;
  ASSERT_TRUE(!exists || Same(found, expected)) << tag << " " << name << " at " << found.name_start;
}

TEST(Attribute, EachNameIsFoundWhereTheWalkFindsIt) {
  Random random(qx::test::Seed("FindAttribute"));
  for (int round = 0; round < 500 && !testing::Test::HasFailure(); ++round) {
    const std::string tag = LongTag(random);
    for (const std::string_view name : {"", "a", "x-y", "x-", "1"}) ExpectFoundAsByWalk(tag, name, false);
    for (std::size_t size = 1; size <= 20; ++size) {
      const std::string name(size, static_cast<char>('a' + random() % 3));
      ExpectFoundAsByWalk(tag, name, false);
      ExpectFoundAsByWalk(tag, std::string(size, 'A'), true);
    }
  }
}

TEST(Attribute, NamesOfAnySizeAreEqualOnlyIfEachByteIs) {
  for (std::size_t size = 0; size < 40; ++size) {
    const std::string name(size, 'n');
    EXPECT_TRUE(qx::markup::SameName(name, std::string(size, 'n'), false));
    for (std::size_t at = 0; at < size; ++at) {
      std::string other = name;
      other[at] = 'N';
      EXPECT_FALSE(qx::markup::SameName(name, other, false)) << size << " " << at;
      EXPECT_TRUE(qx::markup::SameName(name, other, true)) << size << " " << at;
    }
  }
}

struct TagNode {
  NodeType type;
  std::size_t start;
  std::size_t end;
  std::string name;
  SyntaxFault fault;

  friend bool operator==(const TagNode&, const TagNode&) = default;
};

std::vector<TagNode> Nodes(std::string_view text, std::string_view expected_name) {
  std::vector<TagNode> nodes;
  TokenPos token(text);
  for (;;) {
    token.expected_name = expected_name;
    const NodeType type = token.ParseNode();
    if (type == NodeType::kEnd) return nodes;
    const bool named = type == NodeType::kStartTag || type == NodeType::kEmptyTag || type == NodeType::kEndTag;
    nodes.push_back({type, token.start, token.end, named ? std::string(token.name) : "", token.fault});
  }
}

TEST(Attribute, ExpectedNameDoesNotChangeTheNodes) {
  static constexpr std::string_view kPieces[] = {"<a>",   "</a>", "</ab>", "</a >", "</a", "</",           "text",
                                                 "</a/>", ">",    "<ab>",  "</A>",  "<",   "<!-- </a> -->"};
  Random random(qx::test::Seed("ExpectedEndTag"));
  for (int round = 0; round < 5000; ++round) {
    std::string text;
    for (std::size_t pieces = random() % 10; pieces > 0; --pieces) text += kPieces[random() % std::size(kPieces)];
    const std::vector<TagNode> plain = Nodes(text, "");
    ASSERT_EQ(Nodes(text, "a"), plain) << text;
    ASSERT_EQ(Nodes(text, "ab"), plain) << text;
  }
}

// The end of the tag at the beginning of the text, searched byte by byte; 0 if the tag has no end.
std::size_t PlainTagEnd(std::string_view text) {
  char quote = '\0';
  for (std::size_t i = 2; i < text.size(); ++i) {
    if (quote != '\0') {
      if (text[i] == quote) quote = '\0';
    } else if (IsIn(text[i], "<>")) {
      return text[i] == '>' ? i + 1 : 0;
    } else if (IsIn(text[i], "\"'")) {
      quote = text[i];
    }
  }
  return 0;
}

TEST(Attribute, TagEndsAtTheFirstBracketOutsideQuotes) {
  Random random(qx::test::Seed("TagEnd"));
  for (int round = 0; round < 8000; ++round) {
    const std::string_view alphabet = round % 2 == 0 ? "\"\"\"><" : "\"'><";
    std::vector<char> text = {'<', 'a'};
    for (std::size_t marks = random() % 9; marks > 0; --marks) {
      text.insert(text.end(), random() % 25, 'x');
      text.push_back(alphabet[random() % alphabet.size()]);
    }
    const std::string_view view(text.data(), text.size());
    const std::size_t expected = PlainTagEnd(view);
    TokenPos token(view);
    const NodeType type = token.ParseNode();
    ASSERT_EQ(type == NodeType::kStartTag ? token.end : 0, expected) << view;
    ASSERT_EQ(type == NodeType::kFault, expected == 0) << view;
  }
}

}  // namespace
