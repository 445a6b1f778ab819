#include "tools/qxrelay/receive/Decision.h"

#include <algorithm>

#include "reportfile/tools/RecordOverlap.h"

namespace qx::relay {

namespace {

Decision Wait() { return {.verdict = Verdict::kWait}; }

// Takes the records of the message from number `next` on.
Decision TakeFrom(std::uint64_t next, const MessageHead& head) {
  Decision decision = {.verdict = Verdict::kTake, .next = next};
  const std::uint64_t known = next > head.first ? std::min(next - head.first, head.count) : 0;
  if (head.kind == MessageKind::kRecords) {
    decision.repeats = known;
    decision.skip = static_cast<std::size_t>(known);
  }
  if (head.kind == MessageKind::kGap) {
    decision.gap = head.count - known;
    decision.next += decision.gap;
  }
  return decision;
}

Decision Begin(const MessageHead& head) {
  Decision decision = TakeFrom(head.first, head);
  decision.begins = true;
  return decision;
}

// Takes no record: the message is from an earlier incarnation than the report. All its records were handled before the
// present incarnation began.
Decision DropAll(const ReportPosition& position, const MessageHead& head) {
  Decision decision = {.verdict = Verdict::kTake, .next = position.next};
  if (head.kind == MessageKind::kRecords) {
    decision.repeats = head.count;
    decision.skip = static_cast<std::size_t>(head.count);
  }
  return decision;
}

// Compares every record that both the message and the report have, because a power failure may have damaged any of
// them.
bool IsContradicted(const ReportPosition& position, const IncomingMessage& message, const HashOfRecord& hash_of) {
  const MessageHead& head = message.head;
  const auto differs = [&](std::uint64_t number, std::uint64_t in_message) {
    const std::uint64_t in_report = hash_of(number);
    return in_report != 0 && in_report != in_message;
  };
  if (head.first > 0 && head.hash_before != 0 && differs(head.first - 1, head.hash_before)) return true;
  const std::uint64_t end = head.kind == MessageKind::kRecords ? std::min(position.next, head.Next()) : head.first;
  for (std::uint64_t number = head.first; number < end; ++number) {
    if (differs(number, report::RecordHash(message.texts[static_cast<std::size_t>(number - head.first)]))) return true;
  }
  return false;
}

}  // namespace

Decision Decide(const ReportPosition& position, const IncomingMessage& message, const HashOfRecord& hash_of) {
  const MessageHead& head = message.head;
  if (!position.is_known) return head.first == 0 || message.is_next ? Begin(head) : Wait();
  if (head.incarnation != position.incarnation) {
    if (message.sequence < position.sequence) return DropAll(position, head);
    return message.is_next ? Begin(head) : Wait();
  }
  if (head.first > position.next) {
    if (!message.is_next) return Wait();
    Decision decision = TakeFrom(head.first, head);
    decision.missing = head.first - position.next;
    return decision;
  }
  if (IsContradicted(position, message, hash_of)) return {.verdict = Verdict::kContradicted};
  return TakeFrom(position.next, head);
}

}  // namespace qx::relay
