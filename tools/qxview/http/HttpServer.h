// An HTTP server in one thread, with libmicrohttpd: its event loop, its parser, its limits.
//
// A request waits without a thread until somebody answers it (Exchange). A connection that does not complete a request
// within request_s seconds is closed, however slowly it sends; so is one that is silent. The memory of a connection is
// limited, and with it the headers of a request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/File.h"
#include "tools/qxview/http/Exchange.h"

namespace qx::view {

// After how many seconds a connection is closed.
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

  // Answers at once or later. [owning thread]
  using Handler = std::function<void(const ExchangePtr& exchange)>;

  explicit HttpServer(Handler handler, HttpTimes times = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Serves on a socket that listens. False: the library failed. [owning thread]
  [[nodiscard]] bool Start(file::Descriptor listener);

  // Readable when Run has something to do. [owning thread]
  [[nodiscard]] int Descriptor() const;
  // How long to wait for that at most, in milliseconds. [owning thread]
  [[nodiscard]] int TimeoutMs() const;
  // Handles what has arrived. [owning thread]
  void Run();

  struct Library;

 private:
  std::unique_ptr<Library> library_;
};

}  // namespace qx::view
