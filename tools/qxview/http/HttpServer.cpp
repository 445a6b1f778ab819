#include "tools/qxview/http/HttpServer.h"

#include <microhttpd.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <ctime>
#include <map>
#include <new>
#include <utility>

#include "tools/qxview/http/SafeHeaders.h"

namespace qx::view {

namespace {

constexpr std::size_t kStreamBlockBytes = 8192;
constexpr unsigned kTooLarge = MHD_HTTP_CONTENT_TOO_LARGE;
constexpr int kTickMs = 1000;  // the longest time between two checks of the age of connections

using Text = HttpReply::Text;
using StreamPtr = std::shared_ptr<ReplyStream>;

std::int64_t SteadyS() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // this clock always exists
  return now.tv_sec;
}

std::string HeaderOf(MHD_Connection* connection, const char* name) {
  const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value != nullptr ? value : "";
}

// The length of the body; 0 without the header, and the largest number if its value is not a number.
std::uint64_t ContentLength(MHD_Connection* connection) {
  const std::string text = HeaderOf(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  std::uint64_t length = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (text.empty()) return 0;
  return error == std::errc() && end == text.data() + text.size() ? length : UINT64_MAX;
}

MHD_Result AddParameter(void* request, MHD_ValueKind, const char* key, std::size_t key_bytes, const char* value,
                        std::size_t value_bytes) {
  static_cast<HttpRequest*>(request)->query.emplace_back(std::string(key, key_bytes),
                                                         std::string(value != nullptr ? value : "", value_bytes));
  return MHD_YES;
}

HttpRequest RequestOf(MHD_Connection* connection, const char* path, const char* method) {
  HttpRequest request;
  request.method = method;
  request.path = path;
  request.host = HeaderOf(connection, MHD_HTTP_HEADER_HOST);
  request.origin = HeaderOf(connection, MHD_HTTP_HEADER_ORIGIN);
  request.cookie = HeaderOf(connection, MHD_HTTP_HEADER_COOKIE);
  request.fetch_site = HeaderOf(connection, "Sec-Fetch-Site");
  request.if_none_match = HeaderOf(connection, MHD_HTTP_HEADER_IF_NONE_MATCH);
  request.last_event_id = HeaderOf(connection, "Last-Event-ID");
  (void)MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, AddParameter, &request);
  return request;
}

void ReleaseText(void* text) { delete static_cast<Text*>(text); }

// A response with the text. The text lives until the library has sent it.
MHD_Response* ResponseOf(const Text& text) {
  auto kept = std::make_unique<Text>(text != nullptr ? text : std::make_shared<const std::string>());
  const std::string& bytes = **kept;
  auto* const begin = const_cast<char*>(bytes.data());  // the library only reads it
  MHD_Response* const response =
      MHD_create_response_from_buffer_with_free_callback_cls(bytes.size(), begin, ReleaseText, kept.get());
  if (response != nullptr) (void)kept.release();  // the library releases it
  return response;
}

ssize_t TakeOfStream(void* stream, std::uint64_t, char* to, std::size_t size) {
  const std::ptrdiff_t taken = (*static_cast<StreamPtr*>(stream))->Take(to, size);
  return taken >= 0 ? taken : MHD_CONTENT_READER_END_OF_STREAM;
}

void ReleaseStream(void* stream) {
  auto* const kept = static_cast<StreamPtr*>(stream);
  (*kept)->Close();
  delete kept;
}

MHD_Response* ResponseOf(const StreamPtr& stream) {
  auto kept = std::make_unique<StreamPtr>(stream);
  MHD_Response* const response =
      MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlockBytes, TakeOfStream, kept.get(), ReleaseStream);
  if (response != nullptr) (void)kept.release();  // the library releases it
  return response;
}

// The response to a request; null if there is no memory.
MHD_Response* ResponseOf(const Exchange& exchange) {
  const HttpReply& reply = exchange.Answer();
  MHD_Response* const response =
      exchange.AnswerStream() != nullptr ? ResponseOf(exchange.AnswerStream()) : ResponseOf(reply.text);
  if (response == nullptr) return nullptr;
  for (const auto& [name, value] : kSafeHeaders) (void)MHD_add_response_header(response, name, value);
  if (!reply.type.empty()) (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.type.c_str());
  for (const auto& [name, value] : reply.headers) (void)MHD_add_response_header(response, name.c_str(), value.c_str());
  return response;
}

// A request that is being read or answered.
struct Incoming {
  ExchangePtr exchange;
  HttpRequest request;
  bool is_too_large = false;
};

}  // namespace

struct HttpServer::Library {
  // The time since which a connection has waited for a complete request. It has no entry while its request is answered.
  using Waiting = std::map<MHD_Connection*, std::int64_t>;

  Library(Handler given, HttpTimes limits) : handler(std::move(given)), times(limits) {}

  // Requests that wait are resumed without an answer, because a suspended connection cannot be closed.
  ~Library() {
    if (daemon == nullptr) return;
    is_ending = true;
    for (Incoming* const incoming : open) End(*incoming);
    (void)MHD_run(daemon);
    MHD_stop_daemon(daemon);
  }

  static void End(const Incoming& incoming) {
    if (incoming.exchange == nullptr) return;
    if (incoming.exchange->AnswerStream() != nullptr) incoming.exchange->AnswerStream()->End();
    incoming.exchange->Reply({.status = MHD_HTTP_SERVICE_UNAVAILABLE, .type = "", .text = nullptr});
  }

  static MHD_Result Queue(MHD_Connection* connection, const Exchange& exchange) {
    MHD_Response* const response = ResponseOf(exchange);
    if (response == nullptr) return MHD_NO;
    const MHD_Result result = MHD_queue_response(connection, exchange.Answer().status, response);
    MHD_destroy_response(response);
    return result;
  }

