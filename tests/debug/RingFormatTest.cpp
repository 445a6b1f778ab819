#include "debug/RingFormat.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qx::debug::FormatRingNumber;
using qx::debug::ReadRingNumber;

std::string Digits(std::uint32_t number) {
  char digits[qx::debug::kRingNumberDigits];
  FormatRingNumber(number, digits);
  return {digits, sizeof digits};
}

TEST(RingFormat, NumbersHaveSixteenDigits) {
  EXPECT_EQ(Digits(0), "0000000000000000");
  EXPECT_EQ(Digits(7), "0000000000000007");
  EXPECT_EQ(Digits(1024), "0000000000001024");
  EXPECT_EQ(Digits(4294967295), "0000004294967295");
}

TEST(RingFormat, NumbersAreReadBack) {
  for (const std::uint32_t number : {0U, 1U, 99U, 100U, 1024U, 99999999U, 100000000U, 4294967295U}) {
    EXPECT_EQ(ReadRingNumber(Digits(number)), number);
  }
}

TEST(RingFormat, WhatIsNoNumberIsNotRead) {
  for (const char* text : {"", "000000000000001", "000000000000000x", "x000000000000000", " 000000000000001",
                           "-000000000000001", "0000004294967296", "9999999999999999"}) {
    EXPECT_EQ(ReadRingNumber(text), std::nullopt) << text;
  }
}

TEST(RingFormat, ValuesAreCutTo43CharactersAndAtANul) {
  char bytes[qx::debug::kRingHeaderBytes];
  const std::string path(60, 'p');
  qx::debug::FormatRingHeader({path, std::string_view("ab\0cd", 5), "", 1, 2, 3, 4}, bytes);
  EXPECT_EQ(std::string(bytes, 240),
            "FilePath                         : ppppppppppppppppppppppppppppppppppppppppppp|\n"
            "FirstOpen                        : ab                                         |\n"
            "LastOpen                         :                                            |\n");
}

}  // namespace
