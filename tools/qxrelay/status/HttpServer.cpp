#include "tools/qxrelay/status/HttpServer.h"

#include <microhttpd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace qx::relay {

namespace {

constexpr unsigned kNotAllowed = MHD_HTTP_METHOD_NOT_ALLOWED;
constexpr const char* kAllowed = "GET, HEAD";

using Text = std::shared_ptr<const std::string>;

void ReleaseText(void* text) { delete static_cast<Text*>(text); }

// The answer as the library sends it; the text lives until it is sent. Null if there is no memory.
MHD_Response* ResponseOf(const HttpAnswer& answer) {
  auto text = std::make_unique<Text>(answer.text != nullptr ? answer.text : std::make_shared<const std::string>());
  const std::string& bytes = **text;
  auto* const begin = const_cast<char*>(bytes.data());  // the library only reads it
  MHD_Response* const response =
      MHD_create_response_from_buffer_with_free_callback_cls(bytes.size(), begin, ReleaseText, text.get());
  if (response != nullptr) (void)text.release();  // the library releases it
  return response;
}

}  // namespace

struct HttpServer::Library {
  MHD_Daemon* daemon = nullptr;

  ~Library() {
    if (daemon != nullptr) MHD_stop_daemon(daemon);
  }

  static MHD_Result Reply(MHD_Connection* connection, const HttpAnswer& answer) {
    MHD_Response* const response = ResponseOf(answer);
    if (response == nullptr) return MHD_NO;
    (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.content_type.c_str());
    if (answer.status == kNotAllowed) (void)MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, kAllowed);
    const MHD_Result result = MHD_queue_response(connection, answer.status, response);
    MHD_destroy_response(response);
    return result;
  }

  // Returns MHD_NO, which closes the connection, for a request with a body, or if there is no memory.
  static MHD_Result OnRequest(void* closure, MHD_Connection* connection, const char* path, const char* method,
                              const char* /*version*/, const char* /*body*/, std::size_t* body_bytes,
                              void** /*state*/) {
    if (*body_bytes != 0) return MHD_NO;
    const std::string_view name = method;
    if (name != MHD_HTTP_METHOD_GET && name != MHD_HTTP_METHOD_HEAD) {
      return Reply(connection, {.status = kNotAllowed, .text = nullptr});
    }
    try {
      return Reply(connection, static_cast<HttpServer*>(closure)->answer_(path));
    } catch (const std::bad_alloc&) {
      return MHD_NO;
    }
  }

  static void DropLog(void*, const char*, va_list) {}  // of requests that are not HTTP
};

HttpServer::HttpServer(Answer answer) : answer_(std::move(answer)) {}

HttpServer::~HttpServer() = default;

std::optional<std::string> HttpServer::Start(const LoopbackAddress& address) {
  auto library = std::make_unique<Library>();
  unsigned flags = MHD_USE_AUTO_INTERNAL_THREAD;  // epoll: descriptors may have numbers over 1024
  if (address.IsV6()) flags |= MHD_USE_IPv6;
  errno = 0;
  library->daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, Library::OnRequest, this, MHD_OPTION_EXTERNAL_LOGGER,
                                     Library::DropLog, nullptr, MHD_OPTION_SOCK_ADDR,
                                     reinterpret_cast<const sockaddr*>(&address.address), MHD_OPTION_CONNECTION_LIMIT,
                                     kConnectionsMax, MHD_OPTION_CONNECTION_TIMEOUT, kSilenceS,
                                     MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionBytesMax, MHD_OPTION_END);
  const int error = errno;
  if (library->daemon == nullptr) return std::string("cannot listen: ") + std::strerror(error);
  library_ = std::move(library);
  return std::nullopt;
}

std::uint16_t HttpServer::Port() const {
  if (library_ == nullptr) return 0;
  const MHD_DaemonInfo* const info = MHD_get_daemon_info(library_->daemon, MHD_DAEMON_INFO_BIND_PORT);
  return info != nullptr ? info->port : 0;
}

}  // namespace qx::relay