  MHD_Result Begin(MHD_Connection* connection, const char* path, const char* method, void** state) {
    auto incoming = std::make_unique<Incoming>();
    incoming->request = RequestOf(connection, path, method);
    incoming->is_too_large = ContentLength(connection) > kBodyBytesMax;
    open.push_back(incoming.get());
    *state = incoming.release();
    auto& begun = *static_cast<Incoming*>(*state);
    return begun.is_too_large ? Complete(connection, begun) : MHD_YES;  // the body is not read
  }

  // Adds a part of the body. False if a body of unknown length becomes too large.
  static bool TakeBody(Incoming& incoming, const char* body, std::size_t bytes) {
    if (incoming.request.body.size() + bytes > kBodyBytesMax) return false;
    incoming.request.body.append(body, bytes);
    return true;
  }

  MHD_Result Complete(MHD_Connection* connection, Incoming& incoming) {
    if (incoming.exchange == nullptr) {
      waiting.erase(connection);
      incoming.exchange = std::make_shared<Exchange>(connection, std::move(incoming.request));
      if (is_ending) End(incoming);
      if (incoming.is_too_large) incoming.exchange->Reply({.status = kTooLarge, .type = "", .text = nullptr});
      if (!incoming.exchange->HasAnswer()) handler(incoming.exchange);
    }
    if (incoming.exchange->HasAnswer()) return Queue(connection, *incoming.exchange);
    incoming.exchange->Suspend();
    return MHD_YES;
  }

  // Returns MHD_NO, which closes the connection, if there is no memory, and for a body that is too large.
  static MHD_Result OnRequest(void* closure, MHD_Connection* connection, const char* path, const char* method,
                              const char* /*version*/, const char* body, std::size_t* body_bytes, void** state) {
    auto* const self = static_cast<Library*>(closure);
    try {
      if (*state == nullptr) return self->Begin(connection, path, method, state);
      auto& incoming = *static_cast<Incoming*>(*state);
      if (*body_bytes == 0) return self->Complete(connection, incoming);
      const bool is_taken = TakeBody(incoming, body, *body_bytes);
      *body_bytes = 0;
      return is_taken ? MHD_YES : MHD_NO;
    } catch (const std::bad_alloc&) {
      return MHD_NO;
    }
  }

  static void OnCompleted(void* closure, MHD_Connection* connection, void** state, MHD_RequestTerminationCode) {
    auto* const self = static_cast<Library*>(closure);
    const std::unique_ptr<Incoming> incoming(static_cast<Incoming*>(*state));
    *state = nullptr;
    std::erase(self->open, incoming.get());
    if (incoming != nullptr && incoming->exchange != nullptr) incoming->exchange->Close();
    if (!self->is_ending) self->waiting[connection] = SteadyS();
  }

  static void OnConnection(void* closure, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode code) {
    auto* const self = static_cast<Library*>(closure);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) self->waiting[connection] = SteadyS();
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) self->waiting.erase(connection);
  }

  // Closes connections without a whole request. The library only knows how long a connection was silent, and a client
  // that sends a byte from time to time is never silent.
  void CloseSlow() const {
    const std::int64_t now = SteadyS();
    for (const auto& [connection, since] : waiting) {
      if (now - since <= times.request_s) continue;
      const MHD_ConnectionInfo* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
      if (info != nullptr) (void)shutdown(info->connect_fd, SHUT_RDWR);  // the library then reads the end
    }
  }

  static void DropLog(void*, const char*, va_list) {}  // of requests that are not HTTP

  Handler handler;
  HttpTimes times;
  MHD_Daemon* daemon = nullptr;
  Waiting waiting;
  std::vector<Incoming*> open;
  bool is_ending = false;
};

HttpServer::HttpServer(Handler handler, HttpTimes times)
    : library_(std::make_unique<Library>(std::move(handler), times)) {}

HttpServer::~HttpServer() = default;

bool HttpServer::Start(file::Descriptor listener) {
  Library* const self = library_.get();
  constexpr unsigned kFlags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME;
  self->daemon = MHD_start_daemon(
      kFlags, 0, nullptr, nullptr, Library::OnRequest, self, MHD_OPTION_EXTERNAL_LOGGER, Library::DropLog, nullptr,
      MHD_OPTION_LISTEN_SOCKET, listener.Number(), MHD_OPTION_CONNECTION_LIMIT, kConnectionsMax,
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, kConnectionsOfAddressMax, MHD_OPTION_CONNECTION_TIMEOUT,
      self->times.silence_s, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionBytesMax, MHD_OPTION_NOTIFY_COMPLETED,
      Library::OnCompleted, self, MHD_OPTION_NOTIFY_CONNECTION, Library::OnConnection, self, MHD_OPTION_END);
  if (self->daemon == nullptr) return false;
  (void)listener.Release();  // the library closes it
  return true;
}

int HttpServer::Descriptor() const {
  const MHD_DaemonInfo* const info = MHD_get_daemon_info(library_->daemon, MHD_DAEMON_INFO_EPOLL_FD);
  return info != nullptr ? info->epoll_fd : -1;
}

int HttpServer::TimeoutMs() const {
  MHD_UNSIGNED_LONG_LONG timeout = 0;
  if (MHD_get_timeout(library_->daemon, &timeout) != MHD_YES) return kTickMs;
  return static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(timeout, kTickMs));
}

void HttpServer::Run() {
  library_->CloseSlow();
  (void)MHD_run(library_->daemon);  // what it cannot do now, it does at the next call
}

}  // namespace qx::view
