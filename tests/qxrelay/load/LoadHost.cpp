#include "tests/qxrelay/load/LoadHost.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace qx::load {

namespace {

constexpr relay::TimeMs kHeartbeatMs = 3'600'000;

}  // namespace

std::int64_t SteadyMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::int64_t WallNs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

LoadHost::LoadHost(const std::string& directory, const std::string& name, const relay::StreamSettings& stream,
                   const relay::SendSettings& settings)
    : stream_(stream, name),
      random_(std::hash<std::string>()(name)),
      context_(
          {.stream = stream_,
           .state = state_,
           .log = [name](const std::string& line) { std::fprintf(stderr, "%s: %s\n", name.c_str(), line.c_str()); },
           .random = [this] { return std::uniform_real_distribution<>()(random_); },
           .random_number = [this] { return random_(); },
           .wall_ms = [] { return WallNs() / 1'000'000; },
           .host = name,
           .directory = directory + "/" + name,
           .stream_settings = stream,
           .settings = settings,
           .times = {.linger = settings.linger.count(),
                     .poll = settings.poll.count(),
                     .poll_idle = std::max(settings.poll, settings.poll_idle).count(),
                     .timeout = settings.timeout.count(),
                     .heartbeat = kHeartbeatMs,
                     .batch_bytes = settings.batch_bytes}}) {
  std::filesystem::create_directories(context_.directory);
  if (const auto problem = state_.Open(directory + "/" + name + ".state", false)) throw std::runtime_error(*problem);
  if (const auto problem = state_.BeginSession(0)) throw std::runtime_error(*problem);
  state_.WriteInBackground();
  sender_.emplace(context_, SteadyMs(), std::vector<std::string>());
}

LoadReport::LoadReport(const std::string& directory, const std::string& host, std::size_t number, std::uint32_t slots) {
  std::filesystem::create_directories(directory + "/" + host);
  const Error error = writer_->Open(directory + "/" + host + "/r" + std::to_string(number), slots);
  if (error.Failed()) throw std::runtime_error(error.text);
}

void LoadReport::Append(std::size_t bytes, std::size_t count) {
  std::string text = std::to_string(WallNs()) + " ";
  text.resize(std::max(bytes, text.size()), 'x');
  const std::vector<std::string_view> texts(count, text);
  if (const Error error = writer_->Append(texts); error.Failed()) throw std::runtime_error(error.text);
}

}  // namespace qx::load
