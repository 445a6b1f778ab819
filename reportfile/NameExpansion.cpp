#include "reportfile/NameExpansion.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "base/File.h"
#include "reportfile/DirectoryListing.h"

namespace qx::report {

namespace {

constexpr std::string_view kWildcards = "*?[";
constexpr std::string_view kSpecial = "*?[\\";

bool HasWildcard(std::string_view expression) {
  for (std::size_t i = 0; i < expression.size(); ++i) {
    if (expression[i] == '\\') {
      ++i;  // the next character means itself
    } else if (kWildcards.find(expression[i]) != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

//   b\[1\]  => b[1]
std::string Unescaped(std::string_view expression) {
  std::string text;
  for (std::size_t i = 0; i < expression.size(); ++i) {
    if (expression[i] == '\\' && i + 1 < expression.size()) ++i;
    text += expression[i];
  }
  return text;
}

bool Matches(const std::string& pattern, const std::string& name) {
  return pattern == "*" || fnmatch(pattern.c_str(), name.c_str(), 0) == 0;  // "*" also matches bytes that are not text
}

void AppendMatches(const std::string& directory, const Listing& listing, const std::string& pattern,
                   std::vector<std::string>& paths) {
  for (const std::string& name : listing.names) {
    if (Matches(pattern, name)) paths.emplace_back(directory).append("/").append(name);
  }
}

// Replaces each path by the entries below it that `pattern` matches. If there are several paths, one that is missing or
// not a directory adds nothing. Returns 0 or the error of the first directory that cannot be opened.
int ExpandComponent(const std::string& pattern, Expansion& expansion) {
  std::vector<std::string> found;
  for (const std::string& directory : expansion.paths) {
    const Listing listing = ListDirectory(directory.empty() ? "/" : directory);
    AppendMatches(directory, listing, pattern, found);
    if (listing.error == 0) continue;
    const bool has_nothing = expansion.paths.size() > 1 && (listing.error == ENOTDIR || listing.error == ENOENT);
    if (!listing.is_open && has_nothing) continue;
    if (!listing.is_open) return listing.error;
    expansion.listing_error = listing.error;
    break;
  }
  expansion.paths = std::move(found);
  return 0;
}

bool DoesNotExist(const std::string& path) {
  struct stat ignored;
  return file::StatusOf(path.c_str(), ignored, AT_SYMLINK_NOFOLLOW) != 0;
}

// True for "", "." and "..": copying these would copy a directory into itself.
bool IsNoEntry(std::string_view name) { return name.empty() || name == "." || name == ".."; }

}  // namespace

Expansion ExpandNames(const std::string& known, std::string_view expression) {
  if (IsNoEntry(Unescaped(expression.substr(expression.rfind('/') + 1)))) return {.paths = {}, .error = ENOENT};
  Expansion expansion = {.paths = {known}};
  bool is_listed = false;
  while (!expression.empty()) {
    expression.remove_prefix(1);  // the "/"
    const std::string component(expression.substr(0, expression.find('/')));
    expression.remove_prefix(component.size());
    is_listed = HasWildcard(component);
    if (is_listed) {
      if (const int error = ExpandComponent(component, expansion); error != 0) return {.paths = {}, .error = error};
    } else {
      for (std::string& path : expansion.paths) path += "/" + Unescaped(component);
    }
  }
  if (!is_listed) std::erase_if(expansion.paths, DoesNotExist);  // without wildcards nothing was checked yet
  expansion.error = expansion.paths.empty() ? ENOENT : 0;
  return expansion;
}

std::string WithEveryNameAsStar(std::string expression) {
  constexpr std::string_view kEveryName = "*.*";
  const std::size_t at = expression.find(kEveryName);
  return at == std::string::npos ? expression : expression.replace(at, kEveryName.size(), "*");
}

std::string EscapedForGlobbing(std::string_view path) {
  std::string expression;
  for (const char c : path) {
    if (kSpecial.find(c) != std::string_view::npos) expression += '\\';
    expression += c;
  }
  return expression;
}

std::string ForTrace(std::string_view expression) {
  const std::size_t slash = expression.rfind('/');
  return Unescaped(expression.substr(0, slash)).append(expression.substr(slash));
}

}  // namespace qx::report
