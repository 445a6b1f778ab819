// A request that waits for its reply, and a reply that is sent piece by piece.
//
// Both belong to the thread of the server. The client of either may be gone at any time.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "tools/qxview/http/HttpRequest.h"

struct MHD_Connection;

namespace qx::view {

// A reply whose text is sent piece by piece as it is made: server-sent events, or a long file.
//
// Threads: the server's. Owns: the pieces that are not sent yet.
class ReplyStream {
 public:
  using Text = HttpReply::Text;
  // Called when everything was sent, to request the next piece. Another thread makes it, and Send gets it later.
  using Drained = std::function<void()>;

  // If more bytes than this wait for a client, the connection is closed; the client connects again.
  static constexpr std::size_t kPendingBytesMax = std::size_t{1} << 20;

  explicit ReplyStream(MHD_Connection* connection) : connection_(connection) {}
  ReplyStream(MHD_Connection* connection, Drained drained) : connection_(connection), drained_(std::move(drained)) {}

  // Sends the text. If it is empty, the next piece is requested at once. [owning thread]
  void Send(Text text);
  // Ends the reply after the texts that were passed to Send. [owning thread]
  void End();
  // False as soon as the client is gone or reads too slowly. [owning thread]
  [[nodiscard]] bool IsOpen() const { return is_open_; }

  // For the server: copies up to `size` bytes of the pending text. 0: nothing is pending, and the connection is
  // suspended; -1: the reply is complete. [owning thread]
  [[nodiscard]] std::ptrdiff_t Take(char* to, std::size_t size);
  void Close() { is_open_ = false; }

 private:
  void Wake();

  MHD_Connection* connection_;
  Drained drained_;
  std::deque<Text> pending_;
  std::size_t pending_bytes_ = 0;
  std::size_t taken_ = 0;  // bytes of the first piece that were sent
  bool is_open_ = true;
  bool is_complete_ = false;
  bool is_suspended_ = false;
  bool is_next_made_ = false;
};

// Threads: the server's.
class Exchange {
 public:
  Exchange(MHD_Connection* connection, HttpRequest request) : connection_(connection), request_(std::move(request)) {}

  [[nodiscard]] const HttpRequest& Request() const { return request_; }

  // Answers the request; only the first answer counts. [owning thread]
  void Reply(HttpReply reply);
  // Answers with the status and the headers of `head`; the stream sends the text. `head.text` is ignored. [owning
  // thread]
  std::shared_ptr<ReplyStream> Stream(HttpReply head, ReplyStream::Drained drained = nullptr);

  // False as soon as the client is gone. [owning thread]
  [[nodiscard]] bool IsOpen() const { return connection_ != nullptr; }

  // For the server. [owning thread]
  [[nodiscard]] bool HasAnswer() const { return has_answer_; }
  [[nodiscard]] const HttpReply& Answer() const { return reply_; }
  [[nodiscard]] const std::shared_ptr<ReplyStream>& AnswerStream() const { return stream_; }
  void Suspend();
  void Close();

 private:
  void Resume();

  MHD_Connection* connection_;
  HttpRequest request_;
  HttpReply reply_;
  std::shared_ptr<ReplyStream> stream_;
  bool has_answer_ = false;
  bool is_suspended_ = false;
};

using ExchangePtr = std::shared_ptr<Exchange>;

}  // namespace qx::view
