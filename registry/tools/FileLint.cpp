#include "registry/tools/FileLint.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <utility>

#include "registry/TreeReader.h"

namespace qx::registry {

namespace {

constexpr std::array<std::string_view, 5> kHives = {"HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_USERS",
                                                    "HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG"};

bool Holds(std::string_view text, char c) { return text.find(c) != std::string_view::npos; }

bool IsBlank(std::string_view text) { return text.find_first_not_of(" \t\r\v\f") == std::string_view::npos; }

// A name from the registry file, in quotes for a message. Control bytes, which could move the cursor, become "?".
std::string Quoted(std::string_view text) {
  constexpr std::size_t kCharsMax = 40;
  std::string quoted = "\"";
  for (const char c : text.substr(0, kCharsMax)) quoted += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
  return quoted + (text.size() > kCharsMax ? "...\"" : "\"");
}

std::string At(std::uint64_t line) { return "line " + std::to_string(line); }

// The result of strtol for the text after "=d=".
struct NumberReading {
  bool has_digits;
  bool is_whole;  // nothing is after the digits
  bool fits;      // the number has 32 bits with its sign
};

NumberReading ReadNumber(std::string_view data) {
  const std::string text(data);
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(text.c_str(), &end, 10);
  return {.has_digits = end != text.c_str(),
          .is_whole = end == text.c_str() + text.size(),
          .fits = errno == 0 && number >= INT32_MIN && number <= INT32_MAX};
}

// The numbers in base 16 after "=b=", up to the first text that is not a number.
struct BlockReading {
  std::size_t count = 0;
  bool is_whole = false;  // only blanks are after the last number
  bool fits = true;       // each number fits into a byte
};

BlockReading ReadBlock(std::string_view data) {
  const std::string text(data);
  BlockReading reading;
  const char* at = text.c_str();
  for (;;) {
    char* end = nullptr;
    const long number = std::strtol(at, &end, 16);
    if (end == at) break;
    ++reading.count;
    reading.fits = reading.fits && number >= 0 && number <= 0xFF;
    at = end;
  }
  reading.is_whole = IsBlank(at);
  return reading;
}

// Reads the file as a load does: long lines are split into the same pieces, and the same keys are open at each line.
class Linter {
 public:
  explicit Linter(std::string_view bytes) : rest_(bytes) { keys_.emplace_back(); }

  LintResult Run() {
    while (!rest_.empty() && !keys_.empty()) TakePhysicalLine();
    if (keys_.empty()) {
      CheckAfterEnd();
    } else if (line_ > 0) {
      Warn(line_, "not-closed", "the file ends while keys are open that empty lines should close",
           "it may have been cut short: compare with a backup, or add " + std::to_string(keys_.size()) +
               " empty line(s) at the end");
    }
    if (!has_values_) {
      Error(std::max<std::uint64_t>(line_, 1), "no-values", "there is no value in the file, so it does not load",
            "restore a backup; a load takes registry.old instead");
    }
    result_.loads = has_values_;
    std::stable_sort(result_.findings.begin(), result_.findings.end(),
                     [](const LintFinding& left, const LintFinding& right) { return left.line < right.line; });
    return std::move(result_);
  }

 private:
  struct Seen {
    std::uint64_t line;
    bool is_key;
  };
  using Names = std::unordered_map<std::string_view, Seen>;

  // --- lines

  void TakePhysicalLine() {
    ++line_;
    const std::size_t feed = rest_.find('\n');
    const bool has_feed = feed != std::string_view::npos;
    std::string_view raw = rest_.substr(0, feed);
    rest_.remove_prefix(has_feed ? feed + 1 : rest_.size());
    CheckRaw(raw, has_feed);
    is_rest_of_line_ = false;
    for (; raw.size() >= kLineCharsMax && !keys_.empty(); raw.remove_prefix(kLineCharsMax)) {
      TakePiece(raw.substr(0, kLineCharsMax));
      is_rest_of_line_ = true;
    }
    const bool has_last_piece = has_feed || !raw.empty();
    if (has_last_piece && !keys_.empty()) TakePiece(raw);
  }

