#include "reportfile/tools/ReportFollower.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace qx::report {

namespace {

using Hashes = std::vector<std::uint64_t>;

constexpr int kAttempts = 8;
constexpr int kAttemptsAtFullSize = 2;
constexpr std::uint32_t kSmallCount = 256;  // while a small reply is read, a fast writer does not advance far

std::span<const std::uint64_t> Last(const Hashes& hashes, std::size_t count) {
  return std::span(hashes).last(std::min(count, hashes.size()));
}

bool HaveSameBeginning(const Hashes& one, const Hashes& other) {
  const auto size = static_cast<std::ptrdiff_t>(std::min(one.size(), other.size()));
  return std::equal(one.begin(), one.begin() + size, other.begin());
}

}  // namespace

ReportFollower::ReportFollower(RecordSource& source, ReportPosition position)
    : source_(source), position_(std::move(position)) {}

bool ReportFollower::Poll(std::uint32_t count_max, ReportPoll& poll) {
  overrun_.clear();
  overrun_present_ = 0;
  for (int i = 0; i < kAttempts; ++i) {
    last_ = Attempt();
    if (!Try(i < kAttemptsAtFullSize ? count_max : std::min(count_max, kSmallCount), last_)) return false;
    if (last_.is_steady) {
      poll = std::move(last_.poll);
      return true;
    }
  }
  last_ = Attempt();
  poll = ReportPoll();
  poll.was_overrun = true;
  return true;
}

void ReportFollower::Delivered(std::size_t count) { position_ = PositionAfter(count); }

ReportPosition ReportFollower::PositionAfter(std::size_t count) const {
  const bool has_read = last_.is_steady;
  const bool continues = last_.poll.event == PollEvent::kNone || last_.poll.event == PollEvent::kAmbiguous;
  if (!has_read || (!continues && count == 0 && !last_.hashes.empty())) return position_;  // report it again
  ReportPosition position;
  position.next = last_.place + static_cast<std::uint32_t>(count);
  position.delivered = position_.delivered + count;
  if (continues) position.overlap = position_.overlap;
  position.overlap.insert(position.overlap.end(), last_.hashes.begin(),
                          last_.hashes.begin() + static_cast<std::ptrdiff_t>(count));
  const auto kept = Last(position.overlap, kOverlapRecords);
  position.overlap = Hashes(kept.begin(), kept.end());
  return position;
}

bool ReportFollower::Try(std::uint32_t count_max, Attempt& attempt) {
  return Locate(attempt) && ReadNew(count_max, attempt) && SearchForward(attempt) && CheckSteady(attempt);
}

bool ReportFollower::Locate(Attempt& attempt) {
  if (position_.overlap.empty()) return true;
  bool is_located = false;
  if (has_searched_all_ && !LocateNear(attempt, is_located)) return false;
  if (is_located) return true;
  Hashes window;
  const std::uint32_t end = position_.next + static_cast<std::uint32_t>(overrun_.size());
  if (!ReadHashes(0, end, window)) return false;
  has_searched_all_ = true;
  const auto before_next = std::span(window).first(std::min<std::size_t>(position_.next, window.size()));
  const OverlapPlace found = FindOverlap(position_.overlap, before_next, true);
  if (found.verdict == OverlapVerdict::kMissing) {
    SettleMissing(window, attempt);
  } else {
    Settle(found, 0, attempt);
  }
  return true;
}

// A full ring advances by the number of written records. So the position is never after `next`, and mostly shortly
// before it.
bool ReportFollower::LocateNear(Attempt& attempt, bool& is_located) {
  const std::size_t reach = position_.overlap.size() + kNearRecords;
  if (position_.next <= reach) return true;
  const std::uint32_t start = position_.next - static_cast<std::uint32_t>(reach);
  Hashes window;
  if (!source_.Refresh() || !ReadHashes(start, position_.next, window)) return false;
  const OverlapPlace found = FindOverlap(position_.overlap, window, false);
  is_located = found.verdict != OverlapVerdict::kMissing;
  if (is_located) Settle(found, start, attempt);
  return true;
}

void ReportFollower::Settle(const OverlapPlace& found, std::uint32_t window_start, Attempt& attempt) const {
  const auto compared = Last(position_.overlap, found.compared);
  attempt.expected.assign(compared.begin(), compared.end());
  attempt.place = window_start + static_cast<std::uint32_t>(found.index);
  attempt.first = attempt.place - static_cast<std::uint32_t>(found.compared);
  if (found.verdict == OverlapVerdict::kAmbiguous) attempt.poll.event = PollEvent::kAmbiguous;
}

