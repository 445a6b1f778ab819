// Tests the relay with random faults: qxrelay_chaos QXRELAY SECONDS [SEED [COLLECTORS]]
//
// It kills, stops, continues and restarts senders, receivers and servers while writers append records that identify
// themselves. Then it ends all faults, and checks the stream and the reports of each collector: no record may be lost,
// repeated, out of order or torn, and there may be gaps only for records that the ring had overwritten. It prints rows
// for script/trust. If a promise is broken, it exits with 1 and keeps the files.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "debug/Debug.h"
#include "tests/qxrelay/chaos/ChaosFleet.h"
#include "tests/qxrelay/chaos/ChaosWriter.h"
#include "tests/qxrelay/chaos/StreamCheck.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/stream/NatsConsume.h"

// The module's classes need this object. It writes nothing: this program has no traces.
__attribute__((init_priority(101))) CDebug Debug;

namespace qx::chaos {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr double kRate = 100;  // records a second of a report
constexpr seconds kSettleMax{120};
constexpr std::size_t kComplaintsMax = 40;
constexpr std::uint64_t kSequencesMax = 2000;  // that are read from each copy for one gap

struct Arguments {
  std::string qxrelay;
  int seconds = 60;
  std::uint64_t seed = 1;
  int collectors = 2;
};

// One ring wraps within a second, one within some seconds, and one never.
constexpr std::uint32_t kSlots[] = {60, 500, 1000000};

void Say(const std::string& text) {
  static std::size_t count = 0;
  if (++count <= kComplaintsMax) std::fprintf(stderr, "chaos: %s\n", text.c_str());
}

class Chaos {
 public:
  Chaos(const Arguments& arguments, const std::string& directory)
      : arguments_(arguments),
        directory_(directory),
        fleet_({.qxrelay = arguments.qxrelay,
                .directory = directory,
                .collectors = arguments.collectors,
                .collector_slots = static_cast<std::uint32_t>(arguments.seconds * kRate * 4 + 20000)}) {}

  bool Run() {
    fleet_.Start();
    StartWriters();
    DisturbAll();
    fleet_.Heal();
    writers_.clear();
    StreamCheck check(AllReports(), Say);
    const bool is_settled = Settle(check);
    Verdict stream = check.Finish();
    const std::string crashed = CrashedText();
    PrintStream(stream, crashed);
    bool is_kept = is_settled && stream.IsKept() && crashed.empty();
    SettleCollectors(check);
    for (int i = 0; i < arguments_.collectors; ++i) is_kept = CheckCollector(i, check) && is_kept;
    return fleet_.EndInOrder() && is_kept;
  }

 private:
  void StartWriters() {
    for (int host = 0; host < 4; ++host) {
      std::vector<ChaosReport*> of_host;
      for (const std::uint32_t slots : kSlots) {
        const std::string name = "r" + std::to_string(slots);
        reports_.push_back(std::make_unique<ChaosReport>("h" + std::to_string(host + 1), name, slots));
        reports_.back()->Open(fleet_.ReportsOf(host));
        of_host.push_back(reports_.back().get());
      }
      writers_.push_back(std::make_unique<ChaosWriter>(of_host, kRate, arguments_.seed + static_cast<unsigned>(host)));
    }
  }

  void DisturbAll() {
    std::mt19937_64 random(arguments_.seed);
    const auto begin = steady_clock::now();
    const auto end = begin + seconds(arguments_.seconds);
    while (steady_clock::now() < end) {
      const auto now = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin).count();
      fleet_.Disturb(random, now);
      std::this_thread::sleep_for(milliseconds(100));
    }
  }

  std::vector<ChaosReport*> AllReports() {
    std::vector<ChaosReport*> all;
    for (const auto& report : reports_) all.push_back(report.get());
    return all;
  }

