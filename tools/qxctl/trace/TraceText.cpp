#include "tools/qxctl/trace/TraceText.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

using debug::TraceEntry;
using debug::TracePart;

constexpr std::string_view kContinuation = "    | ";
constexpr std::string_view kPiece = "    ? ";

bool IsContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// The number of bytes of the multibyte character at the beginning of `text`; 0 if there is no such character: a stray
// byte, an overlong form, a surrogate, or a number that is not a character.
std::size_t WideCharacterBytes(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t bytes = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < bytes) return 0;
  if (!std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(bytes), IsContinuationByte)) return 0;
  const auto second = static_cast<unsigned char>(text[1]);
  const bool is_too_long = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool is_no_character = (first == 0xED && second > 0x9F) || (first == 0xF4 && second > 0x8F);
  return is_too_long || is_no_character ? 0 : bytes;
}

// U+0080 to U+009F: for a terminal they begin a command.
bool IsWideControl(std::string_view character) {
  return character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0;
}

void AppendEscaped(std::string& text, std::string_view bytes) {
  for (const char byte : bytes) {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(byte));
    text += escaped;
  }
}

Status ParseThread(const std::string& text, std::uint32_t& thread) {
  const bool has_prefix = text.starts_with("0x") || text.starts_with("0X");
  const char* const begin = text.data() + (has_prefix ? 2 : 0);
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(begin, end, thread, 16);
  if (error == std::errc() && stop == end) return {};
  return {ExitCode::kUsage, "\"" + text + "\" is not a thread: a thread is up to 8 hexadecimal digits, as in an entry"};
}

// Completes a partial time from the whole time `rest`.
//   "2026-01-31 10:20" => "2026-01-31 10:20:00.000", or "2026-01-31 10:20:59.999"
Status ParseTime(std::string text, std::string_view rest, std::optional<std::int64_t>& time) {
  if (text.empty()) return {};
  if (text.size() > 10 && text[10] == 'T') text[10] = ' ';
  if (text.size() < rest.size()) text += rest.substr(text.size());
  time = debug::ParseTraceStamp(text);
  if (time.has_value()) return {};
  return {ExitCode::kUsage,
          "a time is \"YYYY-MM-DD HH:MM:SS.mmm\" or its beginning: a day, or down to the minute or the second"};
}

const char* PartName(TracePart part) {
  return part == TracePart::kHead ? "head" : part == TracePart::kOlder ? "older" : "newest";
}

const char* KindName(TraceEntry::Kind kind) {
  switch (kind) {
    case TraceEntry::Kind::kEntry:
      return "entry";
    case TraceEntry::Kind::kWrap:
      return "wrap";
    case TraceEntry::Kind::kRest:
      return "rest";
    case TraceEntry::Kind::kPiece:
      return "piece";
    case TraceEntry::Kind::kGap:
      return "gap";
  }
  return "";
}

bool HasHeader(const TraceEntry& entry) {
  return entry.kind == TraceEntry::Kind::kEntry || entry.kind == TraceEntry::Kind::kWrap;
}

}  // namespace

std::string VisibleText(std::string_view text) {
  std::string visible;
  while (!text.empty()) {
    const char first = text[0];
    const bool is_plain = first >= 0x20 && first < 0x7F;
    const std::size_t wide = static_cast<unsigned char>(first) < 0x80 ? 0 : WideCharacterBytes(text);
    const std::string_view character = text.substr(0, std::max<std::size_t>(wide, 1));
    if (first == '\\') visible += first;
    if (is_plain || (wide > 0 && !IsWideControl(character))) {
      visible += character;
    } else {
      AppendEscaped(visible, character);
    }
    text.remove_prefix(character.size());
  }
  return visible;
}

bool TraceFilter::IsOpen() const {
  return modules.empty() && threads.empty() && !since_ms.has_value() && !until_ms.has_value();
}

bool TraceFilter::Passes(const TraceEntry& entry) const {
  if (!modules.empty() && !modules.contains(entry.module)) return false;
  if (!threads.empty() && !threads.contains(entry.thread)) return false;
  if (since_ms.has_value() && (!entry.stamp_ms.has_value() || *entry.stamp_ms < *since_ms)) return false;
  return !until_ms.has_value() || (entry.stamp_ms.has_value() && *entry.stamp_ms <= *until_ms);
}

Status MakeFilter(const TraceFilterOptions& options, TraceFilter& filter) {
  filter.modules.insert(options.modules.begin(), options.modules.end());
  for (const std::string& text : options.threads) {
    std::uint32_t thread = 0;
    if (Status status = ParseThread(text, thread); !status.IsOk()) return status;
    filter.threads.insert(thread);
  }
  if (Status status = ParseTime(options.since, "0000-01-01 00:00:00.000", filter.since_ms); !status.IsOk()) {
    return status;
  }
  return ParseTime(options.until, "9999-12-31 23:59:59.999", filter.until_ms);
}

bool TraceSelection::Takes(const TraceEntry& entry) {
  if (HasHeader(entry)) took_last_ = filter_->Passes(entry);
  if (entry.kind == TraceEntry::Kind::kGap) {
    took_last_ = filter_->IsOpen();  // a piece after a gap does not belong to a printed entry
  }
  return took_last_;
}

std::string EntryToText(const TraceEntry& entry, std::string_view prefix) {
  if (entry.kind == TraceEntry::Kind::kGap) {
    return std::string(prefix) + "------ entries that were here have been overwritten ------\n";
  }
  std::string text;
  for (std::size_t i = 0; i < entry.lines.size(); ++i) {
    const bool is_first = i == 0 && HasHeader(entry);
    const std::string_view mark = entry.kind == TraceEntry::Kind::kPiece ? kPiece : kContinuation;
    text.append(prefix).append(is_first ? VisibleText(entry.header) : mark).append(VisibleText(entry.lines[i]));
    text += '\n';
  }
  if (entry.is_cut) text.append(prefix).append(kPiece).append("(the file ends within this entry)\n");
  return text;
}

Json EntryToJson(const TraceEntry& entry, const std::string& file) {
  Json object = {{"file", VisibleText(file)}, {"kind", KindName(entry.kind)}, {"part", PartName(entry.part)}};
  if (HasHeader(entry)) {
    char thread[16];
    std::snprintf(thread, sizeof thread, "%08X", entry.thread);
    object["stamp"] = entry.stamp;
    object["stampMs"] = entry.stamp_ms.has_value() ? Json(*entry.stamp_ms) : Json(nullptr);
    object["thread"] = thread;
    object["residentKb"] = entry.resident_kb.has_value() ? Json(*entry.resident_kb) : Json(nullptr);
    SetText(object, "module", entry.module);
  }
  std::string text;
  for (std::size_t i = 0; i < entry.lines.size(); ++i) text.append(i == 0 ? "" : "\n").append(entry.lines[i]);
  SetText(object, "text", text);
  if (entry.is_cut) object["cut"] = true;
  return object;
}

}  // namespace qx::ctl
