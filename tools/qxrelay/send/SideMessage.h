// Sends a message that contains a whole state: the labels of a host, or the names file of a report. The newest such
// message replaces the earlier ones. It is sent when the state changes, and repeated before it expires.
#pragma once

#include <cstdint>
#include <string>

#include "tools/qxrelay/message/Backoff.h"
#include "tools/qxrelay/send/SendContext.h"

namespace qx::relay {

// Threads: one thread. Owns: the message.
class SideMessage {
 public:
  SideMessage(SendContext& context, std::string subject, std::size_t owner)
      : context_(context), subject_(std::move(subject)), owner_(owner) {}

  // Sets the message. [owning thread]
  void Set(TimeMs now, std::string bytes) {
    if (bytes == bytes_) return;
    bytes_ = std::move(bytes);
    due_ = now;
    token_ = 0;
  }

  // Sends the message if it is due. [owning thread]
  void Step(TimeMs now) {
    if (bytes_.empty() || now < due_) return;
    if (token_ != 0) return Failed(now);  // without an answer in time
    token_ = context_.NewToken(owner_);
    due_ = now + context_.times.timeout;
    if (!context_.stream.Publish(token_, subject_, bytes_, std::nullopt)) Failed(now);
  }

  // Handles the reply if it answers the last request of this message. [owning thread]
  void OnReply(TimeMs now, const StreamReply& reply) {
    if (reply.token != token_) return;
    if (reply.kind != ReplyKind::kStored) return Failed(now);
    token_ = 0;
    failures_ = 0;
    due_ = now + context_.times.heartbeat;
  }

  // Must be called when the connection is lost: the replies to earlier requests will not come. [owning thread]
  void Disconnected(TimeMs now) {
    if (token_ != 0) Failed(now);
  }

  [[nodiscard]] TimeMs Wake() const { return due_; }
  [[nodiscard]] bool IsSet() const { return !bytes_.empty(); }

 private:
  void Failed(TimeMs now) {
    token_ = 0;
    due_ = now + BackoffMs(++failures_, context_.random());
  }

  SendContext& context_;
  std::string subject_;
  std::size_t owner_;
  std::string bytes_;
  std::uint64_t token_ = 0;
  std::uint32_t failures_ = 0;
  TimeMs due_ = 0;
};

}  // namespace qx::relay
