// Follows a log: reads the whole file for each snapshot, and compares it with the previous snapshot (TraceLogPlan.h).
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "base/File.h"
#include "debug/tools/TraceFollow.h"
#include "debug/tools/TraceLogPlan.h"

namespace qx::debug {

namespace {

constexpr std::size_t kGrowthBytes = 65536;  // the most bytes by which a file may grow while it is read
constexpr int kReadsMax = 10;

// Reads until the end of the file is reached, even if the file grows during the read. The writer may append the last
// entry of a cycle during the read, and then wrap. A snapshot that shows the wrap must have that entry. So the read
// does not stop at the size that the file had at first.
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

std::int64_t Seconds() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

class LogFollower final : public TraceFileFollower {
 public:
  LogFollower(bool from_now, std::chrono::milliseconds settled) : from_now_(from_now), settled_(settled) {}

  void Poll(const TraceFile& file, bool is_last, TracePoll& poll) override {
    if (!history_.has_started || HasChanged(file) || !held_.empty()) ReadAndReturn(file, is_last, poll);
    poll.is_pending = !held_.empty();
  }

 private:
  // False only if the file is unchanged and its modification time is more than a second old: these times are coarse, so
  // two changes may have the same time.
  bool HasChanged(const TraceFile& file) {
    const auto status = file.Status();
    const bool is_unchanged = status.has_value() && file::IsUnchanged(last_, *status);
    const bool was_old = is_unchanged && last_poll_s_ > last_.st_mtim.tv_sec + 1;
    if (status.has_value()) last_ = *status;
    last_poll_s_ = Seconds();
    return !was_old;
  }

  void ReadAndReturn(const TraceFile& file, bool is_last, TracePoll& poll) {
    std::string now;
    std::string again;
    if (!ReadWhole(file, now)) {
      poll.error = EFBIG;
      return;
    }
    for (int i = 0; i < kReadsMax; ++i, now.swap(again)) {
      const LogPlan plan = PlanLog(history_, now, !from_now_);
      if (!ReadWhole(file, again)) return;
      if (!Confirms(plan, now, again)) continue;
      Return(plan, std::move(now), is_last, poll);
      return;
    }
  }

  void Return(const LogPlan& plan, std::string now, bool is_last, TracePoll& poll) {
    if (plan.is_restart) AddEvent(poll, TraceFollowEvent::Kind::kRestart, 0);
    if (plan.lost_bytes > 0) AddEvent(poll, TraceFollowEvent::Kind::kLost, plan.lost_bytes);
    std::vector<TraceRange> ranges = plan.ranges;
    std::uint64_t end = plan.end;
    std::string held;
    if (!is_last && !ranges.empty() && ranges.back().end == end) {
      const std::uint64_t begin = LastEntryBegin(now, ranges.back());
      held = now.substr(static_cast<std::size_t>(begin), end - begin);
      if (IsSettled(begin, held)) held.clear();
      if (!held.empty()) ranges.back().end = end = begin;
    }
    AddEntries(now, std::move(ranges), poll);
    Keep(plan, std::move(now), end, std::move(held));
  }

  // True if the same newest entry was held back before, and for at least settled_. If it is another entry, the time
  // starts again.
  bool IsSettled(std::uint64_t begin, const std::string& newest) {
    const auto time = std::chrono::steady_clock::now();
    if (begin == history_.position && newest == held_) return time - held_since_ >= settled_;
    held_since_ = time;
    return false;
  }

  void Keep(const LogPlan& plan, std::string now, std::uint64_t end, std::string held) {
    history_.fingerprint = now.substr(0, std::min(kFingerprintBytes, static_cast<std::size_t>(end)));
    history_.copy = std::move(now);
    // No text has a NUL, so an entry that is held back counts as new in the next snapshot.
    history_.copy.replace(static_cast<std::size_t>(end), held.size(), held.size(), '\0');
    history_.position = end;
    history_.wrap = plan.wrap;
    history_.has_started = true;
    held_ = std::move(held);
  }

  void AddEntries(const std::string& now, std::vector<TraceRange> ranges, TracePoll& poll) const {
    const TraceMemory source(now);
    TraceEntryReader reader(source, std::move(ranges));
    TraceFollowEvent event;
    while (reader.Next(event.entry)) {
      if (event.entry.kind == TraceEntry::Kind::kPiece && history_.has_started &&
          event.entry.begin == history_.position) {
        event.entry.kind = TraceEntry::Kind::kRest;
      }
      poll.events.push_back(event);
    }
  }

  static void AddEvent(TracePoll& poll, TraceFollowEvent::Kind kind, std::uint64_t bytes) {
    TraceFollowEvent event;
    event.kind = kind;
    event.bytes = bytes;
    poll.events.push_back(event);
  }

  bool from_now_;
  std::chrono::milliseconds settled_;
  LogHistory history_;
  std::string held_;  // the newest entry if it was not returned yet
  std::chrono::steady_clock::time_point held_since_;
  struct stat last_ {};
  std::int64_t last_poll_s_ = 0;
};

}  // namespace

std::unique_ptr<TraceFileFollower> MakeLogFollower(bool from_now, std::chrono::milliseconds settled) {
  return std::make_unique<LogFollower>(from_now, settled);
}

}  // namespace qx::debug
