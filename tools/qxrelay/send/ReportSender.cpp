#include "tools/qxrelay/send/ReportSender.h"

#include <algorithm>

#include "tools/qxrelay/message/Backoff.h"

namespace qx::relay {

namespace {

constexpr TimeMs kActiveMs = 2000;

}  // namespace

Action ReportSender::Next(TimeMs now) {
  if (phase_ == Phase::kStopped) return {.kind = ActionKind::kStopped};
  if (IsInFlight() && now >= deadline_) Fail(now);
  if (IsInFlight()) return {.kind = ActionKind::kWait, .until = deadline_};
  if (phase_ == Phase::kDisconnected) return {.kind = ActionKind::kWait, .until = now + times_.timeout};
  if (now < not_before_) return {.kind = ActionKind::kWait, .until = not_before_};
  if (phase_ == Phase::kMustLookUp) return {.kind = ActionKind::kLookUp};
  return {.kind = phase_ == Phase::kMustPlace ? ActionKind::kPlace : ActionKind::kExamine};
}

void ReportSender::Connected(TimeMs now) {
  if (phase_ == Phase::kStopped) return;
  phase_ = Phase::kMustLookUp;
  token_ = 0;
  not_before_ = now;
}

void ReportSender::Disconnected() {
  if (phase_ == Phase::kStopped) return;
  phase_ = Phase::kDisconnected;
  token_ = 0;
}

void ReportSender::LookUpSent(TimeMs now, std::uint64_t token) {
  phase_ = Phase::kLookingUp;
  token_ = token;
  deadline_ = now + times_.timeout;
}

bool ReportSender::NewestFound(std::uint64_t token, std::uint64_t sequence) {
  if (phase_ != Phase::kLookingUp || token != token_) return false;
  phase_ = Phase::kMustPlace;
  if (sequence > last_sequence_) failures_ = 0;  // a message was stored, although its acknowledgement did not come
  last_sequence_ = sequence;
  return true;
}

void ReportSender::Placed(TimeMs now, const Mark& mark) {
  phase_ = Phase::kFollowing;
  position_ = mark;
  pending_since_.reset();
  not_before_ = now;
}

// A store that cannot be read now is examined again later. If the store contradicts the position, it is another store:
// its place must be found first.
Action ReportSender::Examined(TimeMs now, const Examination& found) {
  if (found.error != 0) {
    ++failures_;
    return WaitFor(now, now + BackoffMs(failures_, random_()));
  }
  if (found.proof == Proof::kContradicted) {
    phase_ = Phase::kMustPlace;
    return {.kind = ActionKind::kPlace};
  }
  const std::uint64_t next = position_.next;
  if (found.sendable.oldest > next)
    return {.kind = ActionKind::kGap, .first = next, .count = found.sendable.oldest - next};
  return found.sendable.end > next ? ForRecords(now, found) : ForNoRecords(now);
}

Action ReportSender::ForRecords(TimeMs now, const Examination& found) {
  if (!pending_since_.has_value()) pending_since_ = last_empty_.value_or(now);
  last_records_ = now;
  const TimeMs linger_end = *pending_since_ + times_.linger;
  const bool is_due = found.bytes >= times_.batch_bytes || now >= linger_end;
  if (!is_due) return WaitFor(now, std::min(linger_end, now + std::max(interval_, times_.poll)));
  if (adapted_at_ != now) AdaptInterval(found);
  adapted_at_ = now;
  return {.kind = ActionKind::kRecords, .first = position_.next, .count = found.sendable.end - position_.next};
}

Action ReportSender::ForNoRecords(TimeMs now) {
  pending_since_.reset();
  last_empty_ = now;
  const TimeMs heartbeat = last_sent_.has_value() ? *last_sent_ + times_.heartbeat : now;
  if (now >= heartbeat) return {.kind = ActionKind::kEmpty, .first = position_.next};
  const bool is_active = last_records_.has_value() && now < *last_records_ + kActiveMs;
  return WaitFor(now, std::min(heartbeat, now + (is_active ? std::max(interval_, times_.poll) : times_.poll_idle)));
}

// If there are new records of half a message, or of an eighth of the ring, since the last sent one, the report grows
// fast, and the interval is halved. Otherwise the interval is doubled.
void ReportSender::AdaptInterval(const Examination& found) {
  const std::uint64_t records = found.sendable.end - position_.next;
  const bool is_fast = found.bytes >= times_.batch_bytes / 2 || (found.slots != 0 && records >= found.slots / 8);
  const TimeMs longest = std::max(times_.poll, std::min(times_.linger, times_.poll_idle));
  const TimeMs wanted = is_fast ? interval_ / 2 : std::max(interval_, times_.poll) * 2;
  interval_ = std::clamp(wanted, times_.poll, longest);
}

Action ReportSender::WaitFor(TimeMs now, TimeMs time) {
  not_before_ = std::max(time, now + 1);
  return {.kind = ActionKind::kWait, .until = not_before_};
}

void ReportSender::Sent(TimeMs now, std::uint64_t token, std::uint64_t next, std::uint64_t hash) {
  phase_ = Phase::kPublishing;
  token_ = token;
  deadline_ = now + times_.timeout;
  in_flight_ = position_;
  in_flight_.next = next;
  in_flight_.hash_before = hash;
}

bool ReportSender::Stored(TimeMs now, std::uint64_t token, std::uint64_t sequence) {
  if (phase_ != Phase::kPublishing || token != token_) return false;
  if (sequence <= last_sequence_) {
    Fail(now);
    return false;
  }
  phase_ = Phase::kFollowing;
  position_ = in_flight_;
  last_sequence_ = sequence;
  last_sent_ = now;
  not_before_ = now;
  pending_since_.reset();
  last_empty_ = now;
  failures_ = 0;
  return true;
}

bool ReportSender::Failed(TimeMs now, std::uint64_t token) {
  if (!IsInFlight() || token != token_) return false;
  Fail(now);
  return true;
}

void ReportSender::NotSent(TimeMs now) { not_before_ = now + times_.poll; }

void ReportSender::Fail(TimeMs now) {
  ++failures_;
  phase_ = Phase::kMustLookUp;
  token_ = 0;
  not_before_ = now + BackoffMs(failures_, random_());
}

}  // namespace qx::relay
