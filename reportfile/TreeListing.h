// Internal: lists everything in a directory tree, before anything is copied from it.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "reportfile/FileCopy.h"

namespace qx::report {

// The tree below a directory at the time of Read, symbolic links followed as a copy follows them.
//
// Threads: one for Read; any number of readers afterwards.
// Owns: a path and a kind for each entry.
// Failure: an error number; the listing then cannot be used.
class TreeListing {
 public:
  struct Entry {
    std::string path;
    FileKind kind;
  };
  // What one directory contains, in the order of the system, and why there is nothing in it (0 if there is something).
  struct Directory {
    std::vector<Entry> entries;
    int error = 0;
  };

  // Lists `top` and everything below it. Does not enter the directory `left_out`, and does not enter a directory again
  // through a link inside that directory. Entries that were removed during the walk, and links that lead nowhere, are
  // left out. A `top` that does not exist is empty. 0 or the error number of the first directory that cannot be listed,
  // or of the first entry whose `stat` fails.
  [[nodiscard]] int Read(const std::string& top, const FileId& left_out);

  // Null for a directory that was not listed. Valid as long as this object.
  [[nodiscard]] const Directory* Find(const std::string& directory) const;

 private:
  std::unordered_map<std::string, Directory> directories_;
};

}  // namespace qx::report
