// Copies and removes directory trees. A restore uses both operations.
//
// Both operations keep a list of pending entries instead of recursion, and trace every step and failure. A copy has at
// most two files or one directory open at a time; a removal has at most four directories open. docs/directories.md has
// the rules. Not here: time stamps, extended attributes, holes in files, syncing to the disk, and undoing what was done
// before a failure.
#pragma once

// A set of static operations; no object of it is ever made.
//
// Threads: every operation may run on any thread; two operations at the same time on one tree interfere with each
// other, as two commands would. A thread is not cancelled in the middle of an operation. Failure: a false result, with
// errno set to the error of the step that failed, and lines in the trace.
class CDirectory {
 public:
  CDirectory() = delete;

  // Copies the entries of the directory `source` that `pattern` matches into the directory `destination`. Of each
  // matched subdirectory, again the entries that match are copied. The destination is created (mode 0711, with all
  // directories above it) only if there is something to copy. Both paths are absolute. "*.*" and "*" match every name,
  // hidden ones included.
  //   source  /b with a.dat, sub/x     pattern "*.*"    => destination gets a.dat and sub/x
  //   source  /b with a.dat, sub/x     pattern "*.dat"  => a.dat
  //   source  /b, which is empty or missing             => true, and no destination
  // Wildcards in `source` are expanded as well; to have them taken as ordinary characters, pass EscapedForGlobbing
  // (reportfile/NameExpansion.h) of the path. Symbolic links are followed; links that lead nowhere are left out.
  // Without `overwrite`, files and directories that exist in the destination are not changed, which is not a failure;
  // with it, files are replaced in place and directories are filled up. A file that is its own target is left alone.
  // The destination is never copied into itself, nor a directory into a copy of itself. False: the first thing that
  // could not be copied ended the copy; what was copied before it stays. EINVAL for a path that is not absolute, and
  // for an entry that is neither a regular file nor a directory; ENAMETOOLONG for a directory to be made whose path has
  // more than 259 characters. [any thread]
  static bool CopyDir(const char* source, const char* destination, const char* pattern, bool overwrite);

  // Removes everything in `directory` whose name does not begin with ".", and with `removeParent` the directory itself.
  // A symbolic link is removed, not what it leads to. Links that lead nowhere, and entries that are neither a regular
  // file, a link nor a directory, are left. If anything is left in a directory, the removal of the directory fails.
  // False: the first thing that could not be removed ended the removal; EINVAL for a null or empty path. [any thread]
  static bool RemoveDir(const char* directory, bool removeParent);
};
