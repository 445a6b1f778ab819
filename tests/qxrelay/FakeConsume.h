// A stream in memory with one durable consumer. A test publishes messages, lets them come again, and lets them expire.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::test {

// Threads: one thread.
class FakeConsume final : public relay::ConsumeStream {
 public:
  struct Stored {
    std::string subject;
    std::string payload;
    std::uint64_t before = 0;
  };

  [[nodiscard]] std::optional<std::string> Connect(const std::string&, std::size_t,
                                                   std::chrono::milliseconds) override {
    if (problem.has_value()) return problem;
    is_connected = true;
    return std::nullopt;
  }
  [[nodiscard]] std::optional<std::string> Fetch(const relay::FetchLimits& limits, std::chrono::milliseconds,
                                                 std::vector<relay::StreamMessage>& taken) override {
    ++fetches;
    if (!is_connected || problem.has_value()) return problem.value_or("not connected");
    std::size_t count = std::min(limits.messages, fetch_max);
    std::size_t bytes = limits.bytes;
    for (; count > 0 && !again.empty() && TakeBytes(again.front(), taken.empty(), bytes); --count) {
      const std::uint64_t sequence = again.front();
      again.pop_front();
      if (pending.contains(sequence)) Deliver(sequence, taken);
    }
    if (!again.empty()) return std::nullopt;
    for (; count > 0 && next <= last && TakeBytes(next, taken.empty(), bytes); --count) Deliver(next++, taken);
    return std::nullopt;
  }
  [[nodiscard]] std::optional<std::string> Acknowledge(const std::string& receipt) override {
    if (!is_connected) return "not connected";
    acknowledged.insert(std::stoull(receipt));
    pending.erase(std::stoull(receipt));
    return std::nullopt;
  }
  [[nodiscard]] std::optional<std::string> Refuse(const std::string& receipt) override {
    refused.insert(std::stoull(receipt));
    pending.erase(std::stoull(receipt));
    return std::nullopt;
  }
  [[nodiscard]] std::optional<std::string> ReadState(relay::ConsumerState& state) override {
    if (!is_connected) return "not connected";
    state = {.first = messages.empty() ? last + 1 : messages.begin()->first,
             .acknowledged = pending.empty() ? next - 1 : pending.begin()->first - 1,
             .created = created,
             .pending = last + 1 - next};
    return std::nullopt;
  }
  [[nodiscard]] std::optional<std::string> FirstSequence(std::uint64_t& sequence) override {
    sequence = messages.empty() ? 0 : messages.begin()->first;
    return std::nullopt;
  }
  // Copy 0 is the consumer's copy, copy 1 the other one.
  [[nodiscard]] std::size_t Copies() const override { return 2; }
  [[nodiscard]] relay::CopyAnswer ReadFromCopy(std::size_t copy, std::uint64_t sequence,
                                               relay::StreamMessage& message) override {
    ++copy_reads;
    if (copy == 1 && is_other_copy_silent) return relay::CopyAnswer::kUnknown;
    const std::map<std::uint64_t, Stored>& all = copy == 0 ? messages : other_copy;
    const auto found = all.find(sequence);
    if (found == all.end()) return relay::CopyAnswer::kNone;
    message = {.subject = found->second.subject,
               .payload = found->second.payload,
               .sequence = sequence,
               .before = found->second.before};
    return relay::CopyAnswer::kMessage;
  }
  void Close() override { is_connected = false; }

  // Stores a message. Returns its sequence.
  std::uint64_t Publish(const std::string& subject, std::string payload) {
    ++last;
    messages[last] = {subject, std::move(payload), std::exchange(newest[subject], last)};
    return last;
  }
  // From now on only the other copy has the message; the consumer's copy has an earlier message under its sequence.
  void MoveToOtherCopy(std::uint64_t sequence, std::uint64_t earlier) {
    other_copy[sequence] = messages.at(sequence);
    messages.at(sequence) = messages.at(earlier);
  }
  // Delivers messages to a receiver that is killed before it handles them.
  void DeliverToNobody(std::uint64_t count) {
    for (; count > 0 && next <= last; --count) ++pending[next++];
  }
  // Messages that were delivered and not acknowledged come again, in this order, before new ones.
  void Redeliver() {
    again.clear();
    for (const auto& [sequence, count] : pending) again.push_back(sequence);
  }
  // Removes the messages up to this one from the stream.
  void Expire(std::uint64_t sequence) {
    messages.erase(messages.begin(), messages.upper_bound(sequence));
    pending.erase(pending.begin(), pending.upper_bound(sequence));
    next = std::max(next, sequence + 1);
  }

