// The receiver's connection to JetStream: a durable pull consumer with explicit acknowledgements.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::relay {

// Threads, Owns: as ConsumeStream. A failed Fetch or Acknowledge may mean that the connection is lost: Connect again.
class NatsConsume final : public ConsumeStream {
 public:
  explicit NatsConsume(StreamSettings settings);
  ~NatsConsume() override;

  [[nodiscard]] std::optional<std::string> Connect(const std::string& name, std::size_t unacknowledged_max,
                                                   std::chrono::milliseconds redeliver_after) override;
  [[nodiscard]] std::optional<std::string> Fetch(const FetchLimits& limits, std::chrono::milliseconds timeout,
                                                 std::vector<StreamMessage>& messages) override;
  [[nodiscard]] std::optional<std::string> Acknowledge(const std::string& receipt) override;
  [[nodiscard]] std::optional<std::string> Refuse(const std::string& receipt) override;
  [[nodiscard]] std::optional<std::string> ReadState(ConsumerState& state) override;
  // The number of copies that can be asked: that of the stream's leader, and those of the servers in the settings.
  [[nodiscard]] std::size_t Copies() const override { return 1 + settings_.servers.size(); }
  [[nodiscard]] CopyAnswer ReadFromCopy(std::size_t copy, std::uint64_t sequence, StreamMessage& message) override;
  [[nodiscard]] std::optional<std::string> FirstSequence(std::uint64_t& sequence) override;
  void Close() override;

 private:
  [[nodiscard]] std::optional<std::string> Answer(const std::string& receipt, std::string_view answer);

  struct Parts;

  StreamSettings settings_;
  std::unique_ptr<Parts> parts_;
};

}  // namespace qx::relay
