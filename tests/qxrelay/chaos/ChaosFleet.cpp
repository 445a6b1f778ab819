#include "tests/qxrelay/chaos/ChaosFleet.h"

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "tests/qxrelay/chaos/ServerConfigs.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace qx::chaos {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kStartingMax{2};
// The times between two faults, and the times that a fault lasts.
constexpr std::int64_t kBetweenMs = 900;
constexpr std::int64_t kFaultMaxMs = 4000;
constexpr std::int64_t kServerFaultMaxMs = 6000;
constexpr std::int64_t kServerPauseMs = 3000;

std::int64_t Below(std::mt19937_64& random, std::int64_t end) {
  return std::uniform_int_distribution<std::int64_t>(0, end - 1)(random);
}

}  // namespace

ChaosFleet::ChaosFleet(FleetOptions options) : options_(std::move(options)) {
  AddServers();
  for (int host = 0; host < options_.hosts; ++host) AddSender(host);
  for (int collector = 0; collector < options_.collectors; ++collector) AddCollector(collector);
}

ChaosFleet::Actor& ChaosFleet::Add(std::vector<Actor*>& group, const std::string& name, std::vector<std::string> words,
                                   Counts& counts) {
  const std::string log = options_.directory + "/" + name + ".log";
  actors_.push_back(std::unique_ptr<Actor>(new Actor{name, {std::move(words), log}, &counts}));
  group.push_back(actors_.back().get());
  return *actors_.back();
}

void ChaosFleet::AddServers() {
  for (ServerConfig& server : WriteServerConfigs(options_.directory, stream_)) {
    Add(server_actors_, server.name, std::move(server.words), servers_);
  }
}

std::string ChaosFleet::StreamLines() const {
  std::string servers;
  for (const std::string& server : stream_.servers) servers += (servers.empty() ? "" : ", ") + server;
  return "[stream]\nservers=" + servers + "\nreplicas=3\nbytes=8 GiB\n";
}

std::string ChaosFleet::ReportsOf(int host) const { return options_.directory + "/h" + std::to_string(host + 1); }

std::string ChaosFleet::RootOf(int collector) const {
  return options_.directory + "/c" + std::to_string(collector + 1);
}

// The times in the settings are short; for example, starts are not spread over 30 seconds.
void ChaosFleet::AddSender(int host) {
  const std::string name = "h" + std::to_string(host + 1);
  const std::string config = options_.directory + "/" + name + ".ini";
  fs::create_directory(ReportsOf(host));
  test::WriteFile(config, StreamLines() + "[host]\nname=" + name + "\n[send]\nreports=" + ReportsOf(host) + "\nstate=" +
                              options_.directory + "/" + name + ".state\nspread=0 s\nlinger=20 ms\npoll=5 ms\n" +
                              "poll_idle=50 ms\ntimeout=2 s\nrescan=1 s\n");
  Add(other_actors_, "sender-" + name, {options_.qxrelay, "send", "--config", config}, senders_);
}

void ChaosFleet::AddCollector(int collector) {
  const std::string name = "c" + std::to_string(collector + 1);
  const std::string config = options_.directory + "/" + name + ".ini";
  fs::create_directory(RootOf(collector));
  test::WriteFile(config, StreamLines() + "[receive]\nname=" + name + "\nroot=" + RootOf(collector) +
                              "\nslots=" + std::to_string(options_.collector_slots) +
                              "\nredeliver=" + std::to_string(kRedeliverSeconds) + " s\n");
  Add(other_actors_, "collector-" + name, {options_.qxrelay, "receive", "--config", config}, collectors_);
}

void ChaosFleet::Start() {
  for (Actor* const server : server_actors_) server->process.Start();
  stream_.replicas = kServers;
  stream_.bytes = std::uint64_t{8} << 30U;
  CreateStreamOfNewServers(stream_);
  for (Actor* const actor : other_actors_) actor->process.Start();
}

void ChaosFleet::Disturb(std::mt19937_64& random, std::int64_t now_ms) {
  bool is_server_hit = false;
  for (const auto& actor : actors_) {
    if (actor->state != State::kRuns && now_ms >= actor->until_ms) {
      Heal(*actor);
      if (actor->counts == &servers_) next_server_ms_ = now_ms + kServerPauseMs;
    }
    if (actor->counts == &servers_ && actor->state != State::kRuns) is_server_hit = true;
  }
  if (now_ms < next_ms_) return;
  next_ms_ = now_ms + kBetweenMs / 2 + Below(random, kBetweenMs);
  const bool hits_server = !is_server_hit && now_ms >= next_server_ms_ && Below(random, 2) == 0 && IsStreamWhole();
  std::vector<Actor*>& group = hits_server ? server_actors_ : other_actors_;
  Actor& actor = *group[static_cast<std::size_t>(Below(random, static_cast<std::int64_t>(group.size())))];
  if (actor.state != State::kRuns) return;
  Hit(actor, random, now_ms, hits_server ? kServerFaultMaxMs : kFaultMaxMs);
}

// Whether all servers have the whole stream. A server that runs again but has not caught up counts as a fault: three
// copies survive one fault.
bool ChaosFleet::IsStreamWhole() const {
  relay::StreamState state;
  return !relay::ReadStream(stream_, state).has_value() && state.whole_copies == kServers;
}

void ChaosFleet::Hit(Actor& actor, std::mt19937_64& random, std::int64_t now_ms, std::int64_t most_ms) {
  const std::int64_t what = Below(random, 3);
  actor.until_ms = now_ms + 50 + Below(random, most_ms);
  if (what == 0) {
    ++actor.counts->kills;
    (void)actor.process.End(SIGKILL);
  } else if (what == 1) {
    ++actor.counts->stops;
    actor.process.Signal(SIGSTOP);
  } else {
    ++actor.counts->restarts;
    const bool is_starting = actor.process.Age() < kStartingMax;  // and may not handle the signal yet
    const int code = actor.process.End(SIGTERM);
    const bool is_fine = code == 0 || (is_starting && code == -SIGTERM);
    if (!is_fine && actor.counts != &servers_) {
      throw std::runtime_error(actor.name + " ended with code " + std::to_string(code) + " after SIGTERM");
    }
  }
  actor.state = what == 1 ? State::kStopped : State::kDead;
}

void ChaosFleet::Heal(Actor& actor) {
  if (actor.state == State::kStopped) actor.process.Signal(SIGCONT);
  if (actor.state == State::kDead) actor.process.Start();
  actor.state = State::kRuns;
}

void ChaosFleet::Heal() {
  for (const auto& actor : actors_) Heal(*actor);
}

bool ChaosFleet::EndInOrder() {
  bool is_fine = true;
  for (Actor* const actor : other_actors_) {
    const int code = actor->process.End(SIGTERM);
    if (code != 0) std::fprintf(stderr, "chaos: %s ended with code %d\n", actor->name.c_str(), code);
    is_fine = is_fine && code == 0;
  }
  return is_fine;
}

std::vector<std::string> ChaosFleet::Crashed() {
  std::vector<std::string> names;
  for (const auto& actor : actors_) {
    if (actor->state != State::kRuns) continue;
    if (const std::optional<int> code = actor->process.Ended()) {
      names.push_back(actor->name + " (code " + std::to_string(*code) + ", see " + actor->process.Log() + ")");
    }
  }
  return names;
}

}  // namespace qx::chaos