  // Reads the whole stream from its beginning, until it has everything that was written.
  bool Settle(StreamCheck& check) {
    const auto end = steady_clock::now() + kSettleMax;
    relay::NatsConsume consumer(fleet_.Stream());
    std::uint64_t last = 0;
    bool is_connected = false;
    while (!check.IsComplete()) {
      if (steady_clock::now() > end) {
        Say("the stream is not complete after " + std::to_string(kSettleMax.count()) + " s");
        return false;
      }
      if (!is_connected) is_connected = !consumer.Connect("checker", 10000, seconds(30)).has_value();
      if (is_connected) is_connected = TakeSome(consumer, check, last);
      if (!is_connected) std::this_thread::sleep_for(milliseconds(200));
    }
    return true;
  }

  bool TakeSome(relay::NatsConsume& consumer, StreamCheck& check, std::uint64_t& last) {
    std::vector<relay::StreamMessage> messages;
    if (const auto problem = consumer.Fetch({.messages = 500}, milliseconds(500), messages)) return false;
    for (const relay::StreamMessage& message : messages) {
      if (consumer.Acknowledge(message.receipt).has_value()) return false;
      if (message.sequence <= last) continue;  // delivered again
      if (message.sequence != last + 1) Say("the checker misses message " + std::to_string(last + 1));
      last = message.sequence;
      TakeFromCopies(consumer, message, check);
      check.Take(message);
    }
    return true;
  }

  // Takes the messages before this one that are missing from a copy of the stream that has them: the consumer reads one
  // copy, and a server that was stopped may have another copy than the others.
  void TakeFromCopies(relay::NatsConsume& consumer, const relay::StreamMessage& message, StreamCheck& check) {
    std::vector<relay::StreamMessage> missing = {message};
    while (check.IsHoleBefore(missing.back())) {
      std::optional<relay::StreamMessage> found = ReadBefore(consumer, missing.back());
      if (!found.has_value()) break;
      missing.push_back(std::move(*found));
    }
    from_other_copies_ += missing.size() - 1;
    for (auto at = missing.rbegin(); at + 1 != missing.rend(); ++at) check.Take(*at);
  }

  // The message of the same report directly before `next`, from any copy that has it.
  static std::optional<relay::StreamMessage> ReadBefore(relay::NatsConsume& consumer,
                                                        const relay::StreamMessage& next) {
    const relay::MessageHead head = relay::DecodeMessage(next.payload).head;
    for (std::size_t copy = 0; copy < consumer.Copies() && next.before.value_or(0) != 0; ++copy) {
      relay::StreamMessage message;
      const relay::CopyAnswer answer = consumer.ReadFromCopy(copy, *next.before, message);
      if (answer != relay::CopyAnswer::kMessage || message.subject != next.subject) continue;
      if (relay::DecodeMessage(message.payload).head.Next() >= head.first) return message;
    }
    return std::nullopt;
  }

  std::vector<relay::StreamMessage> ReadFromCopies(Range sequences) {
    std::vector<relay::StreamMessage> messages;
    relay::NatsConsume consumer(fleet_.Stream());
    if (consumer.Connect("checker", 10000, seconds(30)).has_value()) return messages;
    const std::uint64_t next = std::min(sequences.next, sequences.first + kSequencesMax);
    for (std::size_t copy = 1; copy < consumer.Copies(); ++copy) {  // 0 is the leader, which is one of the servers
      for (std::uint64_t sequence = sequences.first; sequence < next; ++sequence) {
        relay::StreamMessage message;
        const relay::CopyAnswer answer = consumer.ReadFromCopy(copy, sequence, message);
        if (answer == relay::CopyAnswer::kMessage) messages.push_back(std::move(message));
      }
    }
    return messages;
  }

  Verdict Compare(int collector, StreamCheck& check, const std::function<void(const std::string&)>& say) {
    Verdict verdict;
    const ReadCopies read_copies = [this](Range sequences) { return ReadFromCopies(sequences); };
    for (auto& [name, report] : check.Reports()) {
      CheckCollected(fleet_.RootOf(collector) + "/" + name, report, read_copies, say, verdict);
    }
    return verdict;
  }

