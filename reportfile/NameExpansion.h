// Internal: finds the files and directories that a pattern names.
//
// An expression is an absolute path whose components may contain the wildcards of file-name globbing. Names are matched
// by the system, but directories are listed here: the system's globbing ignores an error in the middle of a listing,
// finds "." and ".." wherever a wildcard may match them, and treats known directories as patterns.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx::report {

// The paths that an expression names, in the order of the system, without "." and "..".
struct Expansion {
  std::vector<std::string> paths;
  int error = 0;          // why there is no path; 0 if there is a path
  int listing_error = 0;  // a listing ended with this error: there may be more than `paths`
};

// Expands the path `known` followed by `expression`. No character of `known` is a wildcard. `expression` begins with
// "/" and is globbed; its wildcards also match a leading dot. The first directory that cannot be opened ends the
// expansion with its error and without paths. If a listing breaks off with an error, no further directory is listed for
// that component.
//   "", "/b/*"         => everything in /b
//   "/b[1]", "/*.dat"  => what ends with ".dat" in /b[1]
//   "/b", "/"          => nothing (ENOENT)
[[nodiscard]] Expansion ExpandNames(const std::string& known, std::string_view expression);

// The first "*.*" of an expression becomes "*", so that it matches names without a dot, too.
//   /b/*.*      => /b/*
//   /b/*.*.*    => /b/*.*
[[nodiscard]] std::string WithEveryNameAsStar(std::string expression);

// An expression that matches only `path`.
//   /b[1]  => /b\[1]
[[nodiscard]] std::string EscapedForGlobbing(std::string_view path);

// The expression as a trace shows it: without escapes, except those in its last component.
//   /b\[1]/*    => /b[1]/*
//   /b/a\[1]    => /b/a\[1]
[[nodiscard]] std::string ForTrace(std::string_view expression);

}  // namespace qx::report
