// Manages the directory of a collector. It has one directory for each host, with the reports of the host under their
// names.
//
//   ROOT/HOST/REPORT.ind, .dat     the report
//   ROOT/HOST/REPORT.relay         which number its records have (ReportBase.h)
//   ROOT/HOST/REPORT.names         its instance names
//   ROOT/.qxrelay/lock             locked by the one receiver of the root
//   ROOT/.qxrelay/about/HOST       the labels of the host, one "name=value" for each line
//
// Names come from the stream, which other machines fill. IsHostName and IsReportName decide what can be a path; below
// the root no directory is created or used through a symbolic link, and no file is opened through the link of a user
// other than root and the effective one.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/File.h"

namespace qx::relay {

// A failed operation: a text for the operator, and its kind. The kind decides whether the operation is tried again.
struct CollectorFault {
  enum class Kind : std::uint8_t {
    kNone,
    kSystem,  // no space, no descriptors, a disk that fails: it concerns all reports, and nothing can be acknowledged
    kBusy,    // another program writes this report now
    kReport,  // this report cannot be written: damaged, or of another user
  };
  Kind kind = Kind::kNone;
  std::string text;

  [[nodiscard]] bool Failed() const { return kind != Kind::kNone; }
};

// A failure of the system with this error number.
[[nodiscard]] CollectorFault FaultOf(const std::string& text, int error);

// Threads: one thread. Owns: the root's directory, and the lock. Throws std::bad_alloc.
class CollectorRoot {
 public:
  // Creates what is missing, except the directory above the root, and takes the lock. Returns why it failed; unset
  // after a success. [owning thread]
  [[nodiscard]] std::optional<std::string> Open(const std::string& path);

  [[nodiscard]] const std::string& Path() const { return path_; }
  // The directory of the hosts' labels. [owning thread]
  [[nodiscard]] std::string AboutPath() const;
  // The path of a report without the endings of its files. Both names are valid. [owning thread]
  [[nodiscard]] std::string PathOf(const std::string& host, const std::string& report) const;

  // Creates the directories of a report. [owning thread]
  [[nodiscard]] CollectorFault MakeDirectories(const std::string& host, const std::string& report);

  // Replaces the report's names file, or removes it if `bytes` is unset. [owning thread]
  [[nodiscard]] CollectorFault WriteNames(const std::string& host, const std::string& report,
                                          std::optional<std::string_view> bytes);
  // Replaces the labels of a host. [owning thread]
  [[nodiscard]] CollectorFault WriteAbout(const std::string& host, std::string_view text) const;

  // Syncs everything that was written below the root. Returns 0 or the error number. [owning thread]
  [[nodiscard]] int Sync() const;

 private:
  [[nodiscard]] std::optional<std::string> Lock();

  std::string path_;
  file::Descriptor directory_;
  file::Descriptor lock_;
  std::set<std::string> made_;  // directories below the root that exist; emptied when it becomes large
};

}  // namespace qx::relay
