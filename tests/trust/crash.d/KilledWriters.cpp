// A writer is killed at random moments, again and again, on one store, while readers transfer it through the loaded
// module: no acknowledged record is lost, no reader dies or hangs, and the next writer continues.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "reportfile/ReportFileBase.h"
#include "tests/trust/crash.d/Rows.h"
#include "tests/trust/tracing.d/LoadedModule.h"

namespace qx::trust {

namespace {

using std::chrono::steady_clock;

constexpr std::uint32_t kSlots = 64;
constexpr int kReaders = 2;
constexpr int kKillsQuick = 200;
constexpr int kKillsLong = 10000;
constexpr std::chrono::seconds kSilenceMax{20};
constexpr const char* kReport = "killed";

struct ReaderCounts {
  std::atomic<std::uint64_t> transfers{0};
  std::atomic<std::uint64_t> records{0};
  std::atomic<std::uint64_t> mixed{0};     // records that were never written: overwritten while read
  std::atomic<std::uint64_t> refusals{0};  // no more records, or the store being created
  std::atomic<std::uint64_t> bad{0};       // anything else
};

struct Shared {
  std::atomic<std::uint64_t> attempted{0};     // the number of the last record that was given to writeLine
  std::atomic<std::uint64_t> acknowledged{0};  // and of the last one for which it returned true
  std::atomic<bool> is_refused{false};         // Open or writeLine was false
  std::atomic<bool> is_over{false};
  ReaderCounts readers[kReaders];
};

Shared& SharedBlock() {
  static Shared* const block = [] {
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    return new (memory) Shared;
  }();
  return *block;
}

std::string Base() { return std::string(kReportDirectory) + "/" + kReport; }

// Records of different lengths, whose text says whether it is whole: "000000012345 xxxxxxx 000000012345".
std::string TextOf(std::uint64_t number) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%012llu", static_cast<unsigned long long>(number));
  return std::string(digits) + " " + std::string(16 + number * 7 % 11, 'x') + " " + digits;
}

// The number of a whole record, or 0.
std::uint64_t NumberOf(const std::string& line) {
  const std::uint64_t number = std::strtoull(line.c_str(), nullptr, 10);
  return line == TextOf(number) + "\r\n" ? number : 0;
}

[[noreturn]] void BeWriter() {
  Shared& shared = SharedBlock();
  CReportFileBase store;
  if (!store.Open(Base().c_str(), kSlots)) {
    shared.is_refused = true;
    _exit(1);
  }
  for (;;) {
    const std::uint64_t number = ++shared.attempted;
    if (!store.writeLine(TextOf(number).c_str())) {
      shared.is_refused = true;
      _exit(1);
    }
    shared.acknowledged = number;
  }
}

void CountRecords(const std::string& reply, ReaderCounts& counts) {
  constexpr std::string_view kBegin = "<![CDATA[";
  std::size_t at = reply.find(kBegin);
  const std::size_t end = reply.rfind("]]>");
  if (at == std::string::npos || end == std::string::npos) {
    ++counts.bad;
    return;
  }
  for (at += kBegin.size(); at < end;) {
    const std::size_t next = std::min(reply.find('\n', at), end - 1) + 1;
    ++counts.records;
    if (NumberOf(reply.substr(at, next - at)) == 0) ++counts.mixed;
    at = next;
  }
}

[[noreturn]] void BeReader(ReaderCounts& counts) {
  LoadedModule& module_object = *new LoadedModule;
  if (!module_object.Load()) _exit(1);
  std::string reply;
  while (!SharedBlock().is_over) {
    const int result = module_object.Fetch(kReport, 0, reply);
    ++counts.transfers;
    if (result == 0) {
      CountRecords(reply, counts);
    } else if ((result == 1 || result == 12) && reply.find("<Error ") != std::string::npos) {
      ++counts.refusals;
    } else {
      ++counts.bad;
    }
  }
  _exit(0);
}

pid_t Start(const std::function<void()>& body) {
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("cannot fork");
  if (child == 0) body();
  return child;
}

// What the store has to hold: the records that readers would find, oldest first.
class Model {
 public:
  struct Losses {
    std::uint64_t lost = 0;          // acknowledged records that are not there
    std::uint64_t wrong_order = 0;   // rounds whose records were there, but not in order
    std::uint64_t half_headers = 0;  // rounds that left an index file of some other size than a header and its slots
    std::uint64_t unwritten = 0;     // rounds that left a store without a first record
    std::uint64_t oldest_gone = 0;   // rounds in which the record that was not counted yet had the oldest one's place
  };

