#include "tools/qxrelay/receive/Decision.h"

#include <algorithm>

#include "reportfile/tools/RecordOverlap.h"

namespace qx::relay {

namespace {

Decision Wait() { return {.verdict = Verdict::kWait}; }

// Everything from `next` on.
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

// From an incarnation before the one that the report has: its records were handled before that began.
Decision DropAll(const ReportPosition& position, const MessageHead& head) {
  Decision decision = {.verdict = Verdict::kTake, .next = position.next};
  if (head.kind == MessageKind::kRecords) {
    decision.repeats = head.count;
    decision.skip = static_cast<std::size_t>(head.count);
  }
  return decision;
}

// Compares the latest record that both the message and the report know.
bool IsContradicted(const ReportPosition& position, const IncomingMessage& message, const HashOfRecord& hash_of) {
  const MessageHead& head = message.head;
  const std::uint64_t end = std::min(position.next, head.Next());
  const bool has_text = head.kind == MessageKind::kRecords && end > head.first;
  if (!has_text && (head.first == 0 || head.hash_before == 0)) return false;
  const std::uint64_t number = (has_text ? end : head.first) - 1;
  const std::uint64_t in_report = hash_of(number);
  if (in_report == 0) return false;
  const std::uint64_t in_message =
      has_text ? report::RecordHash(message.texts[static_cast<std::size_t>(number - head.first)]) : head.hash_before;
  return in_report != in_message;
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