  void CheckRaw(std::string_view raw, bool has_feed) {
    if (raw.size() > kLineCharsMax) {
      Error(line_, "line-too-long",
            "the line has " + std::to_string(raw.size()) + " characters; it is read in pieces of 1023, each as a line",
            "shorten the line to 1022 characters");
    }
    if (has_feed && !raw.empty() && raw.size() % kLineCharsMax == 0) {
      Error(line_, "line-of-1023",
            "after a line that fills the reader's buffer, an empty line is read: it closes the key",
            "shorten the line to 1022 characters");
    }
    if (Holds(raw, '\0')) {
      Error(
          line_, "nul",
          raw.front() == '\0' ? "the line begins with a NUL, so it closes the key" : "a NUL hides the rest of the line",
          "remove the NUL bytes; the file may have been damaged");
    }
    if (raw.ends_with('\r') && !std::exchange(has_reported_carriage_return_, true)) {
      Error(line_, "carriage-return",
            "the line ends with CR LF: the CR becomes a part of a text, and a line of only CR LF does not close a key",
            "remove them from the whole file: sed -i 's/\\r$//' FILE");
    }
  }

  void TakePiece(std::string_view piece) {
    piece = piece.substr(0, piece.find('\0'));
    if (piece.empty()) {
      keys_.pop_back();
      return;
    }
    const std::size_t bracket = piece.front() == '[' ? piece.find(']') : std::string_view::npos;
    if (bracket != std::string_view::npos) {
      TakeKey(piece, bracket);
    } else {
      TakeValue(piece);
    }
  }

  // --- keys

  void TakeKey(std::string_view piece, std::size_t bracket) {
    const std::string_view name = piece.substr(1, bracket - 1);
    if (const std::string_view behind = piece.substr(bracket + 1); !behind.empty() && behind != "\r") {
      Error(line_, "text-behind-bracket", "the line opens the key " + Quoted(name) + "; what follows is not read",
            "remove what follows the first \"]\"; a name with a \"]\" cannot be written");
    }
    if (name.find_first_of("\\/") != std::string_view::npos) {
      Warn(line_, "unreachable-key", "no path leads to the key " + Quoted(name) + ", because its name has a separator",
           "write one key for each name on the path");
    }
    const bool is_hive = std::find(kHives.begin(), kHives.end(), name) != kHives.end();
    if (keys_.size() == 1 && !is_hive) {
      Warn(line_, "unknown-hive", Quoted(name) + " is not one of the five hives, so no program reads it",
           "correct the name, or move the key into a hive");
    }
    Remember(name, true);
    keys_.emplace_back();
  }

  // If a name has several entries, a load keeps the last one.
  void Remember(std::string_view name, bool is_key) {
    const auto [place, is_new] = keys_.back().try_emplace(name, Seen{line_, is_key});
    if (is_new) return;
    const Seen earlier = std::exchange(place->second, Seen{line_, is_key});
    if (is_key && earlier.is_key) {
      Error(line_, "duplicate-key",
            "the key " + Quoted(name) + " replaces the one of " + At(earlier.line) + " with everything in it",
            "put the content of both keys under one of them");
    } else if (is_key != earlier.is_key) {
      Error(line_, "name-taken", Quoted(name) + " replaces what " + At(earlier.line) + " stores under that name",
            "give the value or the key another name");
    } else {
      Warn(line_, "duplicate-value", "the value " + Quoted(name) + " replaces the one of " + At(earlier.line),
           "remove one of the lines");
    }
  }

  // --- values

  void TakeValue(std::string_view piece) {
    const std::size_t equals = piece.find('=');
    if (equals == std::string_view::npos) return ReportIgnored(piece);
    const std::string_view name = piece.substr(0, equals);
    const std::string_view marked = piece.substr(equals);
    if (marked.starts_with("=s=") || marked.starts_with("=es=")) {
      TakeEntry(name);
    } else if (marked.starts_with("=d=")) {
      TakeNumber(name, marked.substr(3));
    } else if (marked.starts_with("=b=")) {
      TakeBlock(name, marked.substr(3));
    } else {
      Warn(line_, "unknown-marker",
           "after the name " + Quoted(name) + " there is no =s=, =es=, =d= or =b=: the line is not read",
           "write the type, such as NAME=s=TEXT");
    }
  }

