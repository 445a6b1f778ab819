#include "reportfile/NameExpansion.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "reportfile/DirectoryListing.h"

namespace qx::report {

namespace {

constexpr std::string_view kWildcards = "*?[";
constexpr std::string_view kSpecial = "*?[\\";

bool HasWildcard(std::string_view expression) {
  for (std::size_t i = 0; i < expression.size(); ++i) {
    if (expression[i] == '\\') {
      ++i;  // the next one stands for itself
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
  return pattern == "*" || fnmatch(pattern.c_str(), name.c_str(), 0) == 0;  // "*" matches bytes that are no text, too
}

// Appends the paths of the names in `directory` that match. 0 or the error number.
int MatchNames(const std::string& directory, const std::string& pattern, std::vector<std::string>& paths) {
  std::vector<std::string> names;
  const int error = ListDirectory(directory.empty() ? "/" : directory.c_str(), FinalLink::kFollowed, names);
  if (error != 0) return error;
  for (const std::string& name : names) {
    if (Matches(pattern, name)) paths.emplace_back(directory).append("/").append(name);
  }
  return 0;
}

// Replaces the paths by what `pattern` matches in them. Where several directories are looked through, those that are
// none have just nothing to give. 0 or the error number.
int ExpandComponent(const std::string& pattern, std::vector<std::string>& paths) {
  std::vector<std::string> found;
  for (const std::string& directory : paths) {
    const int error = MatchNames(directory, pattern, found);
    const bool has_none = paths.size() > 1 && (error == ENOTDIR || error == ENOENT);
    if (error != 0 && !has_none) return error;
  }
  paths = std::move(found);
  return 0;
}

bool DoesNotExist(const std::string& path) {
  struct stat ignored;
  return lstat(path.c_str(), &ignored) != 0;
}

// Nothing, a directory itself or its parent: not what anybody wants to have copied into something below it.
bool IsNoEntry(std::string_view name) { return name.empty() || name == "." || name == ".."; }

}  // namespace

Expansion ExpandNames(const std::string& known, std::string_view expression) {
  if (IsNoEntry(Unescaped(expression.substr(expression.rfind('/') + 1)))) return {.paths = {}, .error = ENOENT};
  std::vector<std::string> paths = {known};
  bool is_found = false;
  while (!expression.empty()) {
    expression.remove_prefix(1);  // the "/"
    const std::string component(expression.substr(0, expression.find('/')));
    expression.remove_prefix(component.size());
    is_found = HasWildcard(component);
    if (is_found) {
      if (const int error = ExpandComponent(component, paths); error != 0) return {.paths = {}, .error = error};
    } else {
      for (std::string& path : paths) path += "/" + Unescaped(component);
    }
  }
  if (!is_found) std::erase_if(paths, DoesNotExist);  // names without wildcards have not been looked up
  const int error = paths.empty() ? ENOENT : 0;
  return {.paths = std::move(paths), .error = error};
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

}  // namespace qx::report
