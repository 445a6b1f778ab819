// Decides which message before a hole is read again from the stream, and when the search ends.
//
// A consumer reads one copy of the stream. After a server was stopped or killed, its copy can lack messages that the
// other servers have. Each message names the one before it, so a hole is closed from its end to its beginning.
#pragma once

#include <cstdint>
#include <optional>

#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/receive/ReceiveContext.h"

namespace qx::relay {

// Threads: one thread. Owns: values.
class HoleSearch {
 public:
  // Starts a pass over the queue. Its first hole is the one that is searched. [owning thread]
  void BeginPass() { sought_.reset(); }
  // Whether the receiver must wait for the message of this sequence, directly before `next`, because a copy of the
  // stream may have it. [owning thread]
  [[nodiscard]] bool Seek(std::uint64_t sequence, const MessageHead& next);
  // Must be called when the queue has no hole any more. [owning thread]
  void EndHole() { found_ = 0; }

  [[nodiscard]] std::optional<std::uint64_t> Sought() const { return sought_; }
  // Whether a message with the sought sequence is the sought message: a copy of the stream that differs has another
  // message there. [owning thread]
  [[nodiscard]] bool IsSought(const MessageHead& head) const;
  // A copy has the sought message. [owning thread]
  void Found();
  // No copy has the sought message. `is_certain`: each copy has answered so. [owning thread]
  void NotFound(TimeMs now, bool is_certain);

 private:
  void GiveUp();

  std::optional<std::uint64_t> sought_;
  std::uint64_t incarnation_ = 0;  // of the message after the hole
  std::uint64_t first_ = 0;        // the number of its first record
  std::optional<std::uint64_t> found_last_;
  std::optional<std::uint64_t> given_up_;
  std::optional<TimeMs> sought_since_;
  int found_ = 0;      // messages of this hole that were found
  int not_found_ = 0;  // how often no copy had the sought message
};

}  // namespace qx::relay
