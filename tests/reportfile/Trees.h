// Makes and compares directory trees. A tree is a map from path to contents.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qx::test {

// "sub/" is a directory, "sub/a" a file with these contents. A link is shown as its target; a link without a target is
// left out.
using Tree = std::map<std::string, std::string>;

inline Tree::value_type Pair(std::string path, std::string contents) { return {std::move(path), std::move(contents)}; }

// Makes the entries below `root`, and every directory that they need.
void MakeTree(const std::string& root, const Tree& entries);

// Makes a symbolic link at `path`.
void MakeLink(const std::string& target, const std::string& path);

// The entries below `root`; links to directories are not followed. Empty if there is no `root`.
Tree ContentsOf(const std::string& root);

mode_t ModeOf(const std::string& path);

// The lines, with "T" in place of every `directory` in them.
std::vector<std::string> Shortened(std::vector<std::string> lines, const std::string& directory);

// Runs `work` to its end in a thread whose stack has 192 KiB.
void RunOnSmallStack(const std::function<void()>& work);

class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask);
  ~ScopedUmask();
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  mode_t old_;
};

// Until the end of the scope, only `count` more files can be opened.
class ScopedDescriptorLimit {
 public:
  explicit ScopedDescriptorLimit(unsigned count);
  ~ScopedDescriptorLimit();
  ScopedDescriptorLimit(const ScopedDescriptorLimit&) = delete;
  ScopedDescriptorLimit& operator=(const ScopedDescriptorLimit&) = delete;

 private:
  unsigned long old_;
};

}  // namespace qx::test
