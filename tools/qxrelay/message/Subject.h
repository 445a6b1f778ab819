// Converts names of hosts and reports to subjects of the stream, and back.
//
//   PREFIX.report.HOST.REPORT   records, gaps and empty messages of a report
//   PREFIX.names.HOST.REPORT    the instance-names file of a report
//   PREFIX.about.HOST           the labels of a host
//
// A subject consists of tokens with "." between them. A name becomes one token: letters, digits, "-" and "_" stay,
// every other byte becomes "%" with two upper-case hexadecimal digits, and the empty name becomes "%". So each name has
// exactly one token. All other tokens are refused.
//
//   load        => load
//   disk/sda 1  => disk%2Fsda%201
//   (empty)     => %
//
// Everything here is pure and never throws anything but std::bad_alloc. [any thread]
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx::relay {

// A server accepts control lines of 4,096 bytes. In the worst case such a line contains the subject twice.
inline constexpr std::size_t kTokenBytesMax = 1500;
inline constexpr std::size_t kHostNameBytesMax = 64;

// True if the name can be a path below the directory of the collector, and no other name is the same path: no NUL, not
// absolute, and no component "..", "." or "" (the last component may be empty: the report "a/" has the file "a/.ind").
[[nodiscard]] bool IsReportName(std::string_view name);

// True for 1 to 64 letters, digits, "-", "_" and ".", beginning with a letter or a digit.
[[nodiscard]] bool IsHostName(std::string_view name);

// True for one token or several, of letters, digits, "-" and "_", with "." between them.
[[nodiscard]] bool IsPrefix(std::string_view prefix);

// Converts a name of any bytes to its token.
[[nodiscard]] std::string TokenOf(std::string_view name);

// The name of a token; unset for a text that TokenOf does not return.
[[nodiscard]] std::optional<std::string> NameOfToken(std::string_view token);

enum class Branch : std::uint8_t { kReport, kNames, kAbout };

struct Subject {
  Branch branch = Branch::kReport;
  std::string host;
  std::string report;  // empty for kAbout

  friend bool operator==(const Subject&, const Subject&) = default;
};

// Unset if the host or the report has a name that cannot be relayed (IsHostName, IsReportName), or if the token is too
// long.
[[nodiscard]] std::optional<std::string> TextOfSubject(std::string_view prefix, const Subject& subject);

// The parts of a subject; unset for a text that TextOfSubject does not return.
[[nodiscard]] std::optional<Subject> SubjectOfText(std::string_view prefix, std::string_view text);

}  // namespace qx::relay
