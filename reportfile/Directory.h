// Copies and removes directory trees: a restore moves report files with them.
//
// Both operations walk with a list of pending entries instead of recursion, have at most two files or one directory
// open, and trace every step and failure. docs/directories.md has the rules. Not here: time stamps, extended
// attributes, holes in files, syncing to the disk, and undoing what was done before a failure.
#pragma once

// A set of static operations; no object of it is ever made.
//
// Threads: every operation may run on any thread; two of them at once on one tree interfere with each other like two
// commands. A thread is not cancelled in the middle of one. Failure: a false result, with errno set to the error of the
// step that failed, and lines in the trace.
class CDirectory {
 public:
  CDirectory() = delete;

  // Copies entries of the directory `source` into the directory `destination`: those that `pattern` matches, and of
  // each matched subdirectory again those that it matches. The destination is created (mode 0711, with all directories
  // above it) once there is something to copy. Both paths are absolute. "*.*" and "*" match every name, hidden ones
  // included.
  //   source  /b with a.dat, sub/x     pattern "*.*"    => destination gets a.dat and sub/x
  //   source  /b with a.dat, sub/x     pattern "*.dat"  => a.dat
  //   source  /b, which is empty or missing             => true, and no destination
  // Wildcards in `source` are expanded as well; EscapedForGlobbing (reportfile/NameExpansion.h) escapes those of a
  // path. Symbolic links are followed; those that lead nowhere are left out. Without `overwrite`, files and directories
  // that exist in the destination are not changed, which is not a failure; with it, files are replaced in place and
  // directories are filled up. A file that is its own target is left alone. The destination is never copied into
  // itself, nor a directory into a copy of itself. False: the first thing that could not be copied ended the copy; what
  // was copied before it stays. EINVAL for a path that is not absolute and for what is neither file nor directory;
  // ENAMETOOLONG for a directory to be made whose path has more than 259 characters. [any thread]
  static bool CopyDir(const char* source, const char* destination, const char* pattern, bool overwrite);

  // Removes everything in `directory` whose name does not begin with ".", and with `removeParent` the directory itself.
  // Symbolic links are removed themselves, except those that lead nowhere; what is neither file, link nor directory is
  // left. Anything left in a directory makes its removal fail.
  // False: the first thing that could not be removed ended the removal; EINVAL for a null or empty path. [any thread]
  static bool RemoveDir(const char* directory, bool removeParent);
};
