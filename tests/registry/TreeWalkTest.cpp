#include "registry/tools/TreeWalk.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "registry/tools/TreeDiff.h"

namespace qx::registry {

namespace {

struct Walked {
  std::vector<std::string> paths;
  std::size_t too_deep = 0;
  bool is_cut = false;

  bool operator==(const Walked&) const = default;
};

Walked Walk(const std::string& file, WalkLimits limits = {}, const std::string& path = "") {
  CRegistryNode tree;
  EXPECT_TRUE(ParseTree(file, tree));
  TreeWalk walk(tree, path, limits);
  Walked walked;
  while (walk.Next()) walked.paths.push_back(walk.Path());
  EXPECT_FALSE(walk.Next()) << "the end stays the end";
  walked.too_deep = walk.KeysTooDeep();
  walked.is_cut = walk.IsCut();
  return walked;
}

std::string Chain(int levels) {
  std::string file = "x=d=1\n";
  for (int level = 0; level < levels; ++level) file += "[k]\n";
  return file;
}

constexpr char kTree[] = "x=d=1\n[A]\n[B]\n[C]\n\n\n[D]\n\n\n[E]\n\n\n";

TEST(TreeWalk, KeysAreInTheOrderOfTheFile) {
  EXPECT_EQ(Walk(kTree).paths, (std::vector<std::string>{"", "A", "A/B", "A/B/C", "A/D", "E"}));
}

TEST(TreeWalk, PathBeginsWithThatOfTheFirstKey) {
  EXPECT_EQ(Walk("x=d=1\n[A]\n", {}, "HKEY/S").paths, (std::vector<std::string>{"HKEY/S", "HKEY/S/A"}));
  EXPECT_EQ(Walk("x=d=1\n[A]\n", {}, "HKEY/").paths, (std::vector<std::string>{"HKEY/", "HKEY/A"}));
}

TEST(TreeWalk, KeysBelowTheLimitOfDepthAreCounted) {
  EXPECT_EQ(Walk(kTree, {.depth = 1}), (Walked{.paths = {"", "A", "E"}, .too_deep = 2}));
  EXPECT_EQ(Walk(kTree, {.depth = 2}), (Walked{.paths = {"", "A", "A/B", "A/D", "E"}, .too_deep = 1}));
  EXPECT_EQ(Walk(kTree, {.depth = 3}).too_deep, 0U);
}

TEST(TreeWalk, LimitOfThePathsEndsTheWalk) {
  EXPECT_EQ(Walk(kTree, {.path_bytes = 4}), (Walked{.paths = {"", "A", "A/B"}, .is_cut = true}));
  EXPECT_FALSE(Walk(kTree, {.path_bytes = 13}).is_cut);
}

// The tree has a million levels. All its paths together would take a terabyte.
TEST(TreeWalk, HostileChainEndsAtTheDepth) {
  const Walked walked = Walk(Chain(1'000'000));
  EXPECT_EQ(walked.paths.size(), 1001U);
  EXPECT_EQ(walked.too_deep, 1U);
}

}  // namespace

}  // namespace qx::registry
