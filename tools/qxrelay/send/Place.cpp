#include "tools/qxrelay/send/Place.h"

#include <algorithm>

#include "reportfile/tools/RecordOverlap.h"

namespace qx::relay {

namespace {

// Only this number of records is searched, the newest ones.
constexpr std::uint64_t kSearchedRecordsMax = 1'000'000;

// The place after the last records that were sent, if the ring still has them.
std::optional<std::uint64_t> Recognise(const RecordRange& range, const RecordRange& sendable,
                                       const std::vector<std::uint64_t>& overlap, RecordHashes& hashes) {
  if (overlap.empty()) return std::nullopt;
  const std::uint64_t count = std::min(sendable.Count(), kSearchedRecordsMax);
  const std::uint64_t first = sendable.end - count;
  const std::vector<std::uint64_t> window = hashes.Hashes(first - range.oldest, count);
  if (window.size() != count) return std::nullopt;
  const report::OverlapPlace found = report::FindOverlap(overlap, window, first == sendable.oldest);
  if (found.verdict != report::OverlapVerdict::kFound) return std::nullopt;
  return first + found.index;
}

Place NewIncarnation(const StoreView& view, const std::vector<std::uint64_t>& overlap, RecordHashes& hashes) {
  const RecordRange range = FirstRange(view.header);
  const RecordRange sendable = view.Sendable(range);
  const std::optional<std::uint64_t> recognised = Recognise(range, sendable, overlap, hashes);
  if (!recognised.has_value()) return {.incarnation = 0, .next = sendable.oldest, .hash_before = 0};
  return {.incarnation = 0, .next = *recognised, .hash_before = overlap.back(), .is_recognised = true};
}

Place After(const Mark& mark) {
  return {.incarnation = mark.incarnation, .next = mark.next, .hash_before = mark.hash_before};
}

// The place of the oldest record that can be sent. If the ring no longer has the record after the mark, it is the place
// after the mark: the records between this place and the oldest one are lost, and become a gap.
Place FromOldest(const Mark& mark, const StoreView& view) {
  const std::optional<RecordRange> range = RangeNear(view.header, mark.next);
  const std::uint64_t oldest = view.Sendable(*range).oldest;
  if (mark.next <= oldest) return After(mark);
  return {.incarnation = mark.incarnation, .next = oldest, .hash_before = 0};
}

}  // namespace

Proof ProveMark(const std::optional<Mark>& mark, const StoreView& view, RecordHashes& hashes) {
  if (!mark.has_value()) return Proof::kNone;
  const bool is_resized = mark->ring_slots != 0 && mark->ring_slots != view.header.maxRecord;
  const std::optional<RecordRange> range = RangeNear(view.header, mark->next);
  if (is_resized || !range.has_value() || range->end < mark->next) return Proof::kContradicted;
  if (mark->next == 0) return Proof::kProven;
  const std::uint64_t before = mark->next - 1;
  if (mark->hash_before == 0 || !view.Sendable(*range).Contains(before)) return Proof::kGone;
  const std::vector<std::uint64_t> found = hashes.Hashes(before - range->oldest, 1);
  if (found.empty()) return Proof::kGone;
  return found.front() == mark->hash_before ? Proof::kProven : Proof::kContradicted;
}

Place FindPlace(const StoreView& view, const std::optional<Mark>& message, const std::optional<Mark>& state,
                const std::vector<std::uint64_t>& overlap, RecordHashes& hashes) {
  const Proof of_message = ProveMark(message, view, hashes);
  if (of_message == Proof::kProven) return After(*message);
  const Proof of_state = ProveMark(state, view, hashes);
  const bool is_one_life = message.has_value() && state.has_value() && message->incarnation == state->incarnation;
  if (of_message == Proof::kContradicted && is_one_life) return NewIncarnation(view, overlap, hashes);
  if (of_state == Proof::kProven && !is_one_life) return FromOldest(*state, view);
  if (of_message == Proof::kGone && of_state != Proof::kContradicted) return After(*message);
  if (of_message != Proof::kGone && of_state == Proof::kGone) return After(*state);
  return NewIncarnation(view, overlap, hashes);
}

Rival RivalOf(const MessageHead& newest, const HostIdentity& identity, std::uint64_t session) {
  if (newest.identity != identity) return Rival::kOtherMachine;
  return newest.session > session ? Rival::kLaterSession : Rival::kNone;
}

std::string TextOfRival(Rival rival, const std::string& host) {
  const std::string advice = "; if this is the only sender, start it with --take-over";
  switch (rival) {
    case Rival::kNone:
      return {};
    case Rival::kOtherMachine:
      return "the newest message is from another machine: is \"" + host +
             "\" the name of two hosts, or was this one cloned?" + advice;
    case Rival::kLaterSession:
      return "a sender with this state directory was started later: is this a clone, or was the state restored?" +
             advice;
  }
  return {};
}

}  // namespace qx::relay