  // After a kill: `found` is what a reader finds, and records up to `attempted` were tried, up to `acknowledged`
  // stored.
  void Check(const std::deque<std::uint64_t>& found, std::uint64_t acknowledged, std::uint64_t attempted) {
    while (next_ <= acknowledged) Push(next_++);
    const std::uint64_t in_flight = attempted > acknowledged ? attempted : 0;
    next_ = attempted + 1;
    if (found == records_) return;
    std::deque<std::uint64_t> with_it = records_;
    with_it.push_back(in_flight);
    if (with_it.size() > kSlots) with_it.pop_front();
    std::deque<std::uint64_t> in_oldest_place = records_;
    if (!in_oldest_place.empty()) in_oldest_place.front() = in_flight;
    if (in_flight != 0 && (found == with_it || found == in_oldest_place)) {
      losses_.oldest_gone += found == in_oldest_place ? 1 : 0;
      records_ = found;
      return;
    }
    CountLosses(found);
    records_ = found;
  }

  // After a kill before the first record was indexed, and the removal of the files. Nothing was acknowledged.
  void StartOver(bool is_empty, std::uint64_t acknowledged, std::uint64_t attempted) {
    ++(is_empty ? losses_.unwritten : losses_.half_headers);
    losses_.lost += records_.size() + (acknowledged >= next_ ? acknowledged + 1 - next_ : 0);
    records_.clear();
    next_ = attempted + 1;
  }

  [[nodiscard]] const Losses& Counted() const { return losses_; }

 private:
  void Push(std::uint64_t number) {
    records_.push_back(number);
    if (records_.size() > kSlots) records_.pop_front();
  }

  // On standard error: the numbers, as runs.
  static void Tell(const char* what, const std::deque<std::uint64_t>& numbers) {
    std::fprintf(stderr, "   %s:", what);
    for (std::size_t begin = 0, i = 1; i <= numbers.size(); ++i) {
      if (i < numbers.size() && numbers[i] == numbers[i - 1] + 1) continue;
      std::fprintf(stderr, " %llu..%llu", static_cast<unsigned long long>(numbers[begin]),
                   static_cast<unsigned long long>(numbers[i - 1]));
      begin = i;
    }
    std::fputc('\n', stderr);
  }

  void CountLosses(const std::deque<std::uint64_t>& found) {
    std::uint64_t lost = 0;
    for (std::size_t i = 1; i < records_.size(); ++i) {  // the oldest one may have given its place away
      if (std::find(found.begin(), found.end(), records_[i]) == found.end()) ++lost;
    }
    losses_.lost += lost;
    if (lost == 0) ++losses_.wrong_order;
    Tell("stored", records_);
    Tell("found", found);
  }

