// Follows a ring with the write position and the number of wraps in its header.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "debug/RingFormat.h"
#include "debug/tools/TraceFollow.h"

namespace qx::debug {

namespace {

constexpr int kReadsMax = 10;

std::uint64_t Minus(std::uint64_t a, std::uint64_t b) { return a > b ? a - b : 0; }

// A range of the file and its bytes.
struct Piece {
  TraceRange range;
  std::string bytes;
};

// The new ranges of one snapshot.
struct Plan {
  bool is_restart = false;
  std::uint64_t lost_bytes = 0;
  std::vector<TraceRange> ranges;
  std::uint64_t end = 0;  // the write position
};

class RingFollower final : public TraceFileFollower {
 public:
  explicit RingFollower(bool from_now) : from_now_(from_now) {}

  void Poll(const TraceFile& file, bool /*is_last*/, TracePoll& poll) override {
    if (file.Size() > kFollowedBytesMax) {
      poll.error = EFBIG;
      return;
    }
    for (int i = 0; i < kReadsMax; ++i) {
      const TraceRingHeader header = ReadTraceRingHeader(file);
      const std::optional<Plan> plan = MakePlan(file, header);
      if (!plan.has_value()) return;  // the header block is being written
      const std::vector<Piece> pieces = Read(file, *plan);
      if (!IsUnchanged(file, header, pieces)) continue;
      AddEvents(header, *plan, pieces, poll);
      return;
    }
    poll.is_pending = true;
  }

 private:
  std::optional<Plan> MakePlan(const TraceFile& file, const TraceRingHeader& header) const {
    Plan plan;
    plan.is_restart = has_started_ && HasRestarted(header);
    const std::uint64_t wraps = header.wraps.value_or(0);
    if (has_started_ && !plan.is_restart && wraps == wraps_) {
      plan.end = std::min(header.write_position.value_or(0), file.Size());
      plan.ranges.push_back({TraceRange::Kind::kEntries, TracePart::kNewest, position_, plan.end});
      return plan;
    }
    const TraceLayout layout = FindTraceLayout(file);
    const bool is_settled = layout.format == TraceFormat::kRing && layout.cycle_begin > kRingFirstEntry &&
                            layout.newest_end > layout.cycle_begin;
    if (!is_settled) return std::nullopt;
    plan.end = layout.newest_end;
    if (has_started_ && !plan.is_restart) {
      PlanWrapped(layout, wraps - wraps_, file.Size(), plan);
    } else if (has_started_ || !from_now_) {
      plan.ranges = layout.ranges;
    }
    return plan;
  }

  // True if the file is a new ring: it has another time of the first start, or one of its numbers is lower than before.
  bool HasRestarted(const TraceRingHeader& header) const {
    const std::uint64_t wraps = header.wraps.value_or(0);
    return header.first_open != first_open_ || header.opens.value_or(0) < opens_ || wraps < wraps_ ||
           (wraps == wraps_ && header.write_position.value_or(0) < position_);
  }

  void PlanWrapped(const TraceLayout& layout, std::uint64_t wraps, std::uint64_t size, Plan& plan) const {
    std::uint64_t older_begin = size;
    for (TraceRange range : layout.ranges) {
      if (range.kind != TraceRange::Kind::kEntries || range.part == TracePart::kHead) continue;
      if (range.part == TracePart::kOlder) {
        if (wraps == 1 && position_ >= range.begin) range.begin = std::min(position_, range.end);
        older_begin = range.begin;
      }
      plan.ranges.push_back(range);
    }
    if (wraps == 1) {
      plan.lost_bytes = Minus(older_begin, position_);
    } else {
      plan.lost_bytes = Minus(size, position_) + (wraps - 2) * Minus(size, layout.cycle_begin) +
                        Minus(older_begin, layout.cycle_begin);
    }
  }

  static std::vector<Piece> Read(const TraceFile& file, const Plan& plan) {
    std::vector<Piece> pieces;
    for (const TraceRange& range : plan.ranges) {
      pieces.push_back({range, file.BytesAt(range.begin, static_cast<std::size_t>(range.end - range.begin))});
    }
    return pieces;
  }

  // Within one cycle the writer writes only after the newest entries that were read. It may overwrite older entries
  // meanwhile, so older entries count only if a second read returns the same bytes.
  static bool IsUnchanged(const TraceFile& file, const TraceRingHeader& header, const std::vector<Piece>& pieces) {
    const auto is_same = [&](const Piece& piece) {
      return piece.range.part != TracePart::kOlder ||
             file.BytesAt(piece.range.begin, piece.bytes.size()) == piece.bytes;
    };
    if (!std::all_of(pieces.begin(), pieces.end(), is_same)) return false;
    const TraceRingHeader now = ReadTraceRingHeader(file);
    return now.wraps == header.wraps && now.opens == header.opens && now.first_open == header.first_open;
  }

  void AddEvents(const TraceRingHeader& header, const Plan& plan, const std::vector<Piece>& pieces, TracePoll& poll) {
    TraceFollowEvent event;
    event.kind = TraceFollowEvent::Kind::kRestart;
    if (plan.is_restart) poll.events.push_back(event);
    event.kind = TraceFollowEvent::Kind::kLost;
    event.bytes = plan.lost_bytes;
    if (plan.lost_bytes > 0) poll.events.push_back(event);
    for (const Piece& piece : pieces) AddEntries(piece, poll);
    has_started_ = true;
    position_ = plan.end;
    wraps_ = header.wraps.value_or(0);
    opens_ = header.opens.value_or(0);
    first_open_ = header.first_open;
  }

  static void AddEntries(const Piece& piece, TracePoll& poll) {
    const TraceMemory source(piece.bytes);
    TraceRange range = piece.range;
    range.begin = 0;
    range.end = piece.bytes.size();
    TraceEntryReader reader(source, {range});
    TraceFollowEvent event;
    while (reader.Next(event.entry)) {
      event.entry.begin += piece.range.begin;
      event.entry.end += piece.range.begin;
      poll.events.push_back(event);
    }
  }

  bool from_now_;
  bool has_started_ = false;
  std::uint64_t position_ = 0;
  std::uint64_t wraps_ = 0;
  std::uint64_t opens_ = 0;
  std::string first_open_;
};

}  // namespace

std::unique_ptr<TraceFileFollower> MakeRingFollower(bool from_now) { return std::make_unique<RingFollower>(from_now); }

}  // namespace qx::debug
