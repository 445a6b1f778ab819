// The interfaces of a stream. NatsPublish.h and NatsConsume.h implement them for NATS; tests have their own
// implementations.
//
// A stream stores messages with subjects, in one order. The number of a message in this order is its sequence. The
// implementations only transport: send/ and receive/ decide what to do with a reply.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx::relay {

enum class ReplyKind : std::uint8_t {
  kStored,      // of Publish: `sequence` is that of the message in the stream
  kWrongLast,   // of Publish: refused, because the newest message of the subject is another one than expected
  kRefused,     // of Publish or LookUp: `text` says why; the message is not stored
  kNewest,      // of LookUp: `payload` and `sequence` of the newest message of the subject
  kNone,        // of LookUp: the stream has no message of the subject
  kNoStream,    // of Publish: no stream takes the message now; a look-up then has no reply
  kProblem,     // for no request (token 0): the server or the library reports a problem, which `text` describes
  kDisconnect,  // for no request: the connection is closed; no reply to an earlier request will come
};

struct StreamReply {
  std::uint64_t token = 0;
  ReplyKind kind = ReplyKind::kProblem;
  std::uint64_t sequence = 0;
  std::string payload;
  std::string text;
};

// The sender's connection. Its requests are answered later, or never.
//
// Threads: one thread; implementations receive replies in threads of their own.
// Owns: the connection. Failure: a false result means that the request was not sent and will have no reply.
class PublishStream {
 public:
  PublishStream() = default;
  virtual ~PublishStream() = default;
  PublishStream(const PublishStream&) = delete;
  PublishStream& operator=(const PublishStream&) = delete;

  // Connects to one of the servers, within some seconds. An earlier connection is closed, and its replies are dropped.
  // Returns why it failed, for the operator; unset after a success. [owning thread]
  [[nodiscard]] virtual std::optional<std::string> Connect() = 0;

  // The largest payload that the server accepts. [owning thread]
  [[nodiscard]] virtual std::size_t PayloadBytesMax() const = 0;

  // Requests that the stream stores `payload`. If `expected_last` is set, the stream stores it only if the subject's
  // newest message has this sequence (0: no message). The reply has the same `token`, which must not be 0. [owning
  // thread]
  [[nodiscard]] virtual bool Publish(std::uint64_t token, const std::string& subject, std::string_view payload,
                                     std::optional<std::uint64_t> expected_last) = 0;

  // Requests the newest message of the subject. Any replica may answer, so for a moment the answer may be an older
  // message. [owning thread]
  [[nodiscard]] virtual bool LookUp(std::uint64_t token, const std::string& subject) = 0;

  // Readable when there are replies; -1 if the implementation has no descriptor. [owning thread]
  [[nodiscard]] virtual int Descriptor() const = 0;

  // Appends the replies that have come since the last call. [owning thread]
  virtual void TakeReplies(std::vector<StreamReply>& replies) = 0;

  // Closes the connection. [owning thread]
  virtual void Close() = 0;
};

// A message of the stream as a receiver gets it.
struct StreamMessage {
  std::string subject;
  std::string payload;
  std::uint64_t sequence = 0;  // in the stream
  // The sequence of the previous message of the same subject; 0 if this is the first one. The sender names it, and the
  // server stores the message only if it is right. Unset if the message does not name it.
  std::optional<std::uint64_t> before = std::nullopt;
  std::uint64_t delivered = 0;  // how often it was delivered, 1 for the first time
  std::uint64_t pending = 0;    // the number of messages that the consumer has after this one
  std::string receipt = {};     // for Acknowledge
};

// The state of the stream and of the consumer at one moment.
struct ConsumerState {
  std::uint64_t first = 0;         // sequence of the first message that the stream still has, or of the next one
  std::uint64_t acknowledged = 0;  // no message up to this sequence will come again
  std::int64_t created = 0;        // when the stream was created: it distinguishes streams of one name
  std::uint64_t pending = 0;       // messages that were not fetched yet

  friend bool operator==(const ConsumerState&, const ConsumerState&) = default;
};

// The answer of a server to a request for a message in its copy of the stream.
enum class CopyAnswer : std::uint8_t { kMessage, kNone, kUnknown };  // kUnknown: it does not answer

// The most that one fetch returns. The messages of a fetch are in memory together, so both are bounded: a message can
// have some bytes or many MiB.
struct FetchLimits {
  std::size_t messages = 1;
  std::size_t bytes = std::size_t{8} * 1024 * 1024;  // with subjects and headers
};

// The receiver's connection: a durable consumer, whose messages are fetched, and acknowledged one by one.
//
// Threads: one thread. Owns: the connection. Failure: a text for the operator.
class ConsumeStream {
 public:
  ConsumeStream() = default;
  virtual ~ConsumeStream() = default;
  ConsumeStream(const ConsumeStream&) = delete;
  ConsumeStream& operator=(const ConsumeStream&) = delete;

  // Connects to the durable consumer `name`. Creates it if it is missing: for all subjects of the stream, from the
  // first message on. At most `unacknowledged_max` messages may be fetched and not acknowledged. A message that is not
  // acknowledged within `redeliver_after` comes again. [owning thread]
  [[nodiscard]] virtual std::optional<std::string> Connect(const std::string& name, std::size_t unacknowledged_max,
                                                           std::chrono::milliseconds redeliver_after) = 0;

  // Appends messages that come within `timeout`, up to the limits. A message that is larger than `limits.bytes` comes
  // alone. If there are some messages, and no more at the moment, it returns at once. It is not a failure if no message
  // comes. [owning thread]
  [[nodiscard]] virtual std::optional<std::string> Fetch(const FetchLimits& limits, std::chrono::milliseconds timeout,
                                                         std::vector<StreamMessage>& messages) = 0;

  // Acknowledges the message, so that it does not come again. If the acknowledgement is lost, it comes again. [owning
  // thread]
  [[nodiscard]] virtual std::optional<std::string> Acknowledge(const std::string& receipt) = 0;

  // Refuses the message: it is not usable, and must not come again. [owning thread]
  [[nodiscard]] virtual std::optional<std::string> Refuse(const std::string& receipt) = 0;

  // [owning thread]
  [[nodiscard]] virtual std::optional<std::string> ReadState(ConsumerState& state) = 0;

  // The number of copies of the stream that can be asked for a message. [owning thread]
  [[nodiscard]] virtual std::size_t Copies() const = 0;
  // Asks one of the copies for the message of this sequence. A consumer reads only one copy. After a server was stopped
  // or killed, its copy can have other messages than the other servers' copies, with the same sequences: check the
  // subject. `message` gets no receipt, because it needs no acknowledgement. [owning thread]
  [[nodiscard]] virtual CopyAnswer ReadFromCopy(std::size_t copy, std::uint64_t sequence, StreamMessage& message) = 0;

  // The sequence of the first message that the stream still has; 0 if it is empty. [owning thread]
  [[nodiscard]] virtual std::optional<std::string> FirstSequence(std::uint64_t& sequence) = 0;

  // Closes the connection. [owning thread]
  virtual void Close() = 0;
};

}  // namespace qx::relay
