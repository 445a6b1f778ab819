#include "tools/qxrelay/message/Subject.h"

#include <algorithm>
#include <array>

namespace qx::relay {

namespace {

constexpr char kEscape = '%';
constexpr std::string_view kHexDigits = "0123456789ABCDEF";
constexpr std::array<std::string_view, 3> kBranches = {"report", "names", "about"};  // in the order of Branch

bool IsAlphanumeric(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
}

bool IsPlain(char byte) { return IsAlphanumeric(byte) || byte == '-' || byte == '_'; }

// Returns the text up to the next separator, and removes both from the front of `text`.
std::string_view TakePart(std::string_view& text, char separator) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return part;
}

bool HasBadComponent(std::string_view name) {
  while (!name.empty()) {
    const std::string_view component = TakePart(name, '/');
    if (component.empty() || component == "." || component == "..") return true;
  }
  return false;
}

std::optional<char> EscapedByte(char high, char low) {
  const std::size_t first = kHexDigits.find(high);
  const std::size_t second = kHexDigits.find(low);
  if (first == std::string_view::npos || second == std::string_view::npos) return std::nullopt;
  return static_cast<char>(first * 16 + second);
}

bool IsPrefixToken(std::string_view token) {
  return !token.empty() && std::all_of(token.begin(), token.end(), IsPlain);
}

// The text after the prefix and a ".": "qx" and "qx.report.h.load" => "report.h.load"
std::optional<std::string_view> AfterPrefix(std::string_view prefix, std::string_view text) {
  if (text.size() <= prefix.size() || !text.starts_with(prefix) || text[prefix.size()] != '.') return std::nullopt;
  return text.substr(prefix.size() + 1);
}

std::optional<Branch> BranchOf(std::string_view word) {
  const auto* const found = std::find(kBranches.begin(), kBranches.end(), word);
  if (found == kBranches.end()) return std::nullopt;
  return static_cast<Branch>(found - kBranches.begin());
}

}  // namespace

bool IsReportName(std::string_view name) {
  if (name.starts_with('/') || name.find('\0') != std::string_view::npos) return false;
  return !HasBadComponent(name);
}

bool IsHostName(std::string_view name) {
  if (name.empty() || name.size() > kHostNameBytesMax || !IsAlphanumeric(name[0])) return false;
  return std::all_of(name.begin(), name.end(), [](char byte) { return IsPlain(byte) || byte == '.'; });
}

bool IsPrefix(std::string_view prefix) {
  if (prefix.ends_with('.')) return false;
  do {
    if (!IsPrefixToken(TakePart(prefix, '.'))) return false;
  } while (!prefix.empty());
  return true;
}

std::string TokenOf(std::string_view name) {
  if (name.empty()) return std::string(1, kEscape);
  std::string token;
  for (const char byte : name) {
    if (IsPlain(byte)) {
      token += byte;
      continue;
    }
    const auto value = static_cast<unsigned char>(byte);
    token += kEscape;
    token += kHexDigits[value / 16];
    token += kHexDigits[value % 16];
  }
  return token;
}

std::optional<std::string> NameOfToken(std::string_view token) {
  if (token.size() == 1 && token[0] == kEscape) return std::string();
  if (token.empty()) return std::nullopt;
  std::string name;
  while (!token.empty()) {
    if (token[0] != kEscape) {
      if (!IsPlain(token[0])) return std::nullopt;
      name += token[0];
      token.remove_prefix(1);
      continue;
    }
    if (token.size() < 3) return std::nullopt;
    const std::optional<char> byte = EscapedByte(token[1], token[2]);
    if (!byte.has_value() || IsPlain(*byte)) return std::nullopt;  // a plain byte has one form only
    name += *byte;
    token.remove_prefix(3);
  }
  return name;
}

std::optional<std::string> TextOfSubject(std::string_view prefix, const Subject& subject) {
  if (!IsHostName(subject.host)) return std::nullopt;
  std::string text = std::string(prefix) + "." + std::string(kBranches[static_cast<std::size_t>(subject.branch)]) +
                     "." + TokenOf(subject.host);
  if (subject.branch == Branch::kAbout) return text;
  const std::string token = TokenOf(subject.report);
  if (!IsReportName(subject.report) || token.size() > kTokenBytesMax) return std::nullopt;
  return text + "." + token;
}

std::optional<Subject> SubjectOfText(std::string_view prefix, std::string_view text) {
  std::optional<std::string_view> rest = AfterPrefix(prefix, text);
  if (!rest.has_value()) return std::nullopt;
  const std::optional<Branch> branch = BranchOf(TakePart(*rest, '.'));
  if (!branch.has_value()) return std::nullopt;
  const std::optional<std::string> host = NameOfToken(TakePart(*rest, '.'));
  if (!host.has_value()) return std::nullopt;
  Subject subject = {.branch = *branch, .host = *host, .report = {}};
  if (subject.branch != Branch::kAbout) {
    const std::optional<std::string> report = NameOfToken(*rest);
    if (!report.has_value()) return std::nullopt;
    subject.report = *report;
  }
  if (TextOfSubject(prefix, subject) != text) return std::nullopt;
  return subject;
}

}  // namespace qx::relay
