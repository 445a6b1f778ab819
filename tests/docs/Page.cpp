#include "tests/docs/Page.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <sstream>
#include <string_view>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;

const char kFence[] = "```";

std::string SourcePath(const std::string& name) { return std::string(QX_SOURCE_DIR) + "/" + name; }

// "<!-- not run: needs root -->" => "needs root"
std::string ReasonIn(std::string_view line) {
  constexpr std::string_view kBegin = "<!-- not run: ";
  constexpr std::string_view kEnd = " -->";
  if (!line.starts_with(kBegin) || !line.ends_with(kEnd)) return "";
  line.remove_prefix(kBegin.size());
  line.remove_suffix(kEnd.size());
  return std::string(line);
}

// The anchor that sites which show such pages make of a heading: lower case, hyphens for blanks, no other signs.
//   "What `fetch` does, and when"  => "what-fetch-does-and-when"
std::string AnchorOf(std::string_view heading) {
  std::string anchor;
  for (const char c : heading) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || c == '-' || c == '_' || byte >= 0x80) {
      anchor += static_cast<char>(std::tolower(byte));
    } else if (c == ' ') {
      anchor += '-';
    }
  }
  return anchor;
}

// The line without the code between backticks, because a link in code is not a link.
std::string WithoutCode(std::string_view line) {
  std::string text;
  bool is_code = false;
  for (const char c : line) {
    if (c == '`') is_code = !is_code;
    if (!is_code && c != '`') text += c;
  }
  return text;
}

// The text of a heading without the targets of its links: "[a](b)" is shown as "a".
std::string WithoutTargets(std::string text) {
  for (std::size_t at = text.find("]("); at != std::string::npos; at = text.find("](")) {
    const std::size_t end = std::min(text.find(')', at), text.size() - 1);
    text.erase(at, end - at + 1);
  }
  return text;
}

class Reader {
 public:
  explicit Reader(std::string name) { page_.name = std::move(name); }

  void Line(const std::string& line) {
    ++number_;
    if (line.starts_with(kFence)) {
      Fence(line);
    } else if (in_fence_) {
      if (in_session_) page_.sessions.back().text += line + "\n";
    } else {
      Prose(line);
    }
  }

  Page Take() { return std::move(page_); }

 private:
  void Fence(const std::string& line) {
    in_fence_ = !in_fence_;
    in_session_ = in_fence_ && line == "```console";
    if (in_session_) page_.sessions.push_back({number_, "", reason_});
    reason_.clear();
  }

  void Prose(const std::string& line) {
    if (line == "<!-- sessions: on a new machine -->") page_.is_of_new_machine = true;
    if (std::string reason = ReasonIn(line); !reason.empty()) reason_ = std::move(reason);
    if (line.starts_with('#')) Heading(line.substr(std::min(line.find(' ') + 1, line.size())));
    const std::string text = WithoutCode(line);
    for (std::size_t at = text.find("]("); at != std::string::npos; at = text.find("](", at + 2)) {
      const std::size_t end = text.find(')', at);
      if (end != std::string::npos) page_.links.push_back({number_, text.substr(at + 2, end - at - 2)});
    }
  }

  // If headings have the same text, the anchors of the later ones end with "-1", "-2".
  void Heading(const std::string& text) {
    std::string anchor = AnchorOf(WithoutTargets(text));
    const int before = seen_[anchor]++;
    if (before > 0) anchor += "-" + std::to_string(before);
    page_.anchors.push_back(std::move(anchor));
  }

  Page page_;
  int number_ = 0;
  bool in_fence_ = false;
  bool in_session_ = false;
  std::string reason_;
  std::map<std::string, int> seen_;
};

}  // namespace

std::vector<std::string> PageNames() {
  std::vector<std::string> names = {"CHANGELOG.md", "CONTRIBUTING.md", "README.md"};
  for (const char* const folder : {"docs", "examples"}) {
    if (!fs::is_directory(SourcePath(folder))) continue;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(SourcePath(folder))) {
      if (entry.path().extension() == ".md") names.push_back(fs::relative(entry.path(), QX_SOURCE_DIR).string());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

Page ReadPage(const std::string& name) {
  Reader reader(name);
  std::istringstream lines(ReadFile(SourcePath(name)));
  for (std::string line; std::getline(lines, line);) reader.Line(line);
  return reader.Take();
}

}  // namespace qx::test
