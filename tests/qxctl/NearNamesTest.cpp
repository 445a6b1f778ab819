// Tests which names are near a mistyped word, and how a message offers them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/qxctl/cli/text/NearNames.h"

namespace qx::ctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Names = std::vector<std::string>;

const Names kNames = {"load", "loads", "cpu", "network", "salvage", "verify"};

}  // namespace

TEST(NearNames, OneExchangedMissingAddedOrChangedCharacterIsNear) {
  EXPECT_THAT(NearNames("laod", kNames), ElementsAre("load"));
  EXPECT_THAT(NearNames("verfy", kNames), ElementsAre("verify"));
  EXPECT_THAT(NearNames("cpuu", kNames), ElementsAre("cpu"));
  EXPECT_THAT(NearNames("netwark", kNames), ElementsAre("network"));
}

TEST(NearNames, CapitalsDoNotMatterAndTheNearestComesFirst) {
  EXPECT_THAT(NearNames("LOAD", kNames), ElementsAre("load", "loads"));
}

TEST(NearNames, BeginningIsNear) { EXPECT_THAT(NearNames("sal", kNames), ElementsAre("salvage")); }

TEST(NearNames, WhatIsFarIsNotOffered) {
  EXPECT_THAT(NearNames("x", kNames), IsEmpty());
  EXPECT_THAT(NearNames("disk", kNames), IsEmpty());
  EXPECT_THAT(NearNames("", kNames), IsEmpty());
  EXPECT_THAT(NearNames(std::string(100000, 'a'), kNames), IsEmpty());
}

TEST(NearNames, AtMostThreeAndEachOnce) {
  EXPECT_THAT(NearNames("ab", {"aba", "abb", "abc", "abd", "aba"}), ElementsAre("aba", "abb", "abc"));
}

TEST(NearNames, AreOfferedInOneSentence) {
  EXPECT_EQ(DidYouMean({}), "");
  EXPECT_EQ(DidYouMean({"a"}), "; did you mean a?");
  EXPECT_EQ(DidYouMean({"a", "b"}), "; did you mean a or b?");
  EXPECT_EQ(DidYouMean({"a", "b", "c\n"}), "; did you mean a, b or c\\x0A?");
}

}  // namespace qx::ctl
