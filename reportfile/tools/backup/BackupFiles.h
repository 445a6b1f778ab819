// Opens a backup for reading: a plain copy of a report directory, or a dated backup with its checksums.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "base/File.h"
#include "reportfile/tools/DurableFiles.h"

namespace qx::report {

// Threads: one thread.
// Owns: the open directories.
class BackupFiles {
 public:
  // Opens the directory that an operator names.
  [[nodiscard]] static BackupFiles Open(const std::string& path);
  // Opens the directory of this name in an open one; a symbolic link is refused (ELOOP).
  [[nodiscard]] static BackupFiles OpenIn(const std::string& name, int directory);

  // 0, or why it cannot be opened: ENOENT and ENOTDIR if there is no such directory, EBADMSG for a dated backup whose
  // list of checksums, or folder of reports, is missing or damaged. Failed() is the file.
  [[nodiscard]] int Error() const { return error_; }
  [[nodiscard]] const std::string& Failed() const { return failed_; }

  [[nodiscard]] bool IsDated() const { return is_dated_; }
  [[nodiscard]] bool IsCompressed() const { return is_compressed_; }
  // The folder of the reports in the backup; empty for a plain copy.
  [[nodiscard]] const std::string& Folder() const { return folder_; }
  [[nodiscard]] DirectoriesBelow& Tree() { return tree_; }
  // The checksums by the path of the stored file below the tree: "load.ind", "load.ind.zst". Empty for a plain copy.
  [[nodiscard]] const std::map<std::string, std::string>& Checksums() const { return checksums_; }
  // The lines of the file "left-out": the items that were not copied.
  [[nodiscard]] const std::vector<std::string>& LeftOut() const { return left_out_; }

 private:
  explicit BackupFiles(DirectoriesBelow tree) : tree_(std::move(tree)) {}
  void ReadDated(const std::string& name);
  [[nodiscard]] file::Descriptor OpenFolder(int directory);
  [[nodiscard]] int ReadChecksums(int directory);
  [[nodiscard]] int ReadLeftOut(int directory);

  DirectoriesBelow tree_;
  int error_ = 0;
  std::string failed_;
  bool is_dated_ = false;
  bool is_compressed_ = false;
  std::string folder_;
  std::map<std::string, std::string> checksums_;
  std::vector<std::string> left_out_;
};

}  // namespace qx::report
