#include "tools/qxrelay/stream/NatsConsume.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "tools/qxrelay/stream/NatsHandles.h"

namespace qx::relay {

namespace {

constexpr std::string_view kAcknowledged = "+ACK";
constexpr std::string_view kRefused = "+TERM";
constexpr const char* kExpectedLast = "Nats-Expected-Last-Subject-Sequence";
constexpr const char* kSourceHeader = "Nats-Stream-Source";  // then the sequences are those of another stream
constexpr int64_t kFlushMs = 1000;
constexpr int64_t kCopyAnswerMs = 1000;
constexpr std::int64_t kNanosecondsInMs = 1'000'000;

using MetaData = std::unique_ptr<jsMsgMetaData, nats::Destroyer<jsMsgMetaData_Destroy>>;

using ConsumerInfo = std::unique_ptr<jsConsumerInfo, nats::Destroyer<jsConsumerInfo_Destroy>>;

std::optional<std::uint64_t> SequenceBefore(natsMsg* message) {
  const char* text = nullptr;
  if (natsMsgHeader_Get(message, kSourceHeader, &text) == NATS_OK) return std::nullopt;
  if (natsMsgHeader_Get(message, kExpectedLast, &text) != NATS_OK || text == nullptr) return std::nullopt;
  const std::string_view digits = text;
  std::uint64_t sequence = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), sequence);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return sequence;
}

void AppendMessage(natsMsg* raw, std::vector<StreamMessage>& messages) {
  jsMsgMetaData* found = nullptr;
  if (natsMsg_GetMetaData(&found, raw) != NATS_OK) return;  // not from a stream: it needs no acknowledgement
  const MetaData meta(found);
  const char* const receipt = natsMsg_GetReply(raw);
  messages.push_back({.subject = natsMsg_GetSubject(raw),
                      .payload = {natsMsg_GetData(raw), static_cast<std::size_t>(natsMsg_GetDataLength(raw))},
                      .sequence = meta->Sequence.Stream,
                      .before = SequenceBefore(raw),
                      .delivered = meta->NumDelivered,
                      .pending = meta->NumPending,
                      .receipt = receipt != nullptr ? receipt : ""});
}

// With NoWait, the request ends when the server has sent the messages that are there. If there are no messages, the
// request waits for the next one, until it expires. `limits.bytes` 0: no limit.
natsStatus RequestMessages(natsSubscription* subscription, const FetchLimits& limits, std::chrono::milliseconds timeout,
                           std::vector<StreamMessage>& messages) {
  jsFetchRequest request;
  natsStatus status = jsFetchRequest_Init(&request);
  if (status != NATS_OK) return status;
  request.Batch = static_cast<int>(limits.messages);
  request.MaxBytes = static_cast<std::int64_t>(limits.bytes);
  request.NoWait = true;
  request.Expires = timeout.count() * kNanosecondsInMs;
  natsMsgList list = {nullptr, 0};
  status = natsSubscription_FetchRequest(&list, subscription, &request);
  for (int i = 0; i < list.Count; ++i) AppendMessage(list.Msgs[i], messages);
  natsMsgList_Destroy(&list);
  return status;
}

natsStatus ReadFromLeader(jsCtx* context, const std::string& stream, std::uint64_t sequence, natsMsg*& found) {
  jsOptions options;
  if (const natsStatus status = jsOptions_Init(&options); status != NATS_OK) return status;
  options.Wait = kCopyAnswerMs;
  return js_GetMsg(&found, context, stream.c_str(), sequence, &options, nullptr);
}

// Reads a message through a server, which answers from its own copy if it has one.
natsStatus ReadFromServer(StreamSettings settings, const std::string& server, std::uint64_t sequence, natsMsg*& found) {
  settings.servers = {server};
  nats::Connection connection;
  nats::Context context;
  if (nats::MakeConnection(settings, {}, connection).has_value()) return NATS_NO_SERVER;
  if (nats::MakeContext(settings, connection, context).has_value()) return NATS_NO_SERVER;
  jsOptions options;
  jsDirectGetMsgOptions message;
  natsStatus status = jsOptions_Init(&options);
  if (status == NATS_OK) status = jsDirectGetMsgOptions_Init(&message);
  if (status != NATS_OK) return status;
  options.Wait = kCopyAnswerMs;
  message.Sequence = sequence;
  status = js_DirectGetMsg(&found, context.get(), settings.name.c_str(), &options, &message);
  natsConnection_Close(connection.get());
  return status;
}

}  // namespace

struct NatsConsume::Parts {
  nats::Connection connection;
  nats::Context context;
  nats::Subscription subscription;
  std::string name;
};

NatsConsume::NatsConsume(StreamSettings settings) : settings_(std::move(settings)) {}

NatsConsume::~NatsConsume() { Close(); }