  // Waits until the collectors have everything, and until unacknowledged messages have come again.
  void SettleCollectors(StreamCheck& check) {
    const auto end = steady_clock::now() + kSettleMax;
    for (int i = 0; i < arguments_.collectors; ++i) {
      while (Compare(i, check, [](const std::string&) {}).lost > 0 && steady_clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(500));
      }
    }
    if (arguments_.collectors > 0) std::this_thread::sleep_for(seconds(2 * kRedeliverSeconds));
  }

  bool CheckCollector(int collector, StreamCheck& check) {
    const Verdict verdict = Compare(collector, check, Say);
    std::printf(
        "| the same, the reports of collector %d | %llu records, %llu of them in gaps of the stream's other copies | "
        "lost "
        "%llu, repeated %llu, out of order %llu, torn %llu |\n",
        collector + 1, Number(verdict.records), Number(verdict.of_one_copy), Number(verdict.lost),
        Number(verdict.repeated), Number(verdict.out_of_order), Number(verdict.torn));
    return verdict.IsKept();
  }

  std::string CrashedText() {
    std::string text;
    for (const std::string& name : fleet_.Crashed()) text += " " + name;
    if (!text.empty()) Say("ended by themselves:" + text);
    return text;
  }

  static unsigned long long Number(std::uint64_t number) { return number; }

  static std::string CountsText(const ChaosFleet::Counts& counts) {
    return std::to_string(counts.kills) + "/" + std::to_string(counts.stops) + "/" + std::to_string(counts.restarts);
  }

  void PrintStream(const Verdict& verdict, const std::string& crashed) {
    std::uint64_t written = 0;
    for (const auto& report : reports_) written += report->Count();
    std::printf(
        "| relay: kills/stops/restarts of 4 senders %s, %d receivers %s, 3 servers %s in %d s, seed %llu | %llu "
        "records "
        "written; in %llu messages (%llu not in every copy) %llu records, %llu repeated records, %llu gaps of %llu "
        "records%s | lost %llu, out "
        "of "
        "order %llu, torn %llu, foreign %llu |\n",
        CountsText(fleet_.OfSenders()).c_str(), arguments_.collectors, CountsText(fleet_.OfCollectors()).c_str(),
        CountsText(fleet_.OfServers()).c_str(), arguments_.seconds, Number(arguments_.seed), Number(written),
        Number(verdict.messages), Number(from_other_copies_), Number(verdict.records), Number(verdict.repeats),
        Number(verdict.gaps), Number(verdict.gap_records), crashed.empty() ? "" : ", ENDED BY THEMSELVES",
        Number(verdict.lost), Number(verdict.out_of_order), Number(verdict.torn), Number(verdict.foreign));
    std::fflush(stdout);
  }

  Arguments arguments_;
  std::string directory_;
  ChaosFleet fleet_;
  std::vector<std::unique_ptr<ChaosReport>> reports_;
  std::vector<std::unique_ptr<ChaosWriter>> writers_;
  std::uint64_t from_other_copies_ = 0;
};

int Main(const Arguments& arguments) {
  std::fprintf(stderr, "chaos: seed %llu\n", static_cast<unsigned long long>(arguments.seed));
  std::string directory = std::filesystem::temp_directory_path() / "qxrelay-chaos.XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) return 1;
  bool is_kept = false;
  try {
    is_kept = Chaos(arguments, directory).Run();
  } catch (const std::exception& problem) {
    Say(problem.what());
  }
  if (is_kept) std::filesystem::remove_all(directory);
  if (!is_kept) Say("the files are in " + directory);
  return is_kept ? 0 : 1;
}

}  // namespace

}  // namespace qx::chaos

int main(int argc, char** argv) {
  if (argc < 3 || argc > 5) return 2;
  qx::chaos::Arguments arguments = {.qxrelay = argv[1], .seconds = static_cast<int>(std::strtol(argv[2], nullptr, 10))};
  arguments.seed = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : std::random_device{}();
  if (argc > 4) arguments.collectors = static_cast<int>(std::strtol(argv[4], nullptr, 10));
  return qx::chaos::Main(arguments);
}
