// Checks the links of the pages: every link leads to a file and a heading, and every page can be found from the index.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/docs/Page.h"
#include "tests/support/Support.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;

bool IsOfTheWeb(const std::string& target) { return target.starts_with("http://") || target.starts_with("https://"); }

// The path below the source tree that a link of `page` leads to, without the anchor.
std::string PathOf(const std::string& page, const std::string& target) {
  const std::string path = target.substr(0, target.find('#'));
  if (path.empty()) return page;
  return (fs::path(page).parent_path() / path).lexically_normal().string();
}

bool HasAnchor(const std::string& page, const std::string& anchor) {
  const std::vector<std::string> anchors = ReadPage(page).anchors;
  return std::find(anchors.begin(), anchors.end(), anchor) != anchors.end();
}

// The reason why the link leads nowhere; empty if it is valid.
std::string FaultOf(const std::string& page, const std::string& target) {
  if (IsOfTheWeb(target)) return "";
  const std::string path = PathOf(page, target);
  if (!fs::exists(fs::path(QX_SOURCE_DIR) / path)) return "there is no " + path;
  const std::size_t hash = target.find('#');
  if (hash == std::string::npos) return "";
  return HasAnchor(path, target.substr(hash + 1)) ? "" : path + " has no heading for #" + target.substr(hash + 1);
}

std::set<std::string> PagesLinkedFrom(const std::string& page) {
  std::set<std::string> pages;
  for (const Link& link : ReadPage(page).links) {
    if (!IsOfTheWeb(link.target)) pages.insert(PathOf(page, link.target));
  }
  return pages;
}

// The code of all tests as one text.
std::string TestSources() {
  std::string text;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(fs::path(QX_SOURCE_DIR) / "tests")) {
    if (entry.path().extension() == ".cpp") text += ReadFile(entry.path());
  }
  return text;
}

// "| a | b | `Suite.Name`, `Other` |" => "Suite.Name", "Other"
std::vector<std::string> NamesInLastCell(std::string line) {
  std::vector<std::string> names;
  line.resize(line.rfind(" |"));
  std::string cell = line.substr(line.rfind("| ") + 2);
  for (std::size_t at = cell.find('`'); at != std::string::npos; at = cell.find('`')) {
    const std::size_t end = std::min(cell.find('`', at + 1), cell.size() - 1);
    names.push_back(cell.substr(at + 1, end - at - 1));
    cell.erase(0, end + 1);
  }
  return names;
}

}  // namespace

TEST(DocsLinks, EveryLinkLeadsToAFileAndAHeadingThatExist) {
  for (const std::string& name : PageNames()) {
    for (const Link& link : ReadPage(name).links) {
      EXPECT_EQ(FaultOf(name, link.target), "") << name << ":" << link.line << ": " << link.target;
    }
  }
}

TEST(DocsLinks, IndexLinksEveryPage) {
  const std::set<std::string> linked = PagesLinkedFrom("docs/README.md");
  for (const std::string& name : PageNames()) {
    const bool is_indexed = name.starts_with("docs/") && name != "docs/README.md";
    EXPECT_TRUE(!is_indexed || linked.count(name) == 1) << name;
  }
}

TEST(DocsLinks, FrontPageLinksTheIndexAndFitsOnAScreen) {
  EXPECT_EQ(PagesLinkedFrom("README.md").count("docs/README.md"), 1U);
  const std::string text = ReadFile(std::string(QX_SOURCE_DIR) + "/README.md");
  EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 60);
}

TEST(DocsLinks, EveryTestNamedByAPromiseExists) {
  const std::string sources = TestSources();
  std::size_t count = 0;
  std::istringstream lines(ReadFile(std::string(QX_SOURCE_DIR) + "/docs/reliability.md"));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("| ") || !line.ends_with(" |")) continue;
    for (std::string name : NamesInLastCell(line)) {
      if (name.starts_with("script/")) continue;  // a program, not a test
      const std::size_t dot = name.find('.');
      const std::string end = dot == std::string::npos ? "," : ")";
      if (dot != std::string::npos) name.replace(dot, 1, ", ");
      EXPECT_NE(sources.find("(" + name + end), std::string::npos) << name;
      ++count;
    }
  }
  EXPECT_GE(count, 20U);
}

TEST(DocsLinks, BrokenLinkIsFound) {
  EXPECT_EQ(FaultOf("docs/qxctl.md", "operations.md"), "");
  EXPECT_EQ(FaultOf("docs/qxctl.md", "#exit-codes"), "");
  EXPECT_EQ(FaultOf("docs/qxctl.md", "../CONTRIBUTING.md#a-change"), "");
  EXPECT_EQ(FaultOf("docs/qxctl.md", "nowhere.md"), "there is no docs/nowhere.md");
  EXPECT_EQ(FaultOf("docs/qxctl.md", "operations.md#nowhere"), "docs/operations.md has no heading for #nowhere");
}

}  // namespace qx::test
