// Runs an HTTP server in one thread: libmicrohttpd with its event loop, its parser and its limits.
//
// A request waits without a thread until it is answered (Exchange). A connection is closed if it does not complete a
// request within request_s seconds, however slowly it sends, or if it is silent for silence_s seconds. The memory of a
// connection is limited, and so are the headers of a request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/File.h"
#include "tools/qxview/http/Exchange.h"

namespace qx::view {

// The times after which a connection is closed.
struct HttpTimes {
  unsigned silence_s = 15;      // without a byte
  std::int64_t request_s = 20;  // without a whole request
};

// Threads: one thread.
// Owns: the listening socket and all connections.
// Failure: a connection without memory is closed.
class HttpServer {
 public:
  static constexpr unsigned kConnectionsMax = 600;
  static constexpr unsigned kConnectionsOfAddressMax = 550;  // all browsers of a machine have one address
  static constexpr std::size_t kConnectionBytesMax = 16'384;
  static constexpr std::size_t kBodyBytesMax = 1024;
  static constexpr int kBacklog = 256;

  // Answers the exchange, at once or later. [owning thread]
  using Handler = std::function<void(const ExchangePtr& exchange)>;

  explicit HttpServer(Handler handler, HttpTimes times = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Serves on a socket that listens. False if the library fails. [owning thread]
  [[nodiscard]] bool Start(file::Descriptor listener);

  // Readable when Run has something to do. [owning thread]
  [[nodiscard]] int Descriptor() const;
  // The longest time to wait for the descriptor, in milliseconds. [owning thread]
  [[nodiscard]] int TimeoutMs() const;
  // Handles the requests and the data that have arrived. [owning thread]
  void Run();

  struct Library;

 private:
  std::unique_ptr<Library> library_;
};

}  // namespace qx::view
