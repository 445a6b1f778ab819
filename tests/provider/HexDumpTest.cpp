#include "provider/HexDump.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qx::provider::NameHexDump;

TEST(HexDump, NullNameIsShownAsNull) { EXPECT_EQ(NameHexDump(nullptr), "(null)"); }

TEST(HexDump, EmptyNameHasNoRows) { EXPECT_EQ(NameHexDump(""), ""); }

TEST(HexDump, ShortNameIsOneRowWithoutOffsetOrPadding) {
  EXPECT_EQ(NameHexDump("r1"), "72 31   r1");
  EXPECT_EQ(NameHexDump("x"), "78   x");
}

TEST(HexDump, SixteenBytesAreStillOneRowWithoutOffset) {
  EXPECT_EQ(NameHexDump("0123456789abcdef"), "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66   0123456789abcdef");
}

TEST(HexDump, SeventeenBytesShowOffsetsAndPadTheShortLastRow) {
  EXPECT_EQ(NameHexDump("0123456789abcdefg"),
            "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66   0123456789abcdef\n"
            "0010: 67                                                g               ");
}

TEST(HexDump, FullLastRowHasNoPaddingAndNoLineFeed) {
  EXPECT_EQ(NameHexDump("0123456789abcdefFEDCBA9876543210"),
            "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66   0123456789abcdef\n"
            "0010: 46 45 44 43 42 41 39 38 37 36 35 34 33 32 31 30   FEDCBA9876543210");
}

TEST(HexDump, OnlyBytesFrom32To126AreShownAsCharacters) {
  EXPECT_EQ(NameHexDump("\x1f\x20\x7e\x7f\x80\xff\n%"), "1F 20 7E 7F 80 FF 0A 25   . ~....%");
}

TEST(HexDump, OffsetIsFourUpperCaseHexadecimalDigits) {
  const std::string dump = NameHexDump(std::string(0xAB0 + 1, 'z').c_str());
  EXPECT_EQ(dump.substr(dump.rfind('\n') + 1, 9), "0AB0: 7A ");
}

}  // namespace
