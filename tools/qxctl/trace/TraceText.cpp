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

std::string TextOf(const TraceEntry& entry) {
  std::string text;
  for (std::size_t i = 0; i < entry.lines.size(); ++i) text.append(i == 0 ? "" : "\n").append(entry.lines[i]);
  return text;
}

bool HasWord(const TraceEntry& entry, std::string_view word) {
  return std::any_of(entry.lines.begin(), entry.lines.end(),
                     [&](const std::string& line) { return line.find(word) != std::string::npos; });
}

std::string Painted(const Output& output, TraceSeverity severity, const std::string& text) {
  if (severity == TraceSeverity::kNone) return text;
  return output.Paint(severity == TraceSeverity::kError ? Style::kBad : Style::kWarning, text);
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

bool HasHeader(const TraceEntry& entry) {
  return entry.kind == TraceEntry::Kind::kEntry || entry.kind == TraceEntry::Kind::kWrap;
}

TraceSeverity SeverityOf(const TraceEntry& entry) {
  if (HasWord(entry, "ERROR")) return TraceSeverity::kError;
  return HasWord(entry, "WARNING") ? TraceSeverity::kWarning : TraceSeverity::kNone;
}

bool TraceFilter::IsOpen() const {
  return modules.empty() && threads.empty() && severity == TraceSeverity::kNone && !slice.Filters();
}

Status MakeFilter(const TraceFilterOptions& options, TraceFilter& filter) {
  filter.modules.insert(options.modules.begin(), options.modules.end());
  for (const std::string& text : options.threads) {
    std::uint32_t thread = 0;
    if (Status status = ParseThread(text, thread); !status.IsOk()) return status;
    filter.threads.insert(thread);
  }
  if (options.level == "error") filter.severity = TraceSeverity::kError;
  if (options.level == "warning") filter.severity = TraceSeverity::kWarning;
  return {};
}

// Each entry is passed to the slice, even one that is not printed: a later entry without a time has the time of this
// one.
bool TraceSelection::Passes(const TraceEntry& entry) {
  const TraceFilter& filter = *filter_;
  const std::optional<std::int64_t> time =
      entry.stamp_ms ? std::optional(ToPoint(*entry.stamp_ms, filter.slice.time)) : std::nullopt;
  if (!slice_.Takes(TextOf(entry), time)) return false;
  if (!filter.modules.empty() && !filter.modules.contains(entry.module)) return false;
  if (!filter.threads.empty() && !filter.threads.contains(entry.thread)) return false;
  return SeverityOf(entry) >= filter.severity;
}

bool TraceSelection::Takes(const TraceEntry& entry) {
  if (HasHeader(entry)) took_last_ = Passes(entry);
  if (entry.kind == TraceEntry::Kind::kGap) {
    took_last_ = filter_->IsOpen();  // a piece after a gap does not belong to a printed entry
  }
  return took_last_;
}

std::string EntryToText(const Output& output, const TraceEntry& entry, std::string_view prefix, bool with_header) {
  if (entry.kind == TraceEntry::Kind::kGap) {
    return std::string(prefix) + "------ entries that were here have been overwritten ------\n";
  }
  const TraceSeverity severity = SeverityOf(entry);
  std::string text;
  for (std::size_t i = 0; i < entry.lines.size(); ++i) {
    const bool is_first = i == 0 && HasHeader(entry);
    const std::string_view mark = entry.kind == TraceEntry::Kind::kPiece ? kPiece : kContinuation;
    const std::string begin = is_first ? (with_header ? VisibleText(entry.header) : "") : std::string(mark);
    text.append(prefix).append(Painted(output, severity, begin + VisibleText(entry.lines[i]))).append("\n");
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
  SetText(object, "text", TextOf(entry));
  if (entry.is_cut) object["cut"] = true;
  return object;
}

}  // namespace qx::ctl