// A report never loses records: if it has fewer than before, it is another report.
void ReportFollower::SettleMissing(const Hashes& window, Attempt& attempt) const {
  const bool has_shrunk = window.size() < position_.next;
  attempt.poll.event = has_shrunk ? PollEvent::kStartedOver : PollEvent::kGap;
  if (!has_shrunk) attempt.poll.lost = LostRecords(window);
  attempt.expected.assign(window.begin(),
                          window.begin() + static_cast<std::ptrdiff_t>(std::min(window.size(), kOverlapRecords)));
}

// The number of lost records, if it is known. An earlier attempt has read records after the delivered ones. If some of
// them are still in the ring, they show how far the ring has advanced.
//   read after the last delivered one   a b c d e
//   ring now                            d e f g      => a b c are lost: 5 - 2
std::optional<std::uint64_t> ReportFollower::LostRecords(const Hashes& window) const {
  if (overrun_present_ == 0) return std::nullopt;
  const OverlapPlace found = FindOverlap(Last(overrun_, overrun_present_), window, true);
  if (found.verdict != OverlapVerdict::kFound || found.index > overrun_.size()) return std::nullopt;
  return overrun_.size() - found.index;
}

bool ReportFollower::ReadHashes(std::uint32_t first, std::uint32_t end, Hashes& hashes) {
  std::vector<std::string> records;
  while (first < end) {
    records.clear();
    if (!source_.Read(first, end - first, records)) return false;
    if (records.empty()) return true;
    for (const std::string& record : records) hashes.push_back(RecordHash(record));
    first += static_cast<std::uint32_t>(records.size());
  }
  return true;
}

// If no delivered record is before the new ones, this read starts at index 0 and so begins a new snapshot. The snapshot
// must begin with the records that the search found. CheckSteady later reads the first records of the attempt again.
bool ReportFollower::ReadNew(std::uint32_t count_max, Attempt& attempt) {
  if (!source_.Read(attempt.place, count_max, attempt.poll.records)) return false;
  for (const std::string& record : attempt.poll.records) attempt.hashes.push_back(RecordHash(record));
  const std::size_t before_new = attempt.place - attempt.first;
  attempt.is_torn = before_new == 0 && !HaveSameBeginning(attempt.hashes, attempt.expected);
  while (attempt.expected.size() < kOverlapRecords && attempt.expected.size() - before_new < attempt.hashes.size()) {
    attempt.expected.push_back(attempt.hashes[attempt.expected.size() - before_new]);
  }
  return true;
}

// If no record is returned for an index, the report ends there, or the record is too long for a reply. In the second
// case there is a record after it.
bool ReportFollower::SearchForward(Attempt& attempt) {
  ReportPoll& poll = attempt.poll;
  const std::uint32_t next = attempt.place + static_cast<std::uint32_t>(poll.records.size());
  std::vector<std::string> found;
  if (next > 0 && !source_.Read(next, 1, found)) return false;
  if (!found.empty()) return true;
  if (!source_.Read(next + 1, 1, found)) return false;
  poll.reached_end = found.empty();
  poll.is_blocked = !poll.reached_end && poll.records.empty();
  return true;
}

bool ReportFollower::CheckSteady(Attempt& attempt) {
  Hashes now;
  const auto end = attempt.first + static_cast<std::uint32_t>(attempt.expected.size());
  if (!ReadHashes(attempt.first, end, now)) return false;
  attempt.is_steady = !attempt.is_torn && now == attempt.expected;
  return attempt.is_steady || KeepOverrun(attempt);
}

// Keeps the hashes of a failed attempt. The records that a second read confirms were in the ring all the time. Nothing
// is kept if this read would start at index 0: it would begin a new snapshot, in which an index may mean another
// record.
bool ReportFollower::KeepOverrun(const Attempt& attempt) {
  overrun_.clear();
  overrun_present_ = 0;
  const bool continues = attempt.poll.event == PollEvent::kNone && !position_.overlap.empty();
  if (!continues || attempt.first == 0 || attempt.hashes.empty()) return true;
  const auto was = Last(attempt.hashes, kOverlapRecords);
  const std::uint32_t end = attempt.place + static_cast<std::uint32_t>(attempt.hashes.size());
  Hashes is;
  if (!ReadHashes(end - static_cast<std::uint32_t>(was.size()), end, is)) return false;
  if (is.size() != was.size()) return true;
  const auto differing = std::mismatch(is.rbegin(), is.rend(), was.rbegin()).first;
  overrun_ = attempt.hashes;
  overrun_present_ = static_cast<std::size_t>(differing - is.rbegin());
  return true;
}

}  // namespace qx::report
