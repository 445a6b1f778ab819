#include <gtest/gtest.h>

#include <clocale>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "markup/Escape.h"
#include "markup/Markup.h"
#include "markup/Pieces.h"
#include "tests/support/Support.h"

namespace {

constexpr int kQuotes = CMarkup::kEscapeQuotes;
constexpr int kKeep = CMarkup::kKeepReferences;

TEST(EscapeText, MarkupCharactersBecomeReferences) {
  struct Row {
    const char* text;
    int flags;
    const char* escaped;
  };
  const Row rows[] = {
      {"a<b & \"c\"", 0, "a&lt;b &amp; \"c\""},
      {"a<b & \"c\"", kQuotes, "a&lt;b &amp; &quot;c&quot;"},
      {"it's >", kQuotes, "it&apos;s &gt;"},
      {"it's >", 0, "it's &gt;"},
      {"", 0, ""},
      {nullptr, 0, ""},
      {"&lt;", 0, "&amp;lt;"},
      {"&lt; &#65; &#x4a; &#X4A; &name.1-x;", kKeep, "&lt; &#65; &#x4a; &#X4A; &name.1-x;"},
      {"& &; &#; &#x; &#6a; &#xg; &1; &a b; &a", kKeep,
       "&amp; &amp;; &amp;#; &amp;#x; &amp;#6a; &amp;#xg; &amp;1; &amp;a b; &amp;a"},
      {"&&lt;&", kKeep, "&amp;&lt;&amp;"},
      {"<&lt;\"", kKeep | kQuotes, "&lt;&lt;&quot;"},
      {"\xC3\xA4\x01", kQuotes, "\xC3\xA4\x01"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(CMarkup::EscapeText(row.text, row.flags), row.escaped) << (row.text == nullptr ? "null" : row.text);
  }
}

TEST(EscapeTextBinary, BytesThatAreNotPrintableBecomeReferences) {
  EXPECT_EQ(CMarkup::EscapeTextBinary("ab\x01"
                                      "c",
                                      kQuotes),
            "ab&#x01;c");
  EXPECT_EQ(CMarkup::EscapeTextBinary("\x1F ~\x7F\x80\xFF\n", 0), "&#x1F; ~&#x7F;&#x80;&#xFF;&#x0A;");
  EXPECT_EQ(CMarkup::EscapeTextBinary("<&\"\xE4", 0), "<&\"&#xE4;");
  EXPECT_EQ(CMarkup::EscapeTextBinary("<&\"\xE4", kQuotes), "&lt;&amp;&quot;&#xE4;");
  EXPECT_EQ(CMarkup::EscapeTextBinary("<\"\xE4", CMarkup::kAddCData), "&lt;\"&#xE4;");
  EXPECT_EQ(CMarkup::EscapeTextBinary(nullptr, kQuotes), "");
  EXPECT_EQ(CMarkup::EscapeTextBinary(std::string_view("a\0b", 3), 0), "a&#x00;b");
}

TEST(EscapeTextBinary, QuirkReferenceInTheTextItselfIsKept) {
  EXPECT_EQ(CMarkup::EscapeTextBinary("&lt;\x01", kQuotes), "&lt;&#x01;");
}

TEST(EscapeTextBinary, LocaleMakesNoDifference) {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  std::setlocale(LC_ALL, "");
  EXPECT_EQ(CMarkup::EscapeTextBinary("\xE4\xC3\xA4", 0), "&#xE4;&#xC3;&#xA4;");
  std::setlocale(LC_ALL, before.c_str());
}

TEST(UnescapeText, ReferencesBecomeCharacters) {
  struct Row {
    const char* text;
    const char* plain;
  };
  const Row rows[] = {
      {"&#65;&#x42;&amp;&unknown;", "AB&&unknown;"},
      {"&lt;&gt;&amp;&quot;&apos;", "<>&\"'"},
      {"&LT;&Amp;", "<&"},
      {"&#x41;&#X41;&#x4a;&#x4A;", "AAJJ"},
      {"& &amp;", "& &"},
      {"&&amp;", "&&"},
      {"&", "&"},
      {"&;", "&;"},
      {"&amp", "&amp"},
      {"&#;&#x;&#0;&#x0;", "&#;&#x;&#0;&#x0;"},
      {"&#6a;&#-5;&# 65;&#xg;", "&#6a;&#-5;&# 65;&#xg;"},
      {"&euml;", "\xC3\x8B"},  // the capital letter comes first in the table
      {"&Oslash;&oslash;", "\xC3\x98\xC3\x98"},
      {"&rArr;&rarr;&prime;", "\xE2\x87\x92\xE2\x87\x92\xE2\x80\xB3"},
      {"&thetasym;", "\xCF\x91"},
      {"&#8364;&#x1F600;", "\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {"&#127;&#128;&#x7FF;&#x800;&#x10000;",
       "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xF0\x90\x80\x80"},  // where the length in UTF-8 changes
      {"&#1114111;&#x10FFFF;", "\xF4\x8F\xBF\xBF\xF4\x8F\xBF\xBF"},
      {"&#1114112;&#x110000;&#99999999;", "&#1114112;&#x110000;&#99999999;"},
      {"&#xD800;&#xDFFF;&#55296;", "&#xD800;&#xDFFF;&#55296;"},
      {"&#00000065;", "A"},              // nine characters
      {"&#000000065;", "&#000000065;"},  // ten
      {"&am\xC3\xA4p;&amp;", "&am\xC3\xA4p;&"},
      {"&abcdefghi&amp;", "&abcdefghi&"},
  };
  for (const Row& row : rows) EXPECT_EQ(CMarkup::UnescapeText(row.text), row.plain) << row.text;
  EXPECT_EQ(CMarkup::UnescapeText(nullptr), "");
}

TEST(UnescapeText, OnlyTheGivenLengthIsRead) {
  EXPECT_EQ(CMarkup::UnescapeText("&amp;&amp;", 5), "&");
  EXPECT_EQ(CMarkup::UnescapeText("&amp;", 4), "&amp");
  EXPECT_EQ(CMarkup::UnescapeText("&amp;", 0), "");
  EXPECT_EQ(CMarkup::UnescapeText("&amp;", 100), "&");
  EXPECT_EQ(CMarkup::UnescapeText(std::string_view("\0&lt;\0", 6)), std::string("\0<\0", 3));
}

TEST(UnescapeText, FlagsTrimAndCollapseTheWhiteSpaceOfTheText) {
  const char* text = " \n a \t&#32; b&#10; ";
  EXPECT_EQ(CMarkup::UnescapeText(text), " \n a \t  b\n ");
  EXPECT_EQ(CMarkup::UnescapeText(text, -1, CMarkup::kTrimSpace), "a \t  b\n");
  EXPECT_EQ(CMarkup::UnescapeText(text, -1, CMarkup::kCollapseSpace), "a   b\n");
  EXPECT_EQ(CMarkup::UnescapeText(" \t ", -1, CMarkup::kTrimSpace), "");
  EXPECT_EQ(CMarkup::UnescapeText("", -1, CMarkup::kCollapseSpace), "");
}

TEST(UnescapeText, ReversesEscapeText) {
  std::mt19937_64 random(qx::test::Seed("Escape"));
  const std::string alphabet = "&<>\"';#xamp1 \xC3\xA4";
  for (int i = 0; i < 20000; ++i) {
    std::string text(random() % 40, ' ');
    for (char& c : text) c = alphabet[random() % alphabet.size()];
    for (const int flags : {0, kQuotes}) {
      const std::string escaped = CMarkup::EscapeText(text, flags);
      ASSERT_EQ(CMarkup::UnescapeText(escaped), text) << escaped;
      ASSERT_EQ(CMarkup::EscapeText(escaped, flags | kKeep), escaped);
    }
  }
}

// A text whose size is near that of a block or a stretch, with few or many characters to escape.
std::string RandomText(std::mt19937_64& random) {
  static constexpr std::string_view kPieces[] = {"&",     "<",     ">",         "\"",   "'", "&lt;",
                                                 "&amp;", "&#65;", "&no such;", "\xE4", ";"};
  const std::size_t sizes[] = {random() % 40, 1000 + random() % 60, 2040 + random() % 20};
  const std::size_t size = sizes[random() % 3];
  const unsigned density = 1U << (random() % 8);
  std::string text;
  while (text.size() < size) {
    if (random() % density == 0) {
      text += kPieces[random() % std::size(kPieces)];
    } else {
      text += static_cast<char>('a' + random() % 26);
    }
  }
  return text;
}

TEST(EscapeText, RandomTextsAreEscapedLikeInThePlainForm) {
  std::mt19937_64 random(qx::test::Seed("Escape"));
  for (int round = 0; round < 4000; ++round) {
    const std::string text = RandomText(random);
    for (const int flags : {0, 8, 0x100, 0x108}) {
      std::string fast = "before";
      std::string plain = "before";
      qx::markup::AppendEscaped(fast, text, flags);
      qx::markup::AppendEscapedPlain(plain, text, flags);
      ASSERT_EQ(fast, plain) << text;
    }
  }
}

std::string Together(qx::markup::Pieces& pieces) {
  std::string text;
  for (const qx::markup::Piece piece : pieces.All()) text.append(piece.data, piece.size);
  return text;
}

// AddEscaped accepts short texts as long as the buffer has space, and refuses long ones.
TEST(Pieces, RandomPiecesFollowOneAnotherHoweverTheyAreAdded) {
  std::mt19937_64 random(qx::test::Seed("Pieces"));
  for (int round = 0; round < 4000; ++round) {
    qx::markup::Pieces pieces;
    std::string plain;
    std::vector<std::string> kept;  // the pieces may be views of them
    kept.reserve(20);
    for (std::size_t left = random() % 20; left > 0; --left) {
      kept.push_back(RandomText(random));
      if (random() % 2 == 0) kept.back().resize(random() % 200, 'x');
      const int flags = static_cast<int>(random() % 2) * 8 + static_cast<int>(random() % 2) * 0x100;
      if (random() % 2 == 0 && qx::markup::AddEscaped(pieces, kept.back(), flags)) {
        qx::markup::AppendEscapedPlain(plain, kept.back(), flags);
      } else {
        pieces.Add(kept.back());
        plain += kept.back();
      }
      ASSERT_EQ(pieces.Bytes(), plain.size());
      if (random() % 4 == 0) {
        ASSERT_EQ(Together(pieces), plain);
      }
    }
    ASSERT_EQ(Together(pieces), plain);
  }
}

// In capitals, the five common references are found in the table, like all others.
TEST(UnescapeText, CommonReferencesAreReadLikeTableEntries) {
  std::mt19937_64 random(qx::test::Seed("Unescape"));
  for (int round = 0; round < 4000; ++round) {
    const std::string text = RandomText(random);
    std::string in_capitals = text;
    for (const std::string common : {"lt;", "gt;", "amp;", "quot;", "apos;"}) {
      for (std::size_t at = 0; (at = in_capitals.find("&" + common, at)) != std::string::npos; ++at) {
        for (std::size_t i = 1; i < common.size(); ++i)
          in_capitals[at + i] = static_cast<char>(in_capitals[at + i] - 32);
      }
    }
    ASSERT_EQ(CMarkup::UnescapeText(text), CMarkup::UnescapeText(in_capitals)) << text;
    ASSERT_EQ(CMarkup::UnescapeText(CMarkup::EscapeText(text, 0x100)), text);
  }
}

TEST(UnescapeText, RandomTextsAreUnescapedLikeInThePlainForm) {
  std::mt19937_64 random(qx::test::Seed("UnescapePlain"));
  for (int round = 0; round < 4000; ++round) {
    const std::string text = RandomText(random) + (random() % 2 == 0 ? "&#x1F600;&Omega;&#1114112;" : "&am");
    std::string plain = "before";
    qx::markup::AppendUnescapedPlain(plain, text);
    std::string fast = "before";
    qx::markup::AppendUnescaped(fast, text, 0);
    ASSERT_EQ(fast, plain) << text;
  }
}

TEST(CDataSection, NeverEndsInsideItsText) {
  EXPECT_EQ(CMarkup::x_EncodeCDATASection(""), "<![CDATA[]]>");
  EXPECT_EQ(CMarkup::x_EncodeCDATASection("<a>&"), "<![CDATA[<a>&]]>");
  EXPECT_EQ(CMarkup::x_EncodeCDATASection("a]]>b"), "<![CDATA[a]]]]><![CDATA[>b]]>");
  EXPECT_EQ(CMarkup::x_EncodeCDATASection("]]>]]>"), "<![CDATA[]]]]><![CDATA[>]]]]><![CDATA[>]]>");
  EXPECT_EQ(CMarkup::x_EncodeCDATASection("]]]]>"), "<![CDATA[]]]]]]><![CDATA[>]]>");
  EXPECT_EQ(CMarkup::x_EncodeCDATASection("]]"), "<![CDATA[]]]]>");
}

}  // namespace
