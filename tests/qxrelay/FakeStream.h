// A stream in memory with the faults of real servers, and a model of the report that a collector makes of it.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::test {

// Threads: one thread. Replies come at the next TakeReplies.
class FakeStream final : public relay::PublishStream {
 public:
  struct Stored {
    std::string subject;
    std::string payload;
    std::uint64_t sequence = 0;
  };

  // The faults of the next requests. Each is used once, in order; then everything works.
  enum class Fault : std::uint8_t {
    kNone,
    kLost,        // the request does not arrive
    kLostAnswer,  // the request arrives, and the answer is lost
    kLate,        // the request arrives after the next one that works; it has no answer
    kRefused,     // the server refuses the request
    kNoStream,
    kDisconnect,        // the request does not arrive, and the connection is lost
    kDisconnectStored,  // the request arrives, and the connection is lost before the answer
    kStale,             // of a look-up: the answer is the message before the newest
    kNotSent            // the library refuses the request
  };

  [[nodiscard]] std::optional<std::string> Connect() override {
    ++connects;
    if (connect_problem.has_value()) return connect_problem;
    is_connected = true;
    replies_.clear();
    return std::nullopt;
  }
  [[nodiscard]] std::size_t PayloadBytesMax() const override { return payload_max; }
  [[nodiscard]] int Descriptor() const override { return -1; }
  void Close() override { is_connected = false; }
  void TakeReplies(std::vector<relay::StreamReply>& replies) override {
    for (relay::StreamReply& reply : replies_) replies.push_back(std::move(reply));
    replies_.clear();
  }

  [[nodiscard]] bool Publish(std::uint64_t token, const std::string& subject, std::string_view payload,
                             std::optional<std::uint64_t> expected_last) override {
    ++requests;
    const Fault fault = NextFault();
    if (!is_connected || fault == Fault::kNotSent) return false;
    if (fault == Fault::kLost) return true;
    if (fault == Fault::kLate) {
      late_.push_back({subject, std::string(payload), expected_last.value_or(kAny)});
      return true;
    }
    if (fault == Fault::kRefused || fault == Fault::kNoStream) {
      Answer(token, fault == Fault::kRefused ? relay::ReplyKind::kRefused : relay::ReplyKind::kNoStream);
      return true;
    }
    if (fault == Fault::kDisconnect) return Disconnect();
    const std::uint64_t sequence = Store(subject, std::string(payload), expected_last);
    if (fault == Fault::kDisconnectStored) return Disconnect();
    if (fault != Fault::kLostAnswer) {
      Answer(token, sequence > 0 ? relay::ReplyKind::kStored : relay::ReplyKind::kWrongLast, sequence);
    }
    StoreLate();
    return true;
  }

  [[nodiscard]] bool LookUp(std::uint64_t token, const std::string& subject) override {
    ++look_ups;
    const Fault fault = NextFault();
    if (!is_connected || fault == Fault::kNotSent) return false;
    if (fault == Fault::kDisconnect || fault == Fault::kDisconnectStored) return Disconnect();
    if (fault == Fault::kLost || fault == Fault::kLostAnswer || fault == Fault::kLate) return true;
    std::vector<const Stored*> found;
    for (const Stored& stored : messages) {
      if (stored.subject == subject) found.push_back(&stored);
    }
    if (fault == Fault::kStale && !found.empty()) found.pop_back();
    Answer(token, found.empty() ? relay::ReplyKind::kNone : relay::ReplyKind::kNewest,
           found.empty() ? 0 : found.back()->sequence);
    if (!found.empty()) replies_.back().payload = found.back()->payload;
    StoreLate();
    return true;
  }

  // Stores a message as another client would.
  std::uint64_t Store(const std::string& subject, std::string payload,
                      std::optional<std::uint64_t> expected_last = std::nullopt) {
    if (expected_last.has_value() && *expected_last != LastOf(subject)) return 0;
    messages.push_back({subject, std::move(payload), ++last_sequence});
    return last_sequence;
  }

  [[nodiscard]] std::uint64_t LastOf(const std::string& subject) const {
    std::uint64_t last = 0;
    for (const Stored& stored : messages) last = stored.subject == subject ? stored.sequence : last;
    return last;
  }

  std::deque<Fault> faults;
  std::vector<Stored> messages;
  std::uint64_t last_sequence = 0;
  std::size_t payload_max = 1048576;
  std::optional<std::string> connect_problem;
  bool is_connected = false;
  int connects = 0;
  int requests = 0;
  int look_ups = 0;

 private:
  static constexpr std::uint64_t kAny = ~std::uint64_t{0};

  Fault NextFault() {
    if (faults.empty()) return Fault::kNone;
    const Fault fault = faults.front();
    faults.pop_front();
    return fault;
  }

  void Answer(std::uint64_t token, relay::ReplyKind kind, std::uint64_t sequence = 0) {
    replies_.push_back({.token = token, .kind = kind, .sequence = sequence, .payload = {}, .text = "no"});
  }

  bool Disconnect() {
    Answer(0, relay::ReplyKind::kDisconnect);
    return true;
  }

  // Stores the late messages. In the worst case a late message has no expected sequence: it is stored whatever the
  // newest message is.
  void StoreLate() {
    for (Stored& late : late_) (void)Store(late.subject, std::move(late.payload));
    late_.clear();
  }

  std::vector<relay::StreamReply> replies_;
  std::vector<Stored> late_;
};

// The report on a collector that has received all messages of the stream in order.
struct ReceivedReport {
  std::uint64_t incarnation = 0;
  std::vector<std::uint64_t> incarnations;
  std::uint64_t first = 0;  // the first number of this incarnation
  std::uint64_t next = 0;
  std::uint64_t gap = 0;
  std::uint64_t holes = 0;  // messages that begin after `next`: nothing may be sent before what is before it
  std::uint64_t repeated = 0;
  std::vector<std::string> records;  // of all incarnations

  void Take(const relay::MessageHead& head, const std::vector<std::string_view>& texts) {
    if (head.incarnation != incarnation) {
      incarnation = head.incarnation;
      incarnations.push_back(incarnation);
      first = next = head.first;
    }
    if (head.first > next) {
      ++holes;
      return;
    }
    if (head.kind == relay::MessageKind::kGap && head.Next() > next) {
      gap += head.Next() - next;
      next = head.Next();
    }
    if (head.kind != relay::MessageKind::kRecords) return;
    for (std::size_t i = 0; i < texts.size(); ++i) {
      if (head.first + i < next) {
        ++repeated;
        continue;
      }
      records.emplace_back(texts[i]);
      ++next;
    }
  }
};

// Passes all messages of a subject to the model of a collector.
inline ReceivedReport Receive(const FakeStream& stream, const std::string& subject) {
  ReceivedReport report;
  for (const FakeStream::Stored& stored : stream.messages) {
    if (stored.subject != subject) continue;
    const relay::DecodedMessage message = relay::DecodeMessage(stored.payload);
    EXPECT_EQ(message.fault, relay::MessageFault::kNone);
    report.Take(message.head, message.texts);
  }
  return report;
}

}  // namespace qx::test
