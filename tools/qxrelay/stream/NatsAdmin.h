// Works on the stream as a whole. These operations need the rights of an operator or a collector.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/qxrelay/config/RelayConfig.h"

namespace qx::relay {

// The state and the settings of a stream on the servers.
struct StreamState {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
  std::uint64_t first_sequence = 0;
  std::uint64_t last_sequence = 0;
  std::string leader;              // name of a server; empty: the stream has no leader now, or the server has no name
  std::uint32_t whole_copies = 0;  // copies that have all messages, including that of the leader; 0 without a leader
  StreamSettings settings;         // name, age, bytes and replicas; the others are those that were requested
  bool keeps_newest = false;       // discards the oldest messages, not the newest ones, when it is full
  bool allows_look_ups = false;    // DIRECT.GET, which senders use
};

// The problem with the copies of the stream, for the operator. Empty if the stream has a leader, and each copy has all
// messages.
[[nodiscard]] std::string TextOfMissingCopies(const StreamState& state);

// Creates the stream of the settings: it has all subjects below the prefix, is on disk, discards the oldest messages
// first, and allows look-ups. An existing stream gets the limits and the number of replicas of the settings. Returns
// why it failed, for the operator; unset after a success. [any thread]
[[nodiscard]] std::optional<std::string> CreateStream(const StreamSettings& settings);

// Reads the state of the stream; unset after a success. [any thread]
[[nodiscard]] std::optional<std::string> ReadStream(const StreamSettings& settings, StreamState& state);

// The number of messages of the stream that a collector has not acknowledged yet, fetched or not. [any thread]
[[nodiscard]] std::optional<std::string> ReadPending(const StreamSettings& settings, const std::string& collector,
                                                     std::uint64_t& pending);

// Removes all messages of a host: of its reports, their names, and its labels. [any thread]
[[nodiscard]] std::optional<std::string> PurgeHost(const StreamSettings& settings, const std::string& host);

}  // namespace qx::relay
