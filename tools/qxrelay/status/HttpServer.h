// Answers HTTP requests for short texts, on a loopback address, with libmicrohttpd.
//
// Only GET and HEAD are answered. At most kConnectionsMax connections are open, each with little memory. A connection
// that is silent for kSilenceS seconds is closed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/qxrelay/config/LoopbackAddress.h"

namespace qx::relay {

struct HttpAnswer {
  unsigned status = 200;
  std::string content_type = "text/plain; charset=utf-8";
  std::shared_ptr<const std::string> text;
};

// Threads: one thread; a thread of the library calls `answer`.
// Owns: the socket and the thread, until the destructor. Failure: a text for the operator.
class HttpServer {
 public:
  static constexpr unsigned kConnectionsMax = 16;
  static constexpr unsigned kSilenceS = 10;
  static constexpr std::size_t kConnectionBytesMax = 16'384;

  // The answer to a path without its query, "/metrics". It must not throw anything but std::bad_alloc.
  using Answer = std::function<HttpAnswer(std::string_view path)>;

  explicit HttpServer(Answer answer);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Starts the server; must be called only once. The threads of the library get the signal mask of the caller.
  // [owning thread]
  [[nodiscard]] std::optional<std::string> Start(const LoopbackAddress& address);
  // The port on which it listens. [owning thread]
  [[nodiscard]] std::uint16_t Port() const;

 private:
  struct Library;

  Answer answer_;
  std::unique_ptr<Library> library_;
};

}  // namespace qx::relay