  std::map<std::uint64_t, Stored> messages;
  std::map<std::uint64_t, Stored> other_copy;  // messages that the consumer's copy lacks
  bool is_other_copy_silent = false;
  int copy_reads = 0;
  std::map<std::string, std::uint64_t> newest;     // of a subject
  std::map<std::uint64_t, std::uint64_t> pending;  // delivered and not acknowledged: how often it was delivered
  std::deque<std::uint64_t> again;
  std::set<std::uint64_t> acknowledged;
  std::set<std::uint64_t> refused;
  std::uint64_t last = 0;
  std::uint64_t next = 1;
  std::int64_t created = 1;
  std::optional<std::string> problem;
  bool is_connected = false;
  bool has_before = true;  // whether messages say which one was before them
  std::size_t fetch_max = 1000;
  int fetches = 0;

 private:
  // Subtracts the message from the bytes of a fetch. False if it does not fit, and is not the first one.
  [[nodiscard]] bool TakeBytes(std::uint64_t sequence, bool is_first, std::size_t& bytes) const {
    const auto found = messages.find(sequence);
    const std::size_t size = found != messages.end() ? found->second.payload.size() : 0;
    if (size > bytes && !is_first) return false;
    bytes -= std::min(size, bytes);
    return true;
  }

  void Deliver(std::uint64_t sequence, std::vector<relay::StreamMessage>& taken) {
    const auto found = messages.find(sequence);
    if (found == messages.end()) return;
    taken.push_back({.subject = found->second.subject,
                     .payload = found->second.payload,
                     .sequence = sequence,
                     .before = has_before ? std::optional(found->second.before) : std::nullopt,
                     .delivered = ++pending[sequence],
                     .pending = last - sequence,
                     .receipt = std::to_string(sequence)});
  }
};

// The messages that a sender sends for one report.
class FakeSender {
 public:
  FakeSender(FakeConsume& stream, std::string host, std::string report)
      : stream_(stream), host_(std::move(host)), report_(std::move(report)) {}

  // Sends the next `count` records: "INCARNATION.NUMBER\r\n". Returns the sequence of the message.
  std::uint64_t Records(std::uint64_t count) {
    std::vector<std::string> texts;
    for (std::uint64_t i = 0; i < count; ++i) texts.push_back(Text(next + i));
    return Send(texts);
  }
  std::uint64_t Send(const std::vector<std::string>& texts) {
    std::string bytes;
    std::vector<std::uint32_t> lengths;
    for (const std::string& text : texts) {
      bytes += text;
      lengths.push_back(static_cast<std::uint32_t>(text.size()));
      sent.push_back(text);
    }
    const relay::MessageHead head = Head(relay::MessageKind::kRecords, texts.size());
    next += texts.size();
    hash = report::RecordHash(texts.back());
    return Publish(head, lengths, bytes);
  }
  std::uint64_t Gap(std::uint64_t count) {
    relay::MessageHead head = Head(relay::MessageKind::kGap, count);
    head.reason = relay::GapReason::kOverwritten;
    next += count;
    hash = 0;
    return Publish(head, {}, {});
  }
  std::uint64_t Empty() { return Publish(Head(relay::MessageKind::kEmpty, 0), {}, {}); }

  [[nodiscard]] std::string Text(std::uint64_t number) const {
    return std::to_string(incarnation) + "." + std::to_string(number) + "\r\n";
  }
  [[nodiscard]] std::string Subject() const {
    return "qx.report." + relay::TokenOf(host_) + "." + relay::TokenOf(report_);
  }
  [[nodiscard]] relay::MessageHead Head(relay::MessageKind kind, std::uint64_t count) const {
    return {.kind = kind,
            .incarnation = incarnation,
            .session = 1,
            .first = next,
            .count = count,
            .hash_before = hash,
            .store_next = next + count,
            .sent_ms = 1,
            .ring_slots = 100,
            .report = report_};
  }

  std::uint64_t incarnation = 7;
  std::uint64_t next = 0;
  std::uint64_t hash = 0;
  std::vector<std::string> sent;  // records, of all incarnations

 private:
  std::uint64_t Publish(const relay::MessageHead& head, const std::vector<std::uint32_t>& lengths,
                        const std::string& bytes) {
    return stream_.Publish(Subject(), relay::EncodeMessage(head, lengths, bytes));
  }

  FakeConsume& stream_;
  std::string host_;
  std::string report_;
};

}  // namespace qx::test
