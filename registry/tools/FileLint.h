// Finds what a load of a registry file would drop, change or misread. Only tools use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx::registry {

enum class LintSeverity {
  kWarning,  // a load leaves it out, or it is unusual
  kError,    // a load misreads it or loses it
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

// `bytes` are those of a whole file. Time and memory are in proportion to the file, whatever its content. [any thread]
[[nodiscard]] LintResult LintFile(std::string_view bytes);

}  // namespace qx::registry
