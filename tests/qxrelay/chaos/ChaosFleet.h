// Runs three servers, hosts with senders, and collectors, and makes faults of these processes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/qxrelay/chaos/ChildProcess.h"
#include "tools/qxrelay/config/RelayConfig.h"

namespace qx::chaos {

// After this time a collector gets again the messages that it has not acknowledged.
inline constexpr int kRedeliverSeconds = 2;

struct FleetOptions {
  std::string qxrelay;    // the program
  std::string directory;  // of all files
  int hosts = 4;
  int collectors = 2;
  std::uint32_t collector_slots = 0;  // the rings keep everything
};

// Threads: one thread. Owns: all processes. Failure: an exception.
class ChaosFleet {
 public:
  explicit ChaosFleet(FleetOptions options);

  // Starts the servers and creates the stream, then starts all other processes.
  void Start();
  // Begins a fault of a process that `random` chooses, and ends earlier faults whose time is over. Must be called about
  // ten times a second. At most one server at a time has a fault.
  void Disturb(std::mt19937_64& random, std::int64_t now_ms);
  // Ends all faults: all processes run again.
  void Heal();
  // Ends senders and receivers by a signal. False if one of them does not end in time, or ends with another code than
  // 0.
  [[nodiscard]] bool EndInOrder();
  // Processes that ended by themselves, by name.
  [[nodiscard]] std::vector<std::string> Crashed();

  [[nodiscard]] std::string ReportsOf(int host) const;
  [[nodiscard]] std::string RootOf(int collector) const;
  [[nodiscard]] const relay::StreamSettings& Stream() const { return stream_; }

  struct Counts {
    std::uint64_t kills = 0;
    std::uint64_t stops = 0;
    std::uint64_t restarts = 0;
  };
  [[nodiscard]] const Counts& OfSenders() const { return senders_; }
  [[nodiscard]] const Counts& OfCollectors() const { return collectors_; }
  [[nodiscard]] const Counts& OfServers() const { return servers_; }

 private:
  enum class State { kRuns, kStopped, kDead };

  // A process and its fault.
  struct Actor {
    std::string name;
    ChildProcess process;
    Counts* counts = nullptr;
    State state = State::kRuns;
    std::int64_t until_ms = 0;
  };

  Actor& Add(std::vector<Actor*>& group, const std::string& name, std::vector<std::string> words, Counts& counts);
  void AddServers();
  void AddSender(int host);
  void AddCollector(int collector);
  [[nodiscard]] bool IsStreamWhole() const;
  void Hit(Actor& actor, std::mt19937_64& random, std::int64_t now_ms, std::int64_t most_ms);
  static void Heal(Actor& actor);
  [[nodiscard]] std::string StreamLines() const;

  FleetOptions options_;
  relay::StreamSettings stream_;
  std::vector<std::unique_ptr<Actor>> actors_;
  std::vector<Actor*> server_actors_;
  std::vector<Actor*> other_actors_;
  Counts senders_;
  Counts collectors_;
  Counts servers_;
  std::int64_t next_ms_ = 0;         // of the next fault
  std::int64_t next_server_ms_ = 0;  // of the next fault of a server
};

}  // namespace qx::chaos
