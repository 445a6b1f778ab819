// Following a log: the file is read whole at each look and compared with the copy of the look before.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "debug/tools/TraceFollow.h"

namespace qx::debug {

namespace {

constexpr std::size_t kFingerprintBytes = 256;
constexpr std::size_t kSameBytesMin = 4096;  // longer than any entry: where so much is as it was, nothing is new
constexpr std::size_t kGrowthBytes = 65536;  // that a file may have grown by while it is read
constexpr int kReadsMax = 10;

// Reads from the beginning to where the file ends when the end is read, not when the reading began: the end of a cycle
// may be written meanwhile, and the wrap behind it is in the bytes that were read first.
bool ReadWhole(const TraceFile& file, std::string& bytes) {
  const auto status = file.Status();
  if (!status.has_value()) return false;
  std::size_t size = 0;
  bytes.resize(static_cast<std::size_t>(status->st_size) + kGrowthBytes);
  while (bytes.size() <= kFollowedBytesMax + kGrowthBytes) {
    size += file.ReadAt(size, bytes.data() + size, bytes.size() - size);
    if (size < bytes.size()) {
      bytes.resize(size);
      return true;
    }
    bytes.resize(size + kGrowthBytes);
  }
  return false;
}

std::uint64_t EndOfLastLine(const std::string& bytes) { return bytes.rfind('\n') + 1; }

std::uint64_t Minus(std::uint64_t a, std::uint64_t b) { return a > b ? a - b : 0; }

// What a look gives: the ranges in the order of time, the last one ending at the newest entry.
struct Plan {
  bool is_restart = false;
  std::uint64_t lost_bytes = 0;
  std::vector<TraceRange> ranges;
  std::uint64_t end = 0;  // where the newest entry ends
  std::optional<TraceWrap> wrap;
};

TraceRange NewRange(std::uint64_t begin, std::uint64_t end) {
  return {TraceRange::Kind::kEntries, TracePart::kNewest, begin, end};
}

class LogFollower final : public TraceFileFollower {
 public:
  LogFollower(bool from_now, std::chrono::milliseconds settled) : from_now_(from_now), settled_(settled) {}

  void Look(const TraceFile& file, bool is_last, TraceLook& look) override {
    is_last_ = is_last;
    if (!has_started_ || HasChanged(file) || !held_.empty()) ReadAndGive(file, look);
    look.is_pending = !held_.empty();
  }

 private:
  // The time of a change has a grain: one that is younger than a second may hide another.
  bool HasChanged(const TraceFile& file) {
    const auto status = file.Status();
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const bool is_same = status.has_value() && last_.st_size == status->st_size &&
                         last_.st_mtim.tv_sec == status->st_mtim.tv_sec &&
                         last_.st_mtim.tv_nsec == status->st_mtim.tv_nsec;
    const bool was_old = is_same && last_look_s_ > last_.st_mtim.tv_sec + 1;
    if (status.has_value()) last_ = *status;
    last_look_s_ = now.tv_sec;
    return !was_old;
  }

  void ReadAndGive(const TraceFile& file, TraceLook& look) {
    std::string now;
    std::string again;
    if (!ReadWhole(file, now)) {
      look.error = EFBIG;
      return;
    }
    for (int i = 0; i < kReadsMax; ++i, now.swap(again)) {
      const Plan plan = MakePlan(now);
      if (!ReadWhole(file, again)) return;
      if (!Agree(plan, now, again)) continue;
      Give(plan, std::move(now), look);
      return;
    }
  }

  // Whether a second reading finds the same at the places that the plan is made from: a page can be read before, and
  // the next one after the same moment.
  static bool Agree(const Plan& plan, const std::string& now, const std::string& again) {
    const auto same = [&](std::uint64_t begin, std::uint64_t end) {
      const auto at = static_cast<std::size_t>(begin);
      return end <= again.size() && now.compare(at, end - begin, again, at, end - begin) == 0;
    };
    if (!same(0, std::min(kFingerprintBytes, now.size()))) return false;
    if (plan.wrap.has_value() && !same(plan.wrap->position, plan.wrap->line_end)) return false;
    return std::all_of(plan.ranges.begin(), plan.ranges.end(),
                       [&](const TraceRange& range) { return same(range.begin, range.end); });
  }

