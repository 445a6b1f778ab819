// Finds the values of the registry that name the report directory, and values that seem to be meant but are not read.
//
// The value "Server Control" of one key, the pointer, names the suite's root; the key "Setup" below that root has
// ReportRoot, the report directory itself, or FileRoot, the directory above "Reports" (provider/ServerControlPaths.h).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "registry/RegistryNode.h"

namespace qx::ctl {

inline constexpr std::string_view kReportRoot = "ReportRoot";
inline constexpr std::string_view kFileRoot = "FileRoot";
inline constexpr std::string_view kRootPointer = "Server Control";
inline constexpr std::string_view kPointerKey =
    "HKEY_LOCAL_MACHINE/SYSTEM/CurrentControlSet/Control/UUID/C3681B60-0D26-11D3-8319-00A0C9B61E25";
// The value that the pointer has by default, without the hive.
inline constexpr std::string_view kDefaultRoot = "SOFTWARE/Dremlor/Management/Server Control";

// The report directory that "qxctl setup" names if it is not given another one.
inline constexpr std::string_view kDefaultReportDirectory = "/var/lib/brollan/reports";

// An entry that the module does not read, although it seems to be meant.
struct SettingMistake {
  enum class Kind {
    kNearValue,  // the value `found` instead of `expected`, in the key `key`
    kNearKey,    // the key `found` instead of `expected`, below the key `key`
    kNoString,   // the value `expected` is a number or a block
  };
  Kind kind;
  std::string key;
  std::string found;
  std::string expected;
  std::string value;  // that is meant, as far as it is known: the string of `found`, or of the value below it
};

struct ReportSettings {
  enum class Source { kDirectory, kDirectoryAbove, kNone };
  Source source = Source::kNone;
  std::string setup_key;  // from its hive on
  std::string value;      // the text of the value that counts, as the registry has it
  std::vector<SettingMistake> mistakes;

  // "ReportRoot", "FileRoot"; empty if neither is there.
  [[nodiscard]] std::string_view Name() const;
};

// The settings that a process reads if it loads this tree. No other thread may use the tree meanwhile. [owning thread]
[[nodiscard]] ReportSettings ReadReportSettings(const CRegistryNode& tree);

// The settings in the registry of this process, as CServerControlPaths reads it. [the only thread]
[[nodiscard]] ReportSettings ReadReportSettings();

// Which value names the report directory, as a clause for a message.
//   ReportRoot => "ReportRoot in HKEY_LOCAL_MACHINE/.../Setup names that directory"
//   neither    => "no registry value sets the report directory, so "Reports" in the working directory is used; ..."
[[nodiscard]] std::string WhatNamesTheDirectory(const ReportSettings& settings);

}  // namespace qx::ctl
