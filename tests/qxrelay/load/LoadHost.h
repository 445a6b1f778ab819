// A simulated host: the sender of "qxrelay send" with a connection of its own. Many of them share one
// process and one thread, which no real host does.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "sdk/Writer.h"
#include "tools/qxrelay/send/Sender.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace qx::load {

// Milliseconds of the monotonic clock, and nanoseconds since 1970.
[[nodiscard]] std::int64_t SteadyMs();
[[nodiscard]] std::int64_t WallNs();

// Threads: one thread. Owns: everything. Failure: an exception.
class LoadHost {
 public:
  LoadHost(const std::string& directory, const std::string& name, const relay::StreamSettings& stream,
           const relay::SendSettings& settings);

  // Does what is due, and returns the time of its next call. [owning thread]
  [[nodiscard]] relay::TimeMs Step(relay::TimeMs now) { return sender_->Step(now); }
  [[nodiscard]] int Descriptor() const { return stream_.Descriptor(); }
  [[nodiscard]] const relay::SenderCounters& Counters() const { return context_.counters; }
  [[nodiscard]] bool IsConnected() const { return sender_->IsConnected(); }
  void Finish() { sender_->Finish(); }

 private:
  relay::NatsPublish stream_;
  relay::SenderState state_;
  std::mt19937_64 random_;
  relay::SendContext context_;
  std::optional<relay::Sender> sender_;
};

// The writer of report `number` of a host. Owns: the open report. Failure: an exception.
class LoadReport {
 public:
  LoadReport(const std::string& directory, const std::string& host, std::size_t number, std::uint32_t slots);

  // Records of `bytes` each, with the time in front.
  void Append(std::size_t bytes, std::size_t count = 1);

 private:
  std::unique_ptr<Writer> writer_ = std::make_unique<Writer>();
};

}  // namespace qx::load
