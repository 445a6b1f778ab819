// Measures reads of a ring that is written without a pause: torture SECONDS
//
// One process appends to a small ring. Eight threads and four other processes read it, half of them through the store,
// half through the module. For each way the program prints how many records per million were torn, stepped forward over
// lost ones, or stepped back.
//
// The store promises readers in other processes no more than that they end and get text (docs/report-store.md); what is
// promised here is no crash, no hang, and no reply that is not well formed. The rates are measured, not promised.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/ServiceHost.h"
#include "debug/Debug.h"
#include "reportfile/ReportFileBase.h"
#include "tests/support/Shared.h"
#include "tests/trust/rings.d/TortureReaders.h"
#include "tests/trust/rings.d/TortureRecord.h"

__attribute__((init_priority(101))) CDebug Debug;

namespace {

using qx::trust::Tally;

constexpr std::uint32_t kSlots = 1000;
constexpr int kThreads = 8;
constexpr int kProcesses = 4;
constexpr unsigned kGraceSeconds = 60;  // a process that has not ended by then hangs
const char* const kName = "torture";

// The memory that all processes share.
struct Shared {
  std::atomic<bool> stop{false};
  std::atomic<std::uint32_t> written{0};
  std::array<Tally, kProcesses> tallies{};
};

Shared& SharedMemory() {
  static const qx::test::Shared<Shared> shared;
  return *shared;
}

std::string BasePath() { return qx::bench::ReportDirectory() + "/" + kName; }

pid_t Start(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child != 0) return child;
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  work();
  _exit(0);
}

bool HasSucceeded(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  std::fprintf(stderr, "torture: a process ended with status %d\n", status);
  return false;
}

void Write() {
  CReportFileBase store;
  if (!store.Open(BasePath().c_str(), kSlots)) _exit(1);
  Shared& shared = SharedMemory();
  for (std::uint32_t number = shared.written; !shared.stop; ++number) {
    if (!store.writeLine(qx::trust::TortureRecord(number).c_str())) _exit(1);
    shared.written = number + 1;
  }
}

// Fills the ring before the readers start.
void FillTheRing() {
  CReportFileBase store;
  if (!store.Open(BasePath().c_str(), kSlots)) std::abort();
  for (std::uint32_t number = 0; number < kSlots; ++number) {
    if (!store.writeLine(qx::trust::TortureRecord(number).c_str())) std::abort();
  }
  SharedMemory().written = kSlots;
}

Tally Read(bool through_module) {
  const std::atomic<bool>& stop = SharedMemory().stop;
  return through_module ? qx::trust::ReadThroughModule(kName, stop) : qx::trust::ReadThroughStore(BasePath(), stop);
}

double PerMillion(std::uint64_t count, std::uint64_t records) {
  return records == 0 ? 0 : 1e6 * static_cast<double>(count) / static_cast<double>(records);
}

void PrintRates(const char* way, const Tally& tally) {
  std::printf(
      "| %s: %llu records in %llu transfers under a writer that never pauses | per million: %.1f torn, %.1f stepped "
      "over lost ones, %.1f stepped back | measured, not promised |\n",
      way, static_cast<unsigned long long>(tally.records), static_cast<unsigned long long>(tally.transfers),
      PerMillion(tally.mixed, tally.records), PerMillion(tally.forward, tally.records),
      PerMillion(tally.back, tally.records));
}

struct Outcome {
  std::array<Tally, 2> ways;  // store, module
  bool all_ended_well = true;
};

Outcome RunFor(unsigned seconds) {
  Shared& shared = SharedMemory();
  std::vector<pid_t> children = {Start(Write)};
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(Start([i] { SharedMemory().tallies[static_cast<std::size_t>(i)] = Read(i % 2 == 1); }));
  }
  std::array<Tally, kThreads> tallies;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&tallies, i] { tallies[static_cast<std::size_t>(i)] = Read(i % 2 == 1); });
  }
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  shared.stop = true;

  Outcome outcome;
  for (std::thread& thread : threads) thread.join();
  for (const pid_t child : children) outcome.all_ended_well &= HasSucceeded(child);
  for (std::size_t i = 0; i < kThreads; ++i) outcome.ways[i % 2].Add(tallies[i]);
  for (std::size_t i = 0; i < kProcesses; ++i) outcome.ways[i % 2].Add(shared.tallies[i]);
  return outcome;
}

int Torture(unsigned seconds) {
  (void)SharedMemory();
  qx::bench::PrepareService();
  FillTheRing();
  alarm(seconds + kGraceSeconds);  // ends the process, and with it the others
  const Outcome outcome = RunFor(seconds);

  const auto& [store, module] = outcome.ways;
  PrintRates("read through the store", store);
  PrintRates("read through the module", module);
  const auto malformed = static_cast<unsigned long long>(store.malformed + module.malformed);
  std::printf(
      "| %u s, %u records written to a ring of %u, %d threads and %d processes reading: crashes, hangs, failed reads, "
      "replies not well formed | %llu | none |\n",
      seconds, SharedMemory().written.load(), kSlots, kThreads, kProcesses,
      malformed + (outcome.all_ended_well ? 0 : 1));
  return malformed == 0 && outcome.all_ended_well && store.records > 0 && module.records > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) { return argc == 2 ? Torture(static_cast<unsigned>(std::atoi(argv[1]))) : 2; }
