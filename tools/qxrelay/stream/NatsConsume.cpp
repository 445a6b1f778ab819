#include "tools/qxrelay/stream/NatsConsume.h"

#include <algorithm>
#include <utility>

#include "tools/qxrelay/stream/NatsHandles.h"

namespace qx::relay {

namespace {

constexpr std::string_view kAcknowledged = "+ACK";
constexpr std::int64_t kNanosecondsInMs = 1'000'000;
constexpr std::chrono::milliseconds kAnswerMax{5000};  // of a request that does not wait for messages

using MetaData = std::unique_ptr<jsMsgMetaData, nats::Destroyer<jsMsgMetaData_Destroy>>;

void AppendMessage(natsMsg* raw, std::vector<StreamMessage>& messages) {
  jsMsgMetaData* found = nullptr;
  if (natsMsg_GetMetaData(&found, raw) != NATS_OK) return;  // not of a stream: nobody waits for an acknowledgement
  const MetaData meta(found);
  const char* const receipt = natsMsg_GetReply(raw);
  messages.push_back({.subject = natsMsg_GetSubject(raw),
                      .payload = {natsMsg_GetData(raw), static_cast<std::size_t>(natsMsg_GetDataLength(raw))},
                      .sequence = meta->Sequence.Stream,
                      .delivered = meta->NumDelivered,
                      .pending = meta->NumPending,
                      .receipt = receipt != nullptr ? receipt : ""});
}

}  // namespace

struct NatsConsume::Parts {
  nats::Connection connection;
  nats::Context context;
  nats::Subscription subscription;

  // No message in time is not a failure, unless the connection is lost.
  std::optional<std::string> Request(jsFetchRequest request, std::vector<StreamMessage>& messages) const {
    natsMsgList list = {nullptr, 0};
    const natsStatus status = natsSubscription_FetchRequest(&list, subscription.get(), &request);
    for (int i = 0; i < list.Count; ++i) AppendMessage(list.Msgs[i], messages);
    natsMsgList_Destroy(&list);
    if (natsConnection_Status(connection.get()) != NATS_CONN_STATUS_CONNECTED) {
      return "the connection to the servers is lost";
    }
    const bool is_fine = status == NATS_OK || status == NATS_TIMEOUT || status == NATS_NOT_FOUND;
    return is_fine ? std::nullopt : std::optional(nats::Problem("cannot fetch messages", status));
  }
};

NatsConsume::NatsConsume(StreamSettings settings) : settings_(std::move(settings)) {}

NatsConsume::~NatsConsume() { Close(); }

std::optional<std::string> NatsConsume::Connect(const std::string& name, std::size_t unacknowledged_max,
                                                std::chrono::milliseconds redeliver_after) {
  Close();
  auto parts = std::make_unique<Parts>();
  if (auto problem = nats::MakeConnection(settings_, {}, parts->connection)) return problem;
  jsCtx* context = nullptr;
  natsStatus status = natsConnection_JetStream(&context, parts->connection.get(), nullptr);
  if (status != NATS_OK) return nats::Problem("cannot use JetStream", status);
  parts->context.reset(context);

  jsSubOptions options;
  status = jsSubOptions_Init(&options);
  if (status != NATS_OK) return nats::Problem("cannot make a consumer", status);
  options.Stream = settings_.name.c_str();
  options.Config.Durable = name.c_str();
  options.Config.AckPolicy = js_AckExplicit;
  options.Config.DeliverPolicy = js_DeliverAll;
  options.Config.AckWait = redeliver_after.count() * kNanosecondsInMs;
  options.Config.MaxAckPending = static_cast<std::int64_t>(unacknowledged_max);
  natsSubscription* subscription = nullptr;
  const std::string subjects = settings_.prefix + ".>";
  status = js_PullSubscribe(&subscription, context, subjects.c_str(), name.c_str(), nullptr, &options, nullptr);
  if (status != NATS_OK) return nats::Problem("cannot use the consumer " + name + " of " + settings_.name, status);
  parts->subscription.reset(subscription);
  parts_ = std::move(parts);
  return std::nullopt;
}

// A request for many messages would wait for the last of them. So what is there is taken without waiting; if nothing
// is, one message is waited for, and the next call takes those that came with it.
std::optional<std::string> NatsConsume::Fetch(std::size_t count_max, std::size_t bytes_max,
                                              std::chrono::milliseconds timeout, std::vector<StreamMessage>& messages) {
  if (parts_ == nullptr) return "not connected";
  jsFetchRequest request;
  if (const natsStatus status = jsFetchRequest_Init(&request); status != NATS_OK) {
    return nats::Problem("cannot fetch messages", status);
  }
  request.Batch = static_cast<int>(count_max);
  request.MaxBytes = static_cast<std::int64_t>(bytes_max);
  request.Expires = kAnswerMax.count() * kNanosecondsInMs;
  request.NoWait = true;
  const std::size_t before = messages.size();
  if (auto problem = parts_->Request(request, messages); problem.has_value() || messages.size() > before)
    return problem;
  request.Batch = 1;
  request.Expires = timeout.count() * kNanosecondsInMs;
  request.NoWait = false;
  return parts_->Request(request, messages);
}

std::optional<std::string> NatsConsume::Acknowledge(const std::string& receipt) {
  if (parts_ == nullptr) return "not connected";
  const natsStatus status = natsConnection_Publish(parts_->connection.get(), receipt.c_str(), kAcknowledged.data(),
                                                   static_cast<int>(kAcknowledged.size()));
  if (status == NATS_OK) return std::nullopt;
  return nats::Problem("cannot acknowledge a message", status);
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
  parts_->subscription.reset();
  natsConnection_Close(parts_->connection.get());
  parts_.reset();
}

}  // namespace qx::relay
