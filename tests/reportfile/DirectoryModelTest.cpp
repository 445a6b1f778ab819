// Compares random copies and removals of random trees with a plain model.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "reportfile/Directory.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

struct ModelEntry {
  bool is_directory = false;
  mode_t mode = 0;
  std::string contents;
  bool operator==(const ModelEntry&) const = default;
};

// Path without a slash at its end => entry. "" is the root; it exists if there is any entry.
using Model = std::map<std::string, ModelEntry>;
using NameTest = std::function<bool(const std::string&)>;

constexpr mode_t kUmask = 022;

std::string Joined(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + "/" + name;
}

std::vector<std::string> NamesIn(const Model& model, const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& [path, entry] : model) {
    const std::size_t slash = path.rfind('/');
    const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash);
    if (!path.empty() && parent == directory) names.push_back(path.substr(slash + 1));
  }
  std::sort(names.begin(), names.end());
  return names;
}

void ModelCopy(const Model& from, Model& to, const std::string& directory, const NameTest& matches, bool overwrite) {
  for (const std::string& name : NamesIn(from, directory)) {
    if (!matches(name)) continue;
    const std::string path = Joined(directory, name);
    const ModelEntry& entry = from.at(path);
    const bool is_new = !to.contains(path);
    to.insert({"", {true, 0711, ""}});
    if (entry.is_directory) {
      if (!is_new && !overwrite) continue;
      to.insert({path, {true, 0711, ""}});
      ModelCopy(from, to, path, matches, overwrite);
    } else if (is_new) {
      to[path] = {false, entry.mode & ~kUmask, entry.contents};
    } else if (overwrite) {
      to[path].contents = entry.contents;
    }
  }
}

// Returns false if an entry could not be removed. The removal ends there.
bool ModelRemove(Model& model, const std::string& directory, bool with_parent) {
  for (const std::string& name : NamesIn(model, directory)) {
    const std::string path = Joined(directory, name);
    if (name.starts_with('.')) continue;
    if (!model.at(path).is_directory) {
      model.erase(path);
    } else if (!ModelRemove(model, path, true)) {
      return false;
    }
  }
  if (!with_parent) return true;
  if (!NamesIn(model, directory).empty()) return false;
  model.erase(directory);
  return true;
}

class RandomTrees {
 public:
  explicit RandomTrees(std::uint64_t seed) : random_(seed) {}

  std::size_t Below(std::size_t end) { return random_() % end; }

  // A file and a directory never have the same name, so any tree can be copied over any other.
  Model Tree(bool with_hidden) {
    Model model = {{"", {true, 0755, ""}}};
    std::vector<std::string> directories = {""};
    for (std::size_t left = Below(25); left > 0; --left) {
      const std::string parent = directories[Below(directories.size())];
      if (Below(4) == 0) {
        directories.push_back(Joined(parent, PickName(kDirectoryNames, with_hidden)));
        model.insert({directories.back(), {true, 0755, ""}});
      } else {
        model[Joined(parent, PickName(kFileNames, with_hidden))] = {false, kModes[Below(5)], Contents()};
      }
    }
    return model;
  }

 private:
  static inline const std::vector<std::string> kFileNames = {"f1", "f2.dat", "g1.ind", "[f]", "*",      "x y",
                                                             "\\", "f?",     "\xff",   "r.1", ".fhide", ".h1"};
  static inline const std::vector<std::string> kDirectoryNames = {"d1", "fd.1", "[a-z]", "*.*", ".d1", ".fd"};
  static constexpr mode_t kModes[] = {0600, 0644, 0640, 0755, 0666};

  // Picks a name. The last two names of each list are hidden.
  std::string PickName(const std::vector<std::string>& names, bool with_hidden) {
    return names[Below(names.size() - (with_hidden ? 0 : 2))];
  }

  std::string Contents() {
    const std::size_t size = Below(3) == 0 ? Below(70000) : Below(300);
    return std::string(size, static_cast<char>(Below(256)));
  }

  std::mt19937_64 random_;
};

void Make(const std::string& root, const Model& model) {
  for (const auto& [path, entry] : model) {
    const std::string whole = path.empty() ? root : root + "/" + path;
    if (entry.is_directory) {
      std::filesystem::create_directory(whole);
    } else {
      WriteFile(whole, entry.contents);
    }
    chmod(whole.c_str(), entry.mode);
  }
}

Model Found(const std::string& root) {
  Model model;
  if (!Exists(root)) return model;
  model[""] = {true, ModeOf(root), ""};
  for (const auto& [path, contents] : ContentsOf(root)) {
    const bool is_directory = path.ends_with('/');
    const std::string name = is_directory ? path.substr(0, path.size() - 1) : path;
    model[name] = {is_directory, ModeOf(root + "/" + name), contents};
  }
  return model;
}

struct Pattern {
  const char* text;
  NameTest matches;
};

const Pattern kPatterns[] = {
    {"*.*", [](const std::string&) { return true; }},
    {"*", [](const std::string&) { return true; }},
    {"f*", [](const std::string& name) { return name.starts_with('f'); }},
    {"*1*", [](const std::string& name) { return name.find('1') != std::string::npos; }},
    {"?[1d]*", [](const std::string& name) { return name.size() > 1 && (name[1] == '1' || name[1] == 'd'); }},
    {"d1", [](const std::string& name) { return name == "d1"; }},
};

class DirectoryModel : public testing::Test {
 protected:
  const ScopedUmask umask_{kUmask};
};

TEST_F(DirectoryModel, RandomCopiesLeaveTheTreeOfTheModel) {
  RandomTrees trees(Seed("DirectoryCopyModel"));
  for (int round = 0; round < 60 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const TempDir dir;
    const Model from = trees.Tree(true);
    Model to = trees.Below(3) == 0 ? Model() : trees.Tree(true);
    const bool overwrite = trees.Below(2) == 0;
    const Pattern& pattern = kPatterns[trees.Below(std::size(kPatterns))];
    Make(dir.File("from"), from);
    Make(dir.File("to"), to);

    EXPECT_TRUE(CDirectory::CopyDir(dir.File("from").c_str(), dir.File("to").c_str(), pattern.text, overwrite));
    ModelCopy(from, to, "", pattern.matches, overwrite);
    EXPECT_TRUE(Found(dir.File("to")) == to) << pattern.text << (overwrite ? " overwrite" : "");
    EXPECT_TRUE(Found(dir.File("from")) == from);
  }
}

TEST_F(DirectoryModel, RandomRemovalsLeaveTheTreeOfTheModel) {
  RandomTrees trees(Seed("DirectoryRemoveModel"));
  for (int round = 0; round < 60 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const TempDir dir;
    Model model = trees.Tree(trees.Below(2) == 0);
    const bool with_parent = trees.Below(2) == 0;
    Make(dir.File("top"), model);
    const bool expected = ModelRemove(model, "", with_parent);
    EXPECT_EQ(CDirectory::RemoveDir(dir.File("top").c_str(), with_parent), expected);
    EXPECT_TRUE(Found(dir.File("top")) == model);
  }
}

}  // namespace
}  // namespace qx::test
