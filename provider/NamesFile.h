// Reads a report's instance names file. One scan of the file finds everything that a call needs.
//
// The file is a profile file (docs/ini-files.md) next to the report's store; docs/report-names.md describes it.
// CIniFile would open and search the file once for each key.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace qx::provider {

// Threads: one thread at a time.
// Owns: its texts. The file is open only during Read.
class NamesFile {
 public:
  using Instance = std::map<std::string, std::string>::value_type;  // key and name

  // Reads `name` and ".names" below `directory`. False if the file cannot be opened, is not a regular file or cannot be
  // read to the end; the links that are followed are those of TrustedLinks::kToRead (base/OwnedLinks.h). May throw
  // std::bad_alloc. [owning thread]
  [[nodiscard]] bool Read(const std::string& directory, const std::string& name);

  // The version in the file; 0 if the file has none. [owning thread]
  [[nodiscard]] int Version() const { return version_; }
  // The report's name as the file's writer recorded it; empty if it did not. [owning thread]
  [[nodiscard]] const std::string& ReportName() const { return report_name_; }
  // The instances in the order of the file. Quirk: a key with several entries is listed several times, each time with
  // its first name. Empty for a version without names. The pointers live as long as this object. [owning thread]
  [[nodiscard]] const std::vector<const Instance*>& Instances() const { return instances_; }

  static constexpr int kVersionWithNames = 1;

 private:
  class Scan;

  int version_ = 0;
  std::string report_name_;
  std::map<std::string, std::string> names_;
  std::vector<const Instance*> instances_;
};

}  // namespace qx::provider