  std::deque<std::uint64_t> records_;
  std::uint64_t next_ = 1;
  Losses losses_;
};

std::deque<std::uint64_t> RecordsInStore() {
  CReportFileBase store;
  std::deque<std::uint64_t> found;
  if (!store.OpenRead(Base().c_str())) return found;
  std::string line;
  for (std::uint32_t i = 0; i < store.header().highestIndex; ++i) {
    if (store.readLine(line, report::SlotOfLogical(store.header(), i))) found.push_back(NumberOf(line));
  }
  return found;
}

// The ring size is stored with the first record: a store without one would get 10,000 slots from the next writer.
bool HasNoRingSize() {
  CReportFileBase store;
  return store.OpenRead(Base().c_str()) && store.header().maxRecord != kSlots;
}

void RemoveStore() {
  for (const char* ending : {".ind", ".dat"}) std::filesystem::remove(Base() + ending);
}

// Printed on standard error, because standard output is a table.
std::uint64_t Seed() {
  const char* const given = std::getenv("QX_TEST_SEED");
  const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
  std::fprintf(stderr, "   killed writers: QX_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  return seed;
}

// Kills fall into the opening of the store, into its first records, and into any later one.
void KillSoon(pid_t writer, std::mt19937_64& random) {
  const auto end =
      steady_clock::now() + std::chrono::microseconds(random() % 4 == 0 ? random() % 300 : random() % 2500);
  while (steady_clock::now() < end) std::this_thread::yield();
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
}

// Sees to it that the readers live and get somewhere.
class ReaderGuard {
 public:
  ReaderGuard() {
    for (int i = 0; i < kReaders; ++i) readers_[i] = Start([i] { BeReader(SharedBlock().readers[i]); });
  }

  void Look() {
    for (int i = 0; i < kReaders; ++i) {
      if (readers_[i] < 0) continue;
      if (waitpid(readers_[i], nullptr, WNOHANG) != 0) {
        ++dead_;
        readers_[i] = -1;
        continue;
      }
      const std::uint64_t transfers = SharedBlock().readers[i].transfers;
      const auto now = steady_clock::now();
      if (transfers != seen_[i]) since_[i] = now;
      seen_[i] = transfers;
      if (now - since_[i] > kSilenceMax) {
        ++hung_;
        since_[i] = now;
      }
    }
  }

  void Stop() {
    SharedBlock().is_over = true;
    for (const pid_t reader : readers_) {
      int status = 0;
      if (reader > 0 && (waitpid(reader, &status, 0) != reader || status != 0)) ++dead_;
    }
  }

  [[nodiscard]] int Dead() const { return dead_; }
  [[nodiscard]] int Hung() const { return hung_; }

 private:
  pid_t readers_[kReaders] = {};
  std::uint64_t seen_[kReaders] = {};
  steady_clock::time_point since_[kReaders] = {steady_clock::now(), steady_clock::now()};
  int dead_ = 0;
  int hung_ = 0;
};

bool PrintRows(int kills, const Model::Losses& losses, const ReaderGuard& guard) {
  const Shared& shared = SharedBlock();
  std::uint64_t transfers = 0, records = 0, mixed = 0, refusals = 0, bad = 0;
  for (const ReaderCounts& reader : shared.readers) {
    transfers += reader.transfers;
    records += reader.records;
    mixed += reader.mixed;
    refusals += reader.refusals;
    bad += reader.bad;
  }
  const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
  std::printf(
      "| store writer killed with SIGKILL, one store all the time | %d kills, %llu records, %llu acknowledged ones "
      "lost, "
      "%llu rounds out of order%s | every acknowledged record is there; the next writer continues |\n",
      kills, number(shared.acknowledged), number(losses.lost), number(losses.wrong_order),
      shared.is_refused ? ", a writer was refused" : "");
  std::printf(
      "| ... of these kills, between slot and header of a full ring | %llu | documented: the oldest record has given "
      "its place to one that nobody counted |\n",
      number(losses.oldest_gone));
  std::printf(
      "| ... and before the first record of a new store | %llu; %llu with a part of a header | an empty index file, "
      "never a part of a header |\n",
      number(losses.unwritten), number(losses.half_headers));
  std::printf(
      "| %d readers of that store through the module | %llu transfers, %llu records, %llu refusals, %llu bad replies, "
      "%d "
      "dead, %d hung | no reader dies or hangs, each reply is whole |\n",
      kReaders, number(transfers), number(records), number(refusals), number(bad), guard.Dead(), guard.Hung());
  std::printf(
      "| ... of these records, overwritten while they were read | %llu | documented: a slow reader may find newer text "
      "|\n",
      number(mixed));
  return losses.lost + losses.wrong_order + losses.half_headers + bad == 0 && !shared.is_refused &&
         guard.Dead() + guard.Hung() == 0 && transfers > 0;
}

}  // namespace

bool CheckKilledWriters(CrashForm form) {
  const int kills = form == CrashForm::kQuick ? kKillsQuick : kKillsLong;
  setenv("QX_LOG_DEBUG_LEVEL", "0", 1);
  MakeReportDirectory();
  new (&SharedBlock()) Shared;
  std::mt19937_64 random(Seed());
  Model model;
  ReaderGuard guard;
  for (int i = 0; i < kills; ++i) {
    KillSoon(Start(BeWriter), random);
    if (HasNoRingSize()) {
      const bool is_empty = std::filesystem::is_empty(Base() + ".ind");
      RemoveStore();
      model.StartOver(is_empty, SharedBlock().acknowledged, SharedBlock().attempted);
    } else {
      model.Check(RecordsInStore(), SharedBlock().acknowledged, SharedBlock().attempted);
    }
    guard.Look();
  }
  guard.Stop();
  return PrintRows(kills, model.Counted(), guard);
}

}  // namespace qx::trust
