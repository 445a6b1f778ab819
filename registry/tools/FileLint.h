// What a load of a registry file would drop, change or misread: for tools. The module does not link it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx::registry {

enum class LintSeverity {
  kWarning,  // a load leaves it out, or it is odd
  kError,    // a load takes it for something else, or loses what was meant to be there
};

struct LintFinding {
  std::uint64_t line = 0;  // counted from 1 by line feeds
  const char* rule = "";   // a name that stays, such as "duplicate-key"
  LintSeverity severity = LintSeverity::kError;
  std::string explanation;
  std::string fix;
};

// Further findings are counted, not kept.
inline constexpr std::size_t kLintFindingsMax = 100;

struct LintResult {
  std::vector<LintFinding> findings;  // in the order of lines
  std::size_t errors = 0;
  std::size_t warnings = 0;
  bool loads = false;  // a load takes this file at all

  [[nodiscard]] bool IsComplete() const { return findings.size() == errors + warnings; }
};

// `bytes` are a whole file's. Time and memory grow with the file, whatever it holds. [any thread]
[[nodiscard]] LintResult LintFile(std::string_view bytes);

}  // namespace qx::registry
