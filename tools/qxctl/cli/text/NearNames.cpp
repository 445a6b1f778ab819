#include "tools/qxctl/cli/text/NearNames.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kNearMax = 3;
constexpr std::size_t kWordCharsMax =
    64;  // a longer word is not a mistyped name, and the table of distances stays small

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) { return Lower(c); });
  return lower;
}

// The number of characters that must be changed, added, removed or exchanged with their neighbour.
//   "laod", "load" => 1     "verfy", "verify" => 1     "cat", "dog" => 3
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> rows(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) rows[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) rows[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = rows[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      rows[i][j] = std::min({changed, rows[i - 1][j] + 1, rows[i][j - 1] + 1});
      const bool is_exchanged = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (is_exchanged) rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
    }
  }
  return rows[a.size()][b.size()];
}

// The largest distance of a near name. For a word of one character it is 0: otherwise every such word would be near.
std::size_t DistanceMax(std::size_t chars) { return chars < 2 ? 0 : chars < 6 ? 1 : chars < 10 ? 2 : 3; }

}  // namespace

std::vector<std::string> NearNames(std::string_view word, const std::vector<std::string>& names) {
  if (word.empty() || word.size() > kWordCharsMax) return {};
  const std::string lower = Lower(word);
  std::vector<std::pair<std::size_t, std::string>> found;
  for (const std::string& name : names) {
    if (name.size() > kWordCharsMax) continue;
    const std::string other = Lower(name);
    const std::size_t distance = Distance(lower, other);
    const bool is_beginning = word.size() > 1 && other.starts_with(lower);
    if (is_beginning || distance <= DistanceMax(word.size())) found.emplace_back(is_beginning ? 1 : distance, name);
  }
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  if (found.size() > kNearMax) found.resize(kNearMax);
  std::vector<std::string> near;
  near.reserve(found.size());
  for (auto& [distance, name] : found) near.push_back(std::move(name));
  return near;
}

std::string DidYouMean(const std::vector<std::string>& near) {
  return near.empty() ? "" : "; did you mean " + Visible(Listed(near, "or")) + "?";
}

std::string Listed(const std::vector<std::string>& names, std::string_view last_separator) {
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0 && i + 1 < names.size()) text += ", ";
    if (i > 0 && i + 1 == names.size()) text.append(" ").append(last_separator).append(" ");
    text += names[i];
  }
  return text;
}

}  // namespace qx::ctl
