// Tests the comparison of trees, changes to a tree, and which trees a registry file cannot store.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "registry/RegistryValue.h"
#include "registry/TreeWriter.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeEdit.h"
#include "tests/support/Support.h"

namespace qx::registry {

namespace {

using testing::HasSubstr;

constexpr char kToolsTree[] =
    "[HKEY_LOCAL_MACHINE]\n"
    "[SOFTWARE]\n"
    "Count=d=-5\n"
    "Name=s=text\n"
    "[Sub]\n"
    "x=s=\n"
    "\n\n\n\n";

TreeValue Text(const std::string& text, int type = REG_SZ) { return {type, text}; }
TreeValue Block(const std::string& bytes) { return {REG_BINARY, bytes}; }
TreeValue Number(std::int32_t number) {
  return {REG_DWORD, std::string(reinterpret_cast<const char*>(&number), sizeof number)};
}
const TreeValue kKey = {REG_NODE, ""};

class TreeTools : public testing::Test {
 protected:
  TreeTools() { EXPECT_TRUE(ParseTree(kToolsTree, tree_)); }

  static std::string TextOf(const CRegistryNode& tree) {
    std::string text;
    EXPECT_TRUE(FormatTree(tree, text));
    return text;
  }
  // "KEY: NAME" for each change.
  static std::vector<std::string> NamesOf(const TreeDifference& difference) {
    std::vector<std::string> names;
    for (const TreeChange& change : difference.changes) names.push_back(change.key + ": " + change.name);
    return names;
  }
  std::string ReasonAgainst(const std::string& name, const TreeValue& value) {
    EXPECT_EQ(SetValue(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE", name, value), EditState::kDone);
    std::string text;
    const auto refusal = WhyNotStorable(tree_, text);
    return refusal ? refusal->reason : "";
  }

  CRegistryNode tree_;
};

}  // namespace

// --- comparing

TEST_F(TreeTools, TreeDoesNotDifferFromItself) {
  CRegistryNode again;
  ASSERT_TRUE(ParseTree(kToolsTree, again));
  EXPECT_TRUE(Compare(tree_, again).changes.empty());
}

TEST_F(TreeTools, ChangesAreListedByKeyValuesBeforeSubkeys) {
  CRegistryNode other;
  ASSERT_TRUE(
      ParseTree("[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nCount=d=7\nName=s=text\nZ=b=0a \n[A]\n[B]\n\n\n\n\n\n", other));
  const TreeDifference difference = Compare(tree_, other);
  EXPECT_EQ(NamesOf(difference),
            (std::vector<std::string>{"HKEY_LOCAL_MACHINE/SOFTWARE: Count", "HKEY_LOCAL_MACHINE/SOFTWARE: Z",
                                      "HKEY_LOCAL_MACHINE/SOFTWARE: A", "HKEY_LOCAL_MACHINE/SOFTWARE: Sub",
                                      "HKEY_LOCAL_MACHINE/SOFTWARE/A: B", "HKEY_LOCAL_MACHINE/SOFTWARE/Sub: x"}));
  EXPECT_EQ(difference.changes[0].before, Number(-5));
  EXPECT_EQ(difference.changes[0].after, Number(7));
  EXPECT_EQ(difference.changes[1].before, std::nullopt);
  EXPECT_EQ(difference.changes[2].after, kKey);
  EXPECT_EQ(difference.changes[5].before, Text(""));
  EXPECT_EQ(difference.changes[5].after, std::nullopt);
}

TEST_F(TreeTools, TypeIsPartOfAValue) {
  CRegistryNode other;
  ASSERT_TRUE(ParseTree(kToolsTree, other));
  ASSERT_EQ(SetValue(other, "HKEY_LOCAL_MACHINE/SOFTWARE", "Name", Text("text", REG_EXPAND_SZ)), EditState::kDone);
  EXPECT_EQ(Compare(tree_, other).changes.size(), 1U);
}

TEST_F(TreeTools, ValueThatBecomesASubkeyIsOneChangeBeforeItsContent) {
  CRegistryNode other;
  ASSERT_TRUE(ParseTree("[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nCount=d=-5\n[Name]\ny=d=1\n\n[Sub]\nx=s=\n\n\n\n\n", other));
  EXPECT_EQ(NamesOf(Compare(tree_, other)),
            (std::vector<std::string>{"HKEY_LOCAL_MACHINE/SOFTWARE: Name", "HKEY_LOCAL_MACHINE/SOFTWARE/Name: y"}));
}

TEST_F(TreeTools, ListOfTooManyChangesIsMarkedAsCut) {
  std::string deep;
  for (int i = 0; i < 100'000; ++i) deep += "[k]\n";
  CRegistryNode other;
  ASSERT_TRUE(ParseTree(deep + "v=d=1\n", other));
  const TreeDifference difference = Compare(tree_, other);
  EXPECT_FALSE(difference.is_complete);
  EXPECT_LT(difference.changes.size(), 10'000U);
  EXPECT_TRUE(Compare(other, other).changes.empty());
}

// --- changing

TEST_F(TreeTools, SetMakesTheKeysOfThePath) {
  EXPECT_EQ(SetValue(tree_, "HKEY_USERS\\A/B/", "v", Number(1)), EditState::kDone);
  EXPECT_THAT(TextOf(tree_), HasSubstr("[HKEY_USERS]\n[A]\n[B]\nv=d=1\n\n\n\n"));
}

TEST_F(TreeTools, SetNeitherReplacesASubkeyNorGoesThroughAValue) {
  EXPECT_EQ(SetValue(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE", "Sub", Text("x")), EditState::kIsKey);
  EXPECT_EQ(SetValue(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE/Name/Deep", "v", Text("x")), EditState::kIsValue);
  EXPECT_EQ(SetValue(tree_, "HKEY_LOCAL_MACHIN/SOFTWARE", "v", Text("x")), EditState::kNoHive);
  EXPECT_EQ(SetValue(tree_, "", "v", Text("x")), EditState::kNoHive);
  EXPECT_EQ(SetValue(tree_, "HKEY_USERS", "v", {REG_DWORD, "abc"}), EditState::kBadType);
  EXPECT_EQ(SetValue(tree_, "HKEY_USERS", "v", {7, ""}), EditState::kBadType);
  EXPECT_EQ(SetValue(tree_, "HKEY_USERS", "v", Text(std::string("a\0b", 3))), EditState::kHoldsNul);
  EXPECT_EQ(SetValue(tree_, "HKEY_USERS", std::string("a\0b", 3), Text("")), EditState::kHoldsNul);
  EXPECT_EQ(TextOf(tree_), kToolsTree);
}

TEST_F(TreeTools, DeleteRemovesOnlyTheNamedEntry) {
  EXPECT_EQ(DeleteValue(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE", "name"), EditState::kNoValue);
  EXPECT_EQ(DeleteValue(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE", "Sub"), EditState::kIsKey);
  EXPECT_EQ(DeleteValue(tree_, "HKEY_LOCAL_MACHINE/Software", "Name"), EditState::kNoKey);
  EXPECT_EQ(DeleteKey(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE/Sub", false), EditState::kNotEmpty);
  EXPECT_EQ(DeleteKey(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE/Name", true), EditState::kIsValue);
  EXPECT_EQ(DeleteKey(tree_, "", true), EditState::kNoKey);
  EXPECT_EQ(TextOf(tree_), kToolsTree);
  EXPECT_EQ(DeleteValue(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE/Sub", "x"), EditState::kDone);
  EXPECT_EQ(DeleteKey(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE/Sub/", false), EditState::kDone);
  EXPECT_EQ(TextOf(tree_), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nCount=d=-5\nName=s=text\n\n\n\n");
  EXPECT_EQ(DeleteKey(tree_, "HKEY_LOCAL_MACHINE", true), EditState::kDone);
  EXPECT_EQ(TextOf(tree_), "\n");
}

TEST_F(TreeTools, MergeKeepsWhatTheOtherTreeDoesNotHave) {
  CRegistryNode other;
  ASSERT_TRUE(ParseTree("[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nCount=d=7\n[Sub]\ny=d=1\n\n\n[New]\n\n\n\n", other));
  EXPECT_EQ(MergeInto(tree_, other), EditState::kDone);
  EXPECT_EQ(TextOf(tree_),
            "[HKEY_LOCAL_MACHINE]\n[New]\n\n[SOFTWARE]\nCount=d=7\nName=s=text\n[Sub]\nx=s=\ny=d=1\n\n\n\n\n");
}

TEST_F(TreeTools, MergeReplacesAKeyByAValueAndViceVersa) {
  CRegistryNode other;
  ASSERT_TRUE(ParseTree("[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nSub=d=7\n[Count]\n\n\n\n\n", other));
  EXPECT_EQ(MergeInto(tree_, other), EditState::kDone);
  EXPECT_EQ(TextOf(tree_), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nName=s=text\nSub=d=7\n[Count]\n\n\n\n\n");
}

TEST_F(TreeTools, PartIsTheKeyAtItsPath) {
  CRegistryNode part;
  EXPECT_EQ(CopyPart(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE/Sub", part), EditState::kDone);
  EXPECT_EQ(TextOf(part), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Sub]\nx=s=\n\n\n\n\n");
  CRegistryNode nothing;
  EXPECT_EQ(CopyPart(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE/Name", nothing), EditState::kNoKey);
  EmptyKey(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE");
  EXPECT_EQ(TextOf(tree_), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n\n\n\n");
}

// --- what the file cannot store

TEST_F(TreeTools, ValuesThatAreReadBackMayBeStored) {
  EXPECT_EQ(ReasonAgainst("a", Text("b=c[d]")), "");
  EXPECT_EQ(ReasonAgainst("[abc", Text("x")), "");
  EXPECT_EQ(ReasonAgainst("", Text("")), "");
  EXPECT_EQ(ReasonAgainst("  blanks ", Text("  around \t\r")), "");
  EXPECT_EQ(ReasonAgainst("least", Number(INT32_MIN)), "");
  EXPECT_EQ(ReasonAgainst("bytes", Block(std::string("\n\0=", 3))), "");
  EXPECT_EQ(ReasonAgainst("none", Block("")), "");
  EXPECT_EQ(ReasonAgainst("n", Text(std::string(1018, 'x'))), "");  // with name and marker 1022
}

TEST_F(TreeTools, NameWithALineFeedIsRefused) { EXPECT_THAT(ReasonAgainst("a\nb", Text("")), HasSubstr("line feed")); }
TEST_F(TreeTools, TextWithALineFeedIsRefused) { EXPECT_THAT(ReasonAgainst("a", Text("\n")), HasSubstr("line feed")); }
TEST_F(TreeTools, NameWithAnEqualsSignIsRefused) { EXPECT_THAT(ReasonAgainst("a=b", Text("")), HasSubstr("\"=\"")); }
TEST_F(TreeTools, ValueThatLooksLikeAKeyIsRefused) {
  EXPECT_THAT(ReasonAgainst("[a", Text("]")), HasSubstr("would be a key"));
}
TEST_F(TreeTools, LineThatFillsTheBufferIsRefused) {
  EXPECT_THAT(ReasonAgainst("n", Text(std::string(1019, 'x'))), HasSubstr("1023 characters"));
}
TEST_F(TreeTools, BlockWhoseLineIsTooLongIsRefused) {
  EXPECT_THAT(ReasonAgainst("n", Block(std::string(340, 'x'))), HasSubstr("1024 characters"));
}
TEST_F(TreeTools, KeyWithABracketIsRefused) {
  ASSERT_EQ(SetValue(tree_, "HKEY_USERS/a]b", "v", Number(1)), EditState::kDone);
  std::string text;
  const auto refusal = WhyNotStorable(tree_, text);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->key, "HKEY_USERS");
  EXPECT_EQ(refusal->name, "a]b");
}

TEST_F(TreeTools, TreeWithoutValuesIsRefused) {
  ASSERT_EQ(DeleteKey(tree_, "HKEY_LOCAL_MACHINE/SOFTWARE", true), EditState::kDone);
  std::string text;
  const auto refusal = WhyNotStorable(tree_, text);
  ASSERT_TRUE(refusal);
  EXPECT_THAT(refusal->reason, HasSubstr("no value is left"));
}

// --- at random

namespace {

// Names and texts that may contain every byte with a meaning in the file.
std::string RandomText(std::mt19937_64& random, bool may_be_long) {
  constexpr char kBytes[] = {'a',  'b',    'A', '=', '[', ']', '\n', '\r',  ' ',
                             '\t', '\xFF', '%', ';', 's', 'd', '/',  '\x01'};
  const std::size_t roll = random() % 40;
  std::string text(may_be_long && roll == 0 ? 1005 + random() % 20 : random() % 4, 'x');
  for (std::size_t i = 0; i < 3 && !text.empty(); ++i) {
    // Most bytes are ordinary letters; otherwise hardly any name or text would be accepted.
    text[random() % text.size()] = kBytes[random() % (random() % 4 == 0 ? sizeof kBytes : 3)];
  }
  return text;
}

TreeValue RandomValue(std::mt19937_64& random) {
  switch (random() % 4) {
    case 0:
      return Text(RandomText(random, true));
    case 1:
      return Text(RandomText(random, true), REG_EXPAND_SZ);
    case 2:
      return Number(static_cast<std::int32_t>(random()));
    default:
      return Block(random() % 20 == 0 ? std::string(330 + random() % 15, '\n') : RandomText(random, false));
  }
}

void FillAtRandom(CRegistryNode& tree, std::mt19937_64& random) {
  const std::size_t count = random() % 5;
  for (std::size_t i = 0; i < count; ++i) {
    std::string key = random() % 2 == 0 ? "HKEY_USERS" : "HKEY_LOCAL_MACHINE";
    for (std::size_t depth = random() % 3; depth > 0; --depth) key += "\\" + RandomText(random, random() % 8 == 0);
    // If a subkey has this name, or a value is on the path, the tree stays as it is.
    (void)SetValue(tree, key, RandomText(random, random() % 8 == 0), RandomValue(random));
  }
}

bool LoadsAsItWasSaved(const CRegistryNode& tree) {
  std::string text;
  CRegistryNode again;
  return FormatTree(tree, text) && ParseTree(text, again) && Compare(tree, again).changes.empty();
}

bool HasLineOverTheLimit(const std::string& text) {
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    if (end - begin > 1022) return true;
    begin = end + 1;
  }
  return false;
}

}  // namespace

TEST_F(TreeTools, AcceptedValuesAreReadBackAndRefusedOnesAreNot) {
  std::mt19937_64 random(qx::test::Seed("tree-storable"));
  int accepted = 0;
  int refused = 0;
  for (int round = 0; round < 10'000; ++round) {
    CRegistryNode tree;
    FillAtRandom(tree, random);
    std::string text;
    const auto refusal = WhyNotStorable(tree, text);
    if (!refusal) {
      ++accepted;
      EXPECT_EQ(text, TextOf(tree));
      EXPECT_TRUE(LoadsAsItWasSaved(tree)) << text;
      continue;
    }
    ++refused;
    EXPECT_FALSE(refusal->reason.empty());
    const bool has_no_value = refusal->reason.find("no value is left") != std::string::npos;
    // A line over the limit is refused, even if only a blank would be cut off.
    const bool is_too_long = refusal->reason.find("at most 1022") != std::string::npos;
    CRegistryNode again;
    EXPECT_EQ(has_no_value, !ParseTree(TextOf(tree), again) && Compare(tree, again).changes.empty());
    EXPECT_EQ(is_too_long, is_too_long && HasLineOverTheLimit(TextOf(tree)));
    if (has_no_value || is_too_long) continue;
    EXPECT_FALSE(LoadsAsItWasSaved(tree)) << refusal->reason << "\n" << TextOf(tree);
  }
  EXPECT_GT(accepted, 2000);
  EXPECT_GT(refused, 2000);
}

TEST_F(TreeTools, MergeOfTheDifferencesMakesTreesEqual) {
  std::mt19937_64 random(qx::test::Seed("tree-merge"));
  for (int round = 0; round < 3'000; ++round) {
    CRegistryNode before;
    CRegistryNode after;
    FillAtRandom(before, random);
    FillAtRandom(after, random);
    const TreeDifference forth = Compare(before, after);
    EXPECT_EQ(forth.changes.size(), Compare(after, before).changes.size());
    CRegistryNode merged;
    ASSERT_EQ(MergeInto(merged, before), EditState::kDone);
    EXPECT_TRUE(Compare(before, merged).changes.empty());
    ASSERT_EQ(MergeInto(merged, after), EditState::kDone);
    for (const TreeChange& change : Compare(merged, after).changes) EXPECT_TRUE(change.before) << change.name;
    EmptyKey(merged, "");
    ASSERT_EQ(MergeInto(merged, after), EditState::kDone);
    EXPECT_TRUE(Compare(merged, after).changes.empty());
  }
}

}  // namespace qx::registry
