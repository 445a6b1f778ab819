// A command of qxctl as plain data. The parser, --help, the manual page, the completion scripts, the tables in the
// documentation and the list of JSON schemas all read this data, so that all of them agree with what qxctl accepts.
//
// The source of a command defines a `const Command` with constexpr tables, and a function that runs it.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

struct Context;
class Values;

// The kind of an argument or of an option's value.
enum class ValueKind : std::uint8_t {
  kNone,  // an option without a value
  kText,
  kInteger,
  kNumber,  // with or without a fraction
  kFile,
  kDirectory,
  kReport,         // the name of a report in the report directory
  kStore,          // the path of a report's two files without their endings
  kReportOrStore,  // one of the two
  kTraceFile,      // a file of the trace directory, or a path
  kField,          // a number in the records of the report
  kRegistryKey,    // the path of a key
  kRegistryValue,  // a value of the key
  kIniSection,     // a section of the profile file
  kIniKey,         // a key of the section
  kTime,           // of a slice
  kCode,           // what qxctl explain knows
  kFault,          // a case of qxctl module faults
  kCommand         // a word of a command
};

// Both limits are valid values.
struct Limits {
  double min;
  double max;
};

inline constexpr Limits kInt32Limits = {-2147483648.0, 2147483647.0};
inline constexpr Limits kUint32Limits = {0, 4294967295.0};
inline constexpr Limits kPositiveInt32 = {1, 2147483647.0};
inline constexpr Limits kNatural = {0, 9007199254740992.0};                              // 2^53
inline constexpr Limits kPositive = {1, 9007199254740992.0};                             // 2^53
inline constexpr Limits kAboveZero = {2.2250738585072014e-308, 1.7976931348623157e308};  // any positive number

// An argument ("NAME") or an option ("--output").
struct Parameter {
  std::string_view name;         // begins with "--" if it is an option
  std::string_view letter = {};  // the option's short name, "-o"
  ValueKind kind = ValueKind::kNone;
  std::string_view value = {};  // how help shows an option's value: "FILE"; empty if the choices show it
  std::string_view help;
  std::string_view group = {};  // the heading in --help; empty: "Options"

  std::span<const std::string_view> choices = {};         // not empty: the only valid values
  bool ignores_case = false;                              // of the choices
  Limits limits = {};                                     // of an integer or a number
  std::string_view (*check)(std::string_view) = nullptr;  // returns what is wrong with a text, or an empty text
  std::string_view default_value = {};                    // what help shows; the command applies it

  bool is_required = false;
  bool is_repeatable = false;
  bool is_list = false;  // values may also be separated by commas

  std::string_view needs = {};                    // an option that this one requires
  std::array<std::string_view, 7> excludes = {};  // parameters that cannot be given together with this one
};

// A command line that the help and the manual page show.
struct Example {
  std::string_view line;  // for a shell: "qxctl fetch load --last 10"
  std::string_view help;  // what it does: "Print the newest ten records"
};

constexpr bool IsOption(const Parameter& parameter) { return parameter.name.starts_with("--"); }

// Headings of the overview that several areas use.
inline constexpr std::string_view kReportsHeading = "Reports";
inline constexpr std::string_view kTroubleHeading = "When something is wrong";
inline constexpr std::string_view kToolHeading = "This tool";

// One command, or a group of commands ("report") if it has no function to run.
struct Command {
  std::string_view words;  // after "qxctl": "report info"
  std::string_view help;
  std::string_view group = {};  // the heading in the overview; of a first word only
  Status (*run)(Context& context, const Values& values) = nullptr;
  std::array<std::span<const Parameter>, 8> parameters = {};  // its own, and groups shared by several commands
  std::span<const Example> examples = {};                     // at least one, unless it is hidden
  bool is_hidden = false;                                     // for scripts and the build, not for people
  std::string_view program = "qxctl";                         // the first word of the command line
};

}  // namespace qx::ctl