  Plan MakePlan(const std::string& now) const {
    const TraceMemory source(now);
    Plan plan;
    plan.wrap = FindTraceWrap(source);
    const std::int64_t wraps = Cycle(plan.wrap) - Cycle(wrap_);
    plan.is_restart = has_started_ && HasRestarted(now, plan.wrap);
    if (!has_started_ || plan.is_restart) {
      PlanAll(source, now, plan);
    } else if (wraps == 0) {
      plan.end = Frontier(now, position_, now.size());
      plan.ranges.push_back(NewRange(position_, plan.end));
    } else {
      PlanWrapped(source, now, wraps, plan);
    }
    return plan;
  }

  static std::int64_t Cycle(const std::optional<TraceWrap>& wrap) { return wrap.has_value() ? wrap->cycle : 0; }

  // Shorter than it was, or begun with another entry, or with fewer wraps. A wrap before the end of the start goes to
  // the beginning of the file, too.
  bool HasRestarted(const std::string& now, const std::optional<TraceWrap>& wrap) const {
    if (now.size() < position_ || Cycle(wrap) < Cycle(wrap_)) return true;
    const bool wrapped_to_begin = wrap.has_value() && wrap->position == 0 && wrap->cycle > Cycle(wrap_);
    return !now.starts_with(fingerprint_) && !wrapped_to_begin;
  }

  void PlanAll(const TraceSource& source, const std::string& now, Plan& plan) const {
    const TraceLayout layout = FindLogLayout(source);
    plan.end = std::min(layout.newest_end, EndOfLastLine(now));
    if (from_now_ && !has_started_) return;
    for (TraceRange range : layout.ranges) {
      // Lines that may belong to the newest entry come when the next one tells.
      if (range.kind == TraceRange::Kind::kPiece && range.part == TracePart::kNewest) continue;
      if (range.part == TracePart::kNewest) range.end = std::min(range.end, plan.end);
      plan.ranges.push_back(range);
    }
  }

  void PlanWrapped(const TraceSource& source, const std::string& now, std::int64_t wraps, Plan& plan) const {
    const TraceWrap& wrap = *plan.wrap;
    std::uint64_t from = position_;
    if (from < wrap.position) {  // the rest of the head was not read yet
      plan.ranges.push_back(NewRange(from, wrap.position));
      from = wrap.position;
    }
    const std::uint64_t newest_end = std::max(Frontier(now, wrap.position, from), wrap.line_end);
    if (wraps == 1 && newest_end < from) {
      plan.ranges.push_back(NewRange(from, Frontier(now, from, now.size())));
      plan.ranges.push_back(NewRange(wrap.position, newest_end));
      plan.end = newest_end;
      return;
    }
    const TraceLayout layout = FindLogLayout(source);
    std::uint64_t older_begin = now.size();
    for (const TraceRange& range : layout.ranges) {
      // Lines that may belong to the newest entry come when the next one tells.
      const bool is_undecided = range.kind == TraceRange::Kind::kPiece && range.part == TracePart::kNewest;
      if (is_undecided || range.kind == TraceRange::Kind::kGap || range.part == TracePart::kHead) continue;
      if (range.part == TracePart::kOlder) older_begin = std::min(older_begin, range.begin);
      plan.ranges.push_back(range);
    }
    plan.end = layout.newest_end;
    if (wraps == 1) {
      plan.lost_bytes = Minus(older_begin, from);
    } else {
      const std::uint64_t cycle_bytes = Minus(wrap.max_bytes, wrap.position);
      plan.lost_bytes = Minus(wrap.max_bytes, from) + static_cast<std::uint64_t>(wraps - 2) * cycle_bytes +
                        Minus(older_begin, wrap.position);
    }
  }

