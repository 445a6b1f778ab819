#include "tools/qxrelay/stream/NatsPublish.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <utility>

#include "base/File.h"
#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/stream/NatsHandles.h"
#include "tools/qxrelay/stream/PublishReply.h"

namespace qx::relay {

namespace {

constexpr const char* kExpectedLast = "Nats-Expected-Last-Subject-Sequence";
constexpr const char* kSequence = "Nats-Sequence";
constexpr const char* kStatus = "Status";
constexpr std::string_view kNoResponders = "503";
constexpr std::string_view kNotFound = "404";
constexpr char kLookUpMark = 'n';
constexpr char kPublishMark = 'p';

std::string RandomToken() {
  std::random_device random;
  constexpr std::size_t kDigits = 16;
  std::string token;
  for (std::size_t i = 0; i < kDigits; ++i) token += static_cast<char>('a' + random() % 26);
  return token;
}

std::string_view HeaderOf(natsMsg* message, const char* key) {
  const char* value = nullptr;
  return natsMsgHeader_Get(message, key, &value) == NATS_OK && value != nullptr ? std::string_view(value)
                                                                                : std::string_view();
}

std::optional<std::uint64_t> NumberIn(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string_view PayloadOf(natsMsg* message) {
  return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

StreamReply ReplyToLookUp(std::uint64_t token, natsMsg* message) {
  const std::string_view status = HeaderOf(message, kStatus);
  StreamReply reply = {.token = token, .kind = ReplyKind::kRefused, .sequence = 0, .payload = {}, .text = {}};
  if (status == kNotFound) {
    reply.kind = ReplyKind::kNone;
    return reply;
  }
  const std::optional<std::uint64_t> sequence = NumberIn(HeaderOf(message, kSequence));
  if (!status.empty() || !sequence.has_value()) {
    reply.text = "the answer to a look-up is not that of a stream (" + std::string(status) + ")";
    return reply;
  }
  reply.kind = ReplyKind::kNewest;
  reply.sequence = *sequence;
  reply.payload = PayloadOf(message);
  return reply;
}

// The token of an inbox: "INBOX.p17" => 17; `mark` is the letter before it, which shows the kind of the request.
std::optional<std::uint64_t> TokenOfInbox(std::string_view subject, char& mark) {
  const std::string_view last = subject.substr(subject.rfind('.') + 1);
  if (last.empty()) return std::nullopt;
  mark = last[0];
  return NumberIn(last.substr(1));
}

}  // namespace

std::string InboxPrefix(std::string_view host) { return "_INBOX_" + TokenOf(host); }

// Callbacks run in threads of the library, some of them after the connection was destroyed. So they get the number of
// the parts instead of their address. For a destroyed connection the number finds nothing.
struct NatsPublish::Parts {
  file::Descriptor event;
  std::mutex lock;
  std::vector<StreamReply> replies;
  nats::Connection connection;
  nats::Subscription inbox;  // destroyed before the connection
  std::string inbox_subject;

  void Put(StreamReply reply) {
    const std::lock_guard guard(lock);
    replies.push_back(std::move(reply));
    const std::uint64_t one = 1;
    (void)file::Write(event.Number(), {reinterpret_cast<const char*>(&one), sizeof one});  // full: readable anyway
  }

  void OnReply(natsMsg* message) {
    char mark = 0;
    const std::optional<std::uint64_t> token = TokenOfInbox(natsMsg_GetSubject(message), mark);
    if (!token.has_value()) return;
    if (HeaderOf(message, kStatus) == kNoResponders) {
      Put({.token = *token, .kind = ReplyKind::kNoStream, .sequence = 0, .payload = {}, .text = {}});
    } else if (mark == kLookUpMark) {
      Put(ReplyToLookUp(*token, message));
    } else {
      Put(ReplyToPublish(*token, PayloadOf(message)));
    }
  }

  void OnProblem(natsConnection* where, natsStatus status) {
    const char* text = nullptr;
    (void)natsConnection_GetLastError(where, &text);  // if there is no text, the status is enough
    const bool has_text = text != nullptr && *text != '\0';
    Put({.token = 0,
         .kind = ReplyKind::kProblem,
         .sequence = 0,
         .payload = {},
         .text = has_text ? std::string(text) : std::string(natsStatus_GetText(status))});
  }

  void OnClosed() { Put({.token = 0, .kind = ReplyKind::kDisconnect, .sequence = 0, .payload = {}, .text = {}}); }

  static nats::Handlers HandlersOf(void* closure);

  static void OnMessage(natsConnection*, natsSubscription*, natsMsg* raw, void* closure) {
    const nats::Message message(raw);
    if (const auto parts = Find(closure)) parts->OnReply(raw);
  }

  // The parts of all open connections, by the number that callbacks get.
  struct Table {
    std::mutex lock;
    std::uintptr_t next = 1;
    std::map<std::uintptr_t, std::weak_ptr<Parts>> parts;
  };

  // The table is never destroyed: a thread of the library may report that a connection is closed while the process
  // ends.
  static Table& TheTable() {
    static Table* const table = new Table;
    return *table;
  }

  static void* Register(const std::shared_ptr<Parts>& parts) {
    Table& table = TheTable();
    const std::lock_guard guard(table.lock);
    std::erase_if(table.parts, [](const auto& entry) { return entry.second.expired(); });
    table.parts[table.next] = parts;
    return reinterpret_cast<void*>(table.next++);  // NOLINT(performance-no-int-to-ptr): never used as an address
  }

  static std::shared_ptr<Parts> Find(void* closure) {
    Table& table = TheTable();
    const std::lock_guard guard(table.lock);
    const auto found = table.parts.find(reinterpret_cast<std::uintptr_t>(closure));
    return found != table.parts.end() ? found->second.lock() : nullptr;
  }
};

NatsPublish::NatsPublish(StreamSettings settings, const std::string& host)
    : settings_(std::move(settings)), inbox_(InboxPrefix(host)) {}

NatsPublish::~NatsPublish() { Close(); }

std::optional<std::string> NatsPublish::Connect() {
  Close();
  auto parts = std::make_shared<Parts>();
  parts->event = file::Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  const int error = errno;
  if (!parts->event.IsOpen()) return std::string("cannot make an event descriptor: ") + std::strerror(error);
  void* const closure = Parts::Register(parts);
  if (auto problem = nats::MakeConnection(settings_, Parts::HandlersOf(closure), parts->connection)) return problem;

  parts->inbox_subject = inbox_ + "." + RandomToken();
  natsSubscription* made = nullptr;
  const natsStatus status = natsConnection_Subscribe(&made, parts->connection.get(),
                                                     (parts->inbox_subject + ".*").c_str(), Parts::OnMessage, closure);
  if (status != NATS_OK) return nats::Problem("cannot subscribe to the inbox", status);
  parts->inbox.reset(made);
  parts_ = std::move(parts);
  return std::nullopt;
}

nats::Handlers NatsPublish::Parts::HandlersOf(void* closure) {
  return {.on_error =
              [](natsConnection* from, natsSubscription*, natsStatus status, void* where) {
                if (const auto parts = Parts::Find(where)) parts->OnProblem(from, status);
              },
          .on_closed =
              [](natsConnection*, void* where) {
                if (const auto parts = Parts::Find(where)) parts->OnClosed();
              },
          .closure = closure};
}

std::size_t NatsPublish::PayloadBytesMax() const {
  if (parts_ == nullptr) return 0;
  const std::int64_t bytes = natsConnection_GetMaxPayload(parts_->connection.get());
  return bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
}

bool NatsPublish::Publish(std::uint64_t token, const std::string& subject, std::string_view payload,
                          std::optional<std::uint64_t> expected_last) {
  if (parts_ == nullptr) return false;
  const std::string reply = parts_->inbox_subject + "." + kPublishMark + std::to_string(token);
  natsMsg* made = nullptr;
  if (natsMsg_Create(&made, subject.c_str(), reply.c_str(), payload.data(), static_cast<int>(payload.size())) !=
      NATS_OK) {
    return false;
  }
  const nats::Message message(made);
  if (expected_last.has_value() &&
      natsMsgHeader_Set(made, kExpectedLast, std::to_string(*expected_last).c_str()) != NATS_OK) {
    return false;
  }
  return natsConnection_PublishMsg(parts_->connection.get(), made) == NATS_OK;
}

bool NatsPublish::LookUp(std::uint64_t token, const std::string& subject) {
  if (parts_ == nullptr) return false;
  const std::string request = ApiPrefix(settings_) + ".DIRECT.GET." + settings_.name + "." + subject;
  const std::string reply = parts_->inbox_subject + "." + kLookUpMark + std::to_string(token);
  return natsConnection_PublishRequest(parts_->connection.get(), request.c_str(), reply.c_str(), nullptr, 0) == NATS_OK;
}

int NatsPublish::Descriptor() const { return parts_ != nullptr ? parts_->event.Number() : -1; }

void NatsPublish::TakeReplies(std::vector<StreamReply>& replies) {
  if (parts_ == nullptr) return;
  std::uint64_t count = 0;
  (void)file::ReadSome(parts_->event.Number(), &count, sizeof count);  // EAGAIN: there was no reply
  const std::lock_guard guard(parts_->lock);
  for (StreamReply& reply : parts_->replies) replies.push_back(std::move(reply));
  parts_->replies.clear();
}

void NatsPublish::Close() {
  if (parts_ == nullptr) return;
  parts_->inbox.reset();
  natsConnection_Close(parts_->connection.get());
  parts_.reset();
}

}  // namespace qx::relay
