// Finds the lines of a registry file that a load would drop, change or misread. Only tools use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx::registry {

enum class LintSeverity {
  kWarning,  // a load skips the line, or the line is unusual or replaces an earlier value
  kError,    // a load misreads the line or loses content
};

struct LintFinding {
  std::uint64_t line = 0;  // counted from 1 by line feeds
  const char* rule = "";   // a name that does not change, such as "duplicate-key"
  LintSeverity severity = LintSeverity::kError;
  std::string explanation;
  std::string fix;
};

// Findings above this number are counted, but not kept.
inline constexpr std::size_t kLintFindingsMax = 100;

struct LintResult {
  std::vector<LintFinding> findings;  // in the order of lines
  std::size_t errors = 0;
  std::size_t warnings = 0;
  bool loads = false;  // whether a load accepts this file

  [[nodiscard]] bool IsComplete() const { return findings.size() == errors + warnings; }
};

// Checks `bytes`, the content of a whole file. Time and memory grow only in proportion to its size. [any thread]
[[nodiscard]] LintResult LintFile(std::string_view bytes);

}  // namespace qx::registry
