#include "tools/qxctl/doctor/Explanations.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/qxctl/doctor/ExplanationTables.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kFixedCharsMin = 8;  // a shorter text is only a word, and many lines have it

// The fixed parts of a format: the text between its conversions.
//   "a %s (0x%02X)"  => "a ", " (0x", ")"
std::vector<std::string_view> FixedParts(std::string_view format) {
  std::vector<std::string_view> parts;
  for (std::size_t at = 0; at <= format.size();) {
    const std::size_t percent = std::min(format.find('%', at), format.size());
    if (percent > at) parts.push_back(format.substr(at, percent - at));
    if (percent == format.size()) break;
    at = std::min(format.find_first_of("dsuxX", percent + 1), format.size() - 1) + 1;
  }
  return parts;
}

// The number of characters in the fixed parts of `format`, if all these parts are in `line` in their order; else 0.
std::size_t FixedCharsIn(std::string_view line, std::string_view format) {
  std::size_t chars = 0;
  std::size_t at = 0;
  for (const std::string_view part : FixedParts(format)) {
    const std::size_t found = line.find(part, at);
    if (found == std::string_view::npos) return 0;
    at = found + part.size();
    chars += part.size();
  }
  return chars;
}

bool IsText(const Explanation& one) { return one.kind == ExplainedKind::kTrace || one.kind == ExplainedKind::kMessage; }

void AddTextIn(std::string_view line, ExplainedKind kind, std::vector<const Explanation*>& found) {
  const Explanation* best = nullptr;
  std::size_t best_chars = kFixedCharsMin - 1;
  for (const Explanation& one : AllExplanations()) {
    const std::size_t chars = one.kind == kind ? FixedCharsIn(line, one.code) : 0;
    if (chars <= best_chars) continue;
    best = &one;
    best_chars = chars;
  }
  if (best != nullptr) found.push_back(best);
}

void AddTextsWith(std::string_view part, std::vector<const Explanation*>& found) {
  if (part.size() < kFixedCharsMin) return;
  for (const Explanation& one : AllExplanations()) {
    if (IsText(one) && one.code.find(part) != std::string_view::npos) found.push_back(&one);
  }
}

std::string Upper(std::string_view text) {
  std::string upper;
  for (const char c : text) upper += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  return upper;
}

// The decimal form of an error number that is given by its name or in hexadecimal digits; empty for another text.
//   "ENOENT" => "2"    "0X521" => "1313"
std::string ErrorNumberOf(const std::string& code) {
  constexpr int kErrorMax = 4095;  // the largest that a system call can return
  if (code.starts_with("0X")) {
    unsigned number = 0;
    const char* const end = code.data() + code.size();
    const std::from_chars_result parsed = std::from_chars(code.data() + 2, end, number, 16);
    return parsed.ec == std::errc() && parsed.ptr == end ? std::to_string(number) : "";
  }
  for (int number = 1; code.starts_with('E') && number <= kErrorMax; ++number) {
    const char* const name = strerrorname_np(number);
    if (name != nullptr && code == name) return std::to_string(number);
  }
  return "";
}

void AddErrorNumber(std::string_view number, std::vector<const Explanation*>& found) {
  for (const Explanation& one : CodeExplanations()) {
    if (one.kind == ExplainedKind::kErrorNumber && one.code == number) found.push_back(&one);
  }
}

}  // namespace

const char* NameOf(ExplainedKind kind) {
  switch (kind) {
    case ExplainedKind::kResult:
      return "result code";
    case ExplainedKind::kErrorNumber:
      return "error number";
    case ExplainedKind::kExitCode:
      return "exit code";
    case ExplainedKind::kFinding:
      return "doctor code";
    case ExplainedKind::kView:
      return "view code";
    case ExplainedKind::kMessage:
      return "message";
    case ExplainedKind::kTrace:
      return "trace text";
  }
  return "";
}

std::span<const Explanation> AllExplanations() {
  static const std::vector<Explanation> all = [] {
    std::vector<Explanation> joined;
    for (const std::span<const Explanation> table :
         {CodeExplanations(), FindingExplanations(), ViewExplanations(), MessageExplanations(), TraceExplanations()}) {
      joined.insert(joined.end(), table.begin(), table.end());
    }
    return joined;
  }();
  return all;
}

std::vector<const Explanation*> Explain(std::string_view text) {
  std::vector<const Explanation*> found;
  const std::string code = Upper(text);
  for (const Explanation& one : AllExplanations()) {
    if (!IsText(one) && one.code == code) found.push_back(&one);
  }
  if (found.empty()) AddErrorNumber(ErrorNumberOf(code), found);
  if (found.empty()) AddTextIn(text, ExplainedKind::kTrace, found);
  if (found.empty()) AddTextIn(text, ExplainedKind::kMessage, found);
  if (found.empty()) AddTextsWith(text, found);
  return found;
}

const Explanation& ExplainFinding(std::string_view code) {
  for (const Explanation& one : FindingExplanations()) {
    if (one.code == code) return one;
  }
  std::abort();  // a code of doctor that the table lacks
}

}  // namespace qx::ctl