  void ReportIgnored(std::string_view piece) {
    if (IsBlank(piece)) {
      if (piece != "\r") Warn(line_, "blank-line", "a line of blanks closes no key and is not read", "empty the line");
      return;
    }
    const std::size_t first = piece.find_first_not_of(" \t");
    const bool is_key = piece[first] == '[';
    Warn(line_, "no-value",
         is_key ? "the line is meant to open a key, but is not read" : "the line has no \"=\" and is not read",
         is_key ? "write \"[\" in the first column and a \"]\" after the name"
                : "remove the line; the next save removes it, too");
  }

  void TakeEntry(std::string_view name) {
    has_values_ = true;
    Remember(name, false);
  }

  void TakeNumber(std::string_view name, std::string_view data) {
    const NumberReading reading = ReadNumber(data);
    has_values_ = true;
    if (!reading.has_digits) {
      return Error(line_, "number-without-digits", "the value " + Quoted(name) + " has no digits: nothing is stored",
                   "write a number after =d=");
    }
    if (!reading.is_whole && data.back() != '\r') {
      Error(line_, "number-changed", "the number of " + Quoted(name) + " ends before the line does",
            "write only digits after =d=");
    }
    if (!reading.fits) {
      Error(line_, "number-changed", "the number of " + Quoted(name) + " is cut to its low 32 bits",
            "write a number from -2147483648 to 2147483647");
    }
    Remember(name, false);
  }

  void TakeBlock(std::string_view name, std::string_view data) {
    const BlockReading reading = ReadBlock(data);
    if (!reading.is_whole) {
      Error(line_, "block-changed", "the bytes of " + Quoted(name) + " end before the line does",
            "write two hexadecimal digits and a space for each byte");
    }
    if (!reading.fits) {
      Error(line_, "block-changed", "a number of " + Quoted(name) + " is cut to its low 8 bits",
            "write two hexadecimal digits and a space for each byte");
    }
    const std::size_t chars = name.size() + 3 + 3 * reading.count;
    if (chars >= kLineCharsMax && !is_rest_of_line_) {
      Error(line_, "line-grows",
            "the next save writes the value " + Quoted(name) + " as a line of " + std::to_string(chars) + " characters",
            "shorten the block to fewer than 340 bytes");
    }
    TakeEntry(name);
  }

  // --- the end

  void CheckAfterEnd() {
    const std::size_t text = rest_.find_first_not_of('\n');
    if (text == std::string_view::npos) return;
    const auto first = line_ + 1 + static_cast<std::uint64_t>(text);
    Error(line_, "content-after-end", "the empty line ends the file; " + At(first) + " and what follows are not read",
          "remove the empty line, or an earlier one that closes a key too early");
  }

  // --- findings

  void Error(std::uint64_t line, const char* rule, std::string explanation, std::string fix) {
    ++result_.errors;
    Keep({line, rule, LintSeverity::kError, std::move(explanation), std::move(fix)});
  }

  // For the rest of a long line there are no warnings, because nobody wrote it as a line.
  void Warn(std::uint64_t line, const char* rule, std::string explanation, std::string fix) {
    if (is_rest_of_line_) return;
    ++result_.warnings;
    Keep({line, rule, LintSeverity::kWarning, std::move(explanation), std::move(fix)});
  }

  void Keep(LintFinding finding) {
    if (result_.findings.size() < kLintFindingsMax) result_.findings.push_back(std::move(finding));
  }

  std::string_view rest_;
  std::uint64_t line_ = 0;
  std::vector<Names> keys_;  // the open keys from the root on; empty: the root is closed
  bool is_rest_of_line_ = false;
  bool has_reported_carriage_return_ = false;
  bool has_values_ = false;
  LintResult result_;
};

}  // namespace

LintResult LintFile(std::string_view bytes) { return Linter(bytes).Run(); }

}  // namespace qx::registry