  // Where what is new behind `begin`, and before `limit`, ends: at the line feed at or behind the last byte that is not
  // as it was.
  std::uint64_t Frontier(const std::string& now, std::uint64_t begin, std::uint64_t limit) const {
    std::size_t last_new = std::string::npos;
    std::size_t at = static_cast<std::size_t>(begin);
    for (std::size_t same = 0; at < limit && same < kSameBytesMin; ++at) {
      const bool is_new = at >= copy_.size() || now[at] != copy_[at];
      same = is_new ? 0 : same + 1;
      if (is_new) last_new = at;
    }
    if (last_new == std::string::npos) return begin;
    const std::size_t feed = now.find('\n', last_new);
    return feed != std::string::npos ? feed + 1 : std::max(begin, EndOfLastLine(now));
  }

  void Give(const Plan& plan, std::string now, TraceLook& look) {
    if (plan.is_restart) AddEvent(look, TraceFollowEvent::Kind::kRestart, 0);
    if (plan.lost_bytes > 0) AddEvent(look, TraceFollowEvent::Kind::kLost, plan.lost_bytes);
    std::vector<TraceRange> ranges = plan.ranges;
    std::uint64_t end = plan.end;
    std::string held;
    if (!ranges.empty() && ranges.back().end == plan.end) held = HoldNewest(now, ranges.back(), end);

    GiveEntries(now, std::move(ranges), look);
    fingerprint_ = now.substr(0, std::min(kFingerprintBytes, static_cast<std::size_t>(end)));
    copy_ = std::move(now);
    // No text holds a NUL, so what is held back counts as new at the next look.
    copy_.replace(static_cast<std::size_t>(end), held.size(), held.size(), '\0');
    held_ = std::move(held);
    position_ = end;
    wrap_ = plan.wrap;
    has_started_ = true;
  }

  // Takes the last entry off the range unless it has stood there as it is for a while; moves `end` to its beginning.
  std::string HoldNewest(const std::string& now, TraceRange& range, std::uint64_t& end) {
    if (is_last_) return "";
    const TraceMemory source(now);
    std::uint64_t entry_begin = range.begin;
    TraceLineReader reader(source, range.begin, range.end);
    for (TraceLine line{}; reader.Next(line);) {
      if (!line.is_rest && ParseTraceHeader(line.text).has_value()) entry_begin = line.begin;
    }
    std::string newest = now.substr(static_cast<std::size_t>(entry_begin), range.end - entry_begin);
    const auto time = std::chrono::steady_clock::now();
    if (entry_begin != position_ || newest != held_) {
      held_since_ = time;
    } else if (time - held_since_ >= settled_) {
      return "";
    }
    range.end = end = entry_begin;
    return newest;
  }

  void GiveEntries(const std::string& now, std::vector<TraceRange> ranges, TraceLook& look) const {
    const TraceMemory source(now);
    TraceEntryReader reader(source, std::move(ranges));
    TraceFollowEvent event;
    while (reader.Next(event.entry)) {
      if (event.entry.kind == TraceEntry::Kind::kPiece && has_started_ && event.entry.begin == position_) {
        event.entry.kind = TraceEntry::Kind::kRest;
      }
      look.events.push_back(event);
    }
  }

  static void AddEvent(TraceLook& look, TraceFollowEvent::Kind kind, std::uint64_t bytes) {
    TraceFollowEvent event;
    event.kind = kind;
    event.bytes = bytes;
    look.events.push_back(event);
  }

  bool from_now_;
  std::chrono::milliseconds settled_;
  bool is_last_ = false;
  bool has_started_ = false;
  std::string copy_;  // of the file at the last look
  std::string fingerprint_;
  std::string held_;  // the newest entry, seen and not given yet
  std::chrono::steady_clock::time_point held_since_;
  std::uint64_t position_ = 0;  // everything before it, in the order of time, has been given
  std::optional<TraceWrap> wrap_;
  struct stat last_ {};
  std::int64_t last_look_s_ = 0;
};

}  // namespace

std::unique_ptr<TraceFileFollower> MakeLogFollower(bool from_now, std::chrono::milliseconds settled) {
  return std::make_unique<LogFollower>(from_now, settled);
}

}  // namespace qx::debug