std::optional<std::string> NatsConsume::Connect(const std::string& name, std::size_t unacknowledged_max,
                                                std::chrono::milliseconds redeliver_after) {
  Close();
  auto parts = std::make_unique<Parts>();
  if (auto problem = nats::MakeConnection(settings_, {}, parts->connection)) return problem;
  if (auto problem = nats::MakeContext(settings_, parts->connection, parts->context)) return problem;

  jsSubOptions options;
  natsStatus status = jsSubOptions_Init(&options);
  if (status != NATS_OK) return nats::Problem("cannot make a consumer", status);
  options.Stream = settings_.name.c_str();
  options.Config.Durable = name.c_str();
  options.Config.AckPolicy = js_AckExplicit;
  options.Config.DeliverPolicy = js_DeliverAll;
  options.Config.AckWait = redeliver_after.count() * kNanosecondsInMs;
  options.Config.MaxAckPending = static_cast<std::int64_t>(unacknowledged_max);
  natsSubscription* subscription = nullptr;
  const std::string subjects = settings_.prefix + ".>";
  jsCtx* const context = parts->context.get();
  status = js_PullSubscribe(&subscription, context, subjects.c_str(), name.c_str(), nullptr, &options, nullptr);
  if (status == NATS_ERR) {  // also if the consumer exists with other limits: these are changed
    options.Config.FilterSubject = subjects.c_str();
    jsConsumerInfo* changed = nullptr;
    status = js_AddConsumer(&changed, context, settings_.name.c_str(), &options.Config, nullptr, nullptr);
    jsConsumerInfo_Destroy(changed);
    if (status == NATS_OK) {
      status = js_PullSubscribe(&subscription, context, subjects.c_str(), name.c_str(), nullptr, &options, nullptr);
    }
  }
  if (status != NATS_OK) return nats::Problem("cannot use the consumer " + name + " of " + settings_.name, status);
  parts->subscription.reset(subscription);
  parts->name = name;
  parts_ = std::move(parts);
  return std::nullopt;
}

std::optional<std::string> NatsConsume::Fetch(const FetchLimits& limits, std::chrono::milliseconds timeout,
                                              std::vector<StreamMessage>& messages) {
  if (parts_ == nullptr) return "not connected";
  const std::size_t before = messages.size();
  natsStatus status = RequestMessages(parts_->subscription.get(), limits, timeout, messages);
  // The server returns no message that is larger than the limit, and no message after it. So such a message is
  // requested alone, without the limit. If the first request failed for another reason, this one fails, too.
  if (status == NATS_ERR && messages.size() == before) {
    status = RequestMessages(parts_->subscription.get(), {.messages = 1, .bytes = 0}, timeout, messages);
  }
  if (natsConnection_Status(parts_->connection.get()) != NATS_CONN_STATUS_CONNECTED) {
    return "the connection to the servers is lost";
  }
  const bool is_fine = status == NATS_OK || status == NATS_TIMEOUT;
  return is_fine ? std::nullopt : std::optional(nats::Problem("cannot fetch messages", status));
}

std::optional<std::string> NatsConsume::Acknowledge(const std::string& receipt) {
  return Answer(receipt, kAcknowledged);
}

std::optional<std::string> NatsConsume::Refuse(const std::string& receipt) { return Answer(receipt, kRefused); }

std::optional<std::string> NatsConsume::Answer(const std::string& receipt, std::string_view answer) {
  if (parts_ == nullptr) return "not connected";
  const natsStatus status =
      natsConnection_Publish(parts_->connection.get(), receipt.c_str(), answer.data(), static_cast<int>(answer.size()));
  if (status == NATS_OK) return std::nullopt;
  return nats::Problem("cannot acknowledge a message", status);
}

std::optional<std::string> NatsConsume::ReadState(ConsumerState& state) {
  if (parts_ == nullptr) return "not connected";
  jsConsumerInfo* found = nullptr;
  natsStatus status =
      js_GetConsumerInfo(&found, parts_->context.get(), settings_.name.c_str(), parts_->name.c_str(), nullptr, nullptr);
  if (status != NATS_OK) return nats::Problem("cannot read the state of the consumer " + parts_->name, status);
  const ConsumerInfo consumer(found);
  jsStreamInfo* found_stream = nullptr;
  status = js_GetStreamInfo(&found_stream, parts_->context.get(), settings_.name.c_str(), nullptr, nullptr);
  if (status != NATS_OK) return nats::Problem("cannot read the state of the stream " + settings_.name, status);
  const nats::StreamInfo stream(found_stream);
  state = {.first = stream->State.FirstSeq,
           .acknowledged = consumer->AckFloor.Stream,
           .created = stream->Created,
           .pending = consumer->NumPending};
  return std::nullopt;
}

CopyAnswer NatsConsume::ReadFromCopy(std::size_t copy, std::uint64_t sequence, StreamMessage& message) {
  if (parts_ == nullptr) return CopyAnswer::kUnknown;
  natsMsg* found = nullptr;
  const natsStatus status = copy == 0 ? ReadFromLeader(parts_->context.get(), settings_.name, sequence, found)
                                      : ReadFromServer(settings_, settings_.servers.at(copy - 1), sequence, found);
  const nats::Message owner(found);
  if (status == NATS_NOT_FOUND) return CopyAnswer::kNone;
  if (status != NATS_OK) return CopyAnswer::kUnknown;
  message = {.subject = natsMsg_GetSubject(found),
             .payload = {natsMsg_GetData(found), static_cast<std::size_t>(natsMsg_GetDataLength(found))},
             .sequence = sequence,
             .before = SequenceBefore(found)};
  return CopyAnswer::kMessage;
}

std::optional<std::string> NatsConsume::FirstSequence(std::uint64_t& sequence) {
  if (parts_ == nullptr) return "not connected";
  jsStreamInfo* found = nullptr;
  const natsStatus status = js_GetStreamInfo(&found, parts_->context.get(), settings_.name.c_str(), nullptr, nullptr);
  if (status != NATS_OK) return nats::Problem("cannot read the state of the stream " + settings_.name, status);
  const nats::StreamInfo info(found);
  sequence = info->State.Msgs > 0 ? info->State.FirstSeq : 0;
  return std::nullopt;
}

void NatsConsume::Close() {
  if (parts_ == nullptr) return;
  (void)natsConnection_FlushTimeout(parts_->connection.get(), kFlushMs);  // what is lost comes again
  parts_->subscription.reset();
  natsConnection_Close(parts_->connection.get());
  parts_.reset();
}

}  // namespace qx::relay
