// The sender's connection to JetStream: publishes messages, and looks up the newest ones.
//
// Each request has its own inbox subject. So a reply belongs to exactly one request, even after a timeout. A thread of
// the library receives the replies and puts them into a queue.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::relay {

// The subject below which a host receives replies: "_INBOX_host3". A host may subscribe to nothing else.
[[nodiscard]] std::string InboxPrefix(std::string_view host);

// Threads and Owns: as PublishStream; two or three threads of the library, and two descriptors.
class NatsPublish final : public PublishStream {
 public:
  NatsPublish(StreamSettings settings, const std::string& host);
  ~NatsPublish() override;

  [[nodiscard]] std::optional<std::string> Connect() override;
  [[nodiscard]] std::size_t PayloadBytesMax() const override;
  [[nodiscard]] bool Publish(std::uint64_t token, const std::string& subject, std::string_view payload,
                             std::optional<std::uint64_t> expected_last) override;
  [[nodiscard]] bool LookUp(std::uint64_t token, const std::string& subject) override;
  [[nodiscard]] int Descriptor() const override;
  void TakeReplies(std::vector<StreamReply>& replies) override;
  void Close() override;

 private:
  struct Parts;

  StreamSettings settings_;
  std::string inbox_;
  std::shared_ptr<Parts> parts_;
};

}  // namespace qx::relay
