// Tests documents as commands build them, and their text.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxctl/cli/text/JsonText.h"

namespace qx::test {

namespace {

using ctl::Json;
using ctl::JsonLine;

}  // namespace

TEST(QxctlJson, EachKindOfValueHasItsText) {
  EXPECT_EQ(JsonLine(Json()), "null");
  EXPECT_EQ(JsonLine(nullptr), "null");
  EXPECT_EQ(JsonLine(true), "true");
  EXPECT_EQ(JsonLine(-1), "-1");
  EXPECT_EQ(JsonLine(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(JsonLine(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(JsonLine(0.5), "0.5");
  EXPECT_EQ(JsonLine("a\"\n"), R"("a\"\n")");
  EXPECT_EQ(JsonLine(std::vector<std::string>{"a", "b", "c"}), R"(["a","b","c"])");
  EXPECT_EQ(JsonLine(Json::Array()), "[]");
}

TEST(QxctlJson, ListOfPairsThatBeginWithATextIsAnObject) {
  EXPECT_EQ(JsonLine({{"b", 1}, {"a", nullptr}}), R"({"b":1,"a":null})");
  EXPECT_EQ(JsonLine({{"list", {1, 2, 3}}, {"object", {{"x", "y"}}}}), R"({"list":[1,2,3],"object":{"x":"y"}})");
  EXPECT_EQ(JsonLine({{1, 2}, {3, 4}}), "[[1,2],[3,4]]");
  EXPECT_EQ(JsonLine({"x", "y", "z"}), R"(["x","y","z"])");
}

TEST(QxctlJson, MembersKeepTheOrderOfTheirAddition) {
  Json object;
  object["z"] = 1;
  object["a"] = 2;
  object["z"] = 3;
  EXPECT_EQ(JsonLine(object), R"({"z":3,"a":2})");
}

TEST(QxctlJson, MergingReplacesMembersAndAddsOthers) {
  Json object = {{"a", 1}, {"b", 2}};
  object.Merge({{"b", 3}, {"c", 4}});
  EXPECT_EQ(JsonLine(object), R"({"a":1,"b":3,"c":4})");
}

TEST(QxctlJson, NullBecomesWhatIsAddedToIt) {
  Json object;
  object["list"].Append(1);
  object["list"].Append({{"a", 2}});
  EXPECT_EQ(JsonLine(object), R"({"list":[1,{"a":2}]})");
}

TEST(QxctlJson, BytesThatAreNotUtf8AreReplaced) {
  EXPECT_EQ(JsonLine("a\xFFz"), "\"a\xEF\xBF\xBDz\"");
  EXPECT_EQ(ctl::ValidUtf8("a\xFFz"), "a\xEF\xBF\xBDz");
  EXPECT_FALSE(ctl::IsUtf8("\xC3"));
  EXPECT_TRUE(ctl::IsUtf8("\xC3\xA4"));
}

TEST(QxctlJson, DocumentIsIndentedByTwo) {
  EXPECT_EQ(ctl::JsonText({{"a", {1, 2, 3}}}), "{\n  \"a\": [\n    1,\n    2,\n    3\n  ]\n}");
}

}  // namespace qx::test
