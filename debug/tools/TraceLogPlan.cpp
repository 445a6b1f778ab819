#include "debug/tools/TraceLogPlan.h"

#include <algorithm>

#include "debug/tools/TraceLine.h"
#include "debug/tools/TraceMarks.h"

namespace qx::debug {

namespace {

constexpr std::size_t kSameBytesMin = 4096;  // longer than any entry

std::uint64_t EndOfLastLine(const std::string& bytes) { return bytes.rfind('\n') + 1; }

std::uint64_t Minus(std::uint64_t a, std::uint64_t b) { return a > b ? a - b : 0; }

std::int64_t Cycle(const std::optional<TraceWrap>& wrap) { return wrap.has_value() ? wrap->cycle : 0; }

TraceRange NewRange(std::uint64_t begin, std::uint64_t end) {
  return {TraceRange::Kind::kEntries, TracePart::kNewest, begin, end};
}

// Lines that may belong to the newest entry. A later snapshot returns these lines, when the next entry shows whether
// they belong to it.
bool IsUndecided(const TraceRange& range) {
  return range.kind == TraceRange::Kind::kPiece && range.part == TracePart::kNewest;
}

// Plans to return everything in the file, or nothing if `has_old` is false.
void PlanAll(const std::string& now, bool has_old, LogPlan& plan) {
  const TraceMemory source(now);
  const TraceLayout layout = FindLogLayout(source);
  plan.end = std::min(layout.newest_end, EndOfLastLine(now));
  if (!has_old) return;
  for (TraceRange range : layout.ranges) {
    if (IsUndecided(range)) continue;
    if (range.part == TracePart::kNewest) range.end = std::min(range.end, plan.end);
    plan.ranges.push_back(range);
  }
}

// Plans to return the rest of the cycle that was read before, and the newest entries. `from` is the end of the part
// that was read.
void PlanOverwritten(const std::string& now, std::int64_t wraps, std::uint64_t from, LogPlan& plan) {
  const TraceMemory source(now);
  const TraceLayout layout = FindLogLayout(source);
  std::uint64_t older_begin = now.size();
  for (const TraceRange& range : layout.ranges) {
    if (IsUndecided(range) || range.kind == TraceRange::Kind::kGap || range.part == TracePart::kHead) continue;
    if (range.part == TracePart::kOlder) older_begin = std::min(older_begin, range.begin);
    plan.ranges.push_back(range);
  }
  plan.end = layout.newest_end;
  plan.lost_bytes = LostBytes(*plan.wrap, wraps, from, older_begin);
}

void PlanWrapped(const LogHistory& history, const std::string& now, std::int64_t wraps, LogPlan& plan) {
  const TraceWrap wrap = *plan.wrap;
  const std::uint64_t from = std::max(history.position, wrap.position);
  if (history.position < from) plan.ranges.push_back(NewRange(history.position, from));  // the rest of the head
  const std::uint64_t newest_end = std::max(EndOfNew(history.copy, now, wrap.position, from), wrap.line_end);
  if (wraps != 1 || newest_end >= from) {
    PlanOverwritten(now, wraps, from, plan);
    return;
  }
  plan.ranges.push_back(NewRange(from, EndOfNew(history.copy, now, from, now.size())));
  plan.ranges.push_back(NewRange(wrap.position, newest_end));
  plan.end = newest_end;
}

bool IsSame(const std::string& now, const std::string& again, std::uint64_t begin, std::uint64_t end) {
  const auto at = static_cast<std::size_t>(begin);
  return end <= again.size() && now.compare(at, end - begin, again, at, end - begin) == 0;
}

}  // namespace

bool HasRestarted(const LogHistory& history, const std::string& now, const std::optional<TraceWrap>& wrap) {
  if (now.size() < history.position || Cycle(wrap) < Cycle(history.wrap)) return true;
  if (now.starts_with(history.fingerprint)) return false;
  const bool has_wrapped_to_begin = wrap.has_value() && wrap->position == 0 && wrap->cycle > Cycle(history.wrap);
  return !has_wrapped_to_begin;
}

std::uint64_t EndOfNew(const std::string& copy, const std::string& now, std::uint64_t begin, std::uint64_t limit) {
  std::size_t last_new = std::string::npos;
  std::size_t at = static_cast<std::size_t>(begin);
  for (std::size_t same = 0; at < limit && same < kSameBytesMin; ++at) {
    const bool is_new = at >= copy.size() || now[at] != copy[at];
    same = is_new ? 0 : same + 1;
    if (is_new) last_new = at;
  }
  if (last_new == std::string::npos) return begin;
  const std::size_t feed = now.find('\n', last_new);
  return feed != std::string::npos ? feed + 1 : std::max(begin, EndOfLastLine(now));
}

std::uint64_t LostBytes(const TraceWrap& wrap, std::int64_t wraps, std::uint64_t from, std::uint64_t older_begin) {
  if (wraps == 1) return Minus(older_begin, from);
  const std::uint64_t rest_of_cycle = Minus(wrap.max_bytes, from);
  const std::uint64_t whole_cycles = static_cast<std::uint64_t>(wraps - 2) * Minus(wrap.max_bytes, wrap.position);
  return rest_of_cycle + whole_cycles + Minus(older_begin, wrap.position);
}

LogPlan PlanLog(const LogHistory& history, const std::string& now, bool has_old) {
  const TraceMemory source(now);
  LogPlan plan;
  plan.wrap = FindTraceWrap(source);
  plan.is_restart = history.has_started && HasRestarted(history, now, plan.wrap);
  const std::int64_t wraps = Cycle(plan.wrap) - Cycle(history.wrap);
  if (!history.has_started || plan.is_restart) {
    PlanAll(now, has_old || history.has_started, plan);
  } else if (wraps == 0) {
    plan.end = EndOfNew(history.copy, now, history.position, now.size());
    plan.ranges.push_back(NewRange(history.position, plan.end));
  } else {
    PlanWrapped(history, now, wraps, plan);
  }
  return plan;
}

bool Confirms(const LogPlan& plan, const std::string& now, const std::string& again) {
  if (!IsSame(now, again, 0, std::min(kFingerprintBytes, now.size()))) return false;
  if (plan.wrap.has_value() && !IsSame(now, again, plan.wrap->position, plan.wrap->line_end)) return false;
  return std::all_of(plan.ranges.begin(), plan.ranges.end(),
                     [&](const TraceRange& range) { return IsSame(now, again, range.begin, range.end); });
}

std::uint64_t LastEntryBegin(const std::string& now, const TraceRange& range) {
  const TraceMemory source(now);
  std::uint64_t begin = range.begin;
  TraceLineReader reader(source, range.begin, range.end);
  for (TraceLine line{}; reader.Next(line);) {
    if (HeaderOf(line).has_value()) begin = line.begin;
  }
  return begin;
}

}  // namespace qx::debug
