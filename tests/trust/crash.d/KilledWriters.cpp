// Kills a writer at random moments, again and again, on one store, while readers transfer it through the loaded module:
// no acknowledged record may be lost, no reader may die or hang, and the next writer must continue. One form appends
// with CReportFileBase, the other one appends batches with qx::Writer.
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
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "sdk/Writer.h"
#include "tests/support/Shared.h"
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
  std::atomic<std::uint64_t> bad{0};       // any other reply
};

struct Shared {
  std::atomic<std::uint64_t> attempted{0};     // the number of the last record that was given to writeLine or Append
  std::atomic<std::uint64_t> acknowledged{0};  // the number of the last record that was stored
  std::atomic<bool> is_refused{false};         // Open, writeLine or Append failed
  std::atomic<bool> is_over{false};
  ReaderCounts readers[kReaders];
};

Shared& SharedBlock() {
  static const test::Shared<Shared> block;
  return *block;
}

std::string Base() { return std::string(kReportDirectory) + "/" + kReport; }

// A record whose text shows whether it is whole; the lengths differ: "000000012345 xxxxxxx 000000012345".
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

// Appends batches of one to ten records.
[[noreturn]] void BeBatchWriter() {
  Shared& shared = SharedBlock();
  Writer writer;
  bool is_good = !writer.Open(Base(), kSlots).Failed();
  while (is_good) {
    std::vector<std::string> texts;
    std::uint64_t number = shared.attempted;
    for (std::uint64_t left = number % 10 + 1; left > 0; --left) texts.push_back(TextOf(++number));
    shared.attempted = number;
    is_good = !writer.Append(texts).Failed();
    if (is_good) shared.acknowledged = number;
  }
  shared.is_refused = true;
  _exit(1);
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

// Prints the numbers on standard error, as runs.
void PrintNumbers(const char* what, const std::deque<std::uint64_t>& numbers) {
  std::fprintf(stderr, "   %s:", what);
  for (std::size_t begin = 0, i = 1; i <= numbers.size(); ++i) {
    if (i < numbers.size() && numbers[i] == numbers[i - 1] + 1) continue;
    std::fprintf(stderr, " %llu..%llu", static_cast<unsigned long long>(numbers[begin]),
                 static_cast<unsigned long long>(numbers[i - 1]));
    begin = i;
  }
  std::fputc('\n', stderr);
}

// The records that the store must have: those that readers would find, oldest first.
class Model {
 public:
  struct Losses {
    std::uint64_t lost = 0;          // acknowledged records that the store does not have
    std::uint64_t wrong_order = 0;   // rounds whose records were there, but not in order
    std::uint64_t half_headers = 0;  // rounds that left an index file of some other size than a header and its slots
    std::uint64_t unwritten = 0;     // rounds that left a store without a first record
    std::uint64_t oldest_gone = 0;   // rounds in which the record that was not counted yet had the oldest one's place
  };

  // Checks the store after a kill: `found` are the records that a reader finds. The writer had tried records up to
  // `attempted`, and stored them up to `acknowledged`.
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

  // Begins again after a kill before the first record was indexed, and the removal of the files. Nothing was
  // acknowledged.
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

  void CountLosses(const std::deque<std::uint64_t>& found) {
    std::uint64_t lost = 0;
    for (std::size_t i = 1; i < records_.size(); ++i) {  // the oldest one may have been replaced
      if (std::find(found.begin(), found.end(), records_[i]) == found.end()) ++lost;
    }
    losses_.lost += lost;
    if (lost == 0) ++losses_.wrong_order;
    PrintNumbers("stored", records_);
    PrintNumbers("found", found);
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

// Whether a kill has left a store without ring size, which is stored with the first record. The next writer would give
// such a store 10,000 slots.
bool HasNoRingSize() {
  CReportFileBase store;
  return store.OpenRead(Base().c_str()) && store.header().maxRecord != kSlots;
}

void RemoveStore() {
  for (const char* ending : {".ind", ".dat"}) std::filesystem::remove(Base() + ending);
}

// The same for batches. A kill may leave records of one part that the header does not count yet, in the places of the
// oldest records.
class BatchModel {
 public:
  std::uint64_t lost = 0;         // acknowledged records that the store does not have
  std::uint64_t wrong_order = 0;  // rounds whose records were not as a kill may leave them
  std::uint64_t misplaced = 0;    // rounds in which records of a part had the places of the oldest ones
  std::uint64_t misplaced_max = 0;
  std::uint64_t not_counted = 0;  // of these rounds, those after which the next writer did not count the records

  // Checks the store after a kill. A part that was not counted yet has at most `part_max` records.
  void Check(const std::deque<std::uint64_t>& found, std::uint32_t part_max, std::uint64_t acknowledged,
             std::uint64_t attempted) {
    while (next_ <= acknowledged) Push(next_++);
    const std::deque<std::uint64_t> acknowledged_records = records_;
    const std::uint64_t first = next_;
    next_ = attempted + 1;
    for (std::uint64_t counted = first; counted <= next_; ++counted) {  // the records before `counted` are counted
      if (IsFoundWithPart(found, part_max, counted)) return;
      if (counted < next_) Push(counted);
    }
    CountLosses(found, acknowledged_records, part_max);
    records_ = found;
  }

  // Checks the store after the next writer has opened it.
  void CheckNextWriter(const std::deque<std::uint64_t>& found) {
    if (found == records_) return;
    ++not_counted;
    PrintNumbers("stored", records_);
    PrintNumbers("found by the next writer's readers", found);
    records_ = found;
  }

 private:
  void Push(std::uint64_t number) {
    records_.push_back(number);
    if (records_.size() > kSlots) records_.pop_front();
  }

  // Whether a reader finds the uncounted part, in place of the oldest records. The next writer then counts its records
  // as the newest.
  bool IsFoundWithPart(const std::deque<std::uint64_t>& found, std::uint32_t part_max, std::uint64_t first) {
    const std::uint64_t part_end = records_.size() < kSlots ? first : std::min(next_, first + part_max);
    std::deque<std::uint64_t> expected = records_;
    for (std::uint64_t number = first;; ++number) {
      if (found == expected) {
        misplaced += number > first ? 1 : 0;
        misplaced_max = std::max(misplaced_max, number - first);
        for (std::uint64_t uncounted = first; uncounted < number; ++uncounted) Push(uncounted);
        return true;
      }
      if (number >= part_end) return false;
      expected[number - first] = number;
    }
  }

  void CountLosses(const std::deque<std::uint64_t>& found, const std::deque<std::uint64_t>& records,
                   std::uint32_t part_max) {
    std::uint64_t missing = 0;
    for (std::size_t i = part_max; i < records.size(); ++i) {
      if (std::find(found.begin(), found.end(), records[i]) == found.end()) ++missing;
    }
    lost += missing;
    if (missing == 0) ++wrong_order;
    PrintNumbers("stored", records);
    PrintNumbers("found", found);
  }

  std::deque<std::uint64_t> records_;
  std::uint64_t next_ = 1;
};

// The seed is printed on standard error, because standard output is a table.
std::uint64_t Seed(const char* who) {
  const char* const given = std::getenv("QX_TEST_SEED");
  const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
  std::fprintf(stderr, "   %s: QX_TEST_SEED=%llu\n", who, static_cast<unsigned long long>(seed));
  return seed;
}

// Kills the writer during the opening of the store, during its first records, or during a later record.
void KillSoon(pid_t writer, std::mt19937_64& random) {
  const auto end =
      steady_clock::now() + std::chrono::microseconds(random() % 4 == 0 ? random() % 300 : random() % 2500);
  while (steady_clock::now() < end) std::this_thread::yield();
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
}

// Runs the readers, and counts those that died or made no progress.
class ReaderGuard {
 public:
  ReaderGuard() {
    for (int i = 0; i < kReaders; ++i) readers_[i] = Start([i] { BeReader(SharedBlock().readers[i]); });
  }

  void CheckProgress() {
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

unsigned long long Number(std::uint64_t value) { return value; }

const char* RefusedText() { return SharedBlock().is_refused ? ", a writer was refused" : ""; }

void PrintWriterRows(int kills, const Model::Losses& losses) {
  std::printf(
      "| store writer killed with SIGKILL, one store all the time | %d kills, %llu records, %llu acknowledged ones "
      "lost, "
      "%llu rounds out of order%s | every acknowledged record is there; the next writer continues |\n",
      kills, Number(SharedBlock().acknowledged), Number(losses.lost), Number(losses.wrong_order), RefusedText());
  std::printf(
      "| ... of these kills, between slot and header of a full ring | %llu | documented: the oldest record has given "
      "its place to one that nobody counted |\n",
      Number(losses.oldest_gone));
  std::printf(
      "| ... and before the first record of a new store | %llu; %llu with a part of a header | an empty index file, "
      "never a part of a header |\n",
      Number(losses.unwritten), Number(losses.half_headers));
}

void PrintBatchWriterRows(int kills, const BatchModel& model) {
  std::printf(
      "| writer of batches killed with SIGKILL, one store all the time | %d kills, %llu records, %llu acknowledged "
      "ones "
      "lost, %llu rounds out of order%s | every acknowledged record is there; the next writer continues |\n",
      kills, Number(SharedBlock().acknowledged), Number(model.lost), Number(model.wrong_order), RefusedText());
  std::printf(
      "| ... of these kills, between slots and header of a part | %llu, of at most %llu records; %llu not counted by "
      "the "
      "next writer | at most one part has the places of the oldest records, and the next writer counts it |\n",
      Number(model.misplaced), Number(model.misplaced_max), Number(model.not_counted));
}

// True if the readers' promises were kept.
bool PrintReaderRows(const ReaderGuard& guard) {
  std::uint64_t transfers = 0, records = 0, mixed = 0, refusals = 0, bad = 0;
  for (const ReaderCounts& reader : SharedBlock().readers) {
    transfers += reader.transfers;
    records += reader.records;
    mixed += reader.mixed;
    refusals += reader.refusals;
    bad += reader.bad;
  }
  std::printf(
      "| %d readers of that store through the module | %llu transfers, %llu records, %llu refusals, %llu bad replies, "
      "%d "
      "dead, %d hung | no reader dies or hangs, each reply is whole |\n",
      kReaders, Number(transfers), Number(records), Number(refusals), Number(bad), guard.Dead(), guard.Hung());
  std::printf(
      "| ... of these records, overwritten while they were read | %llu | documented: a slow reader may find newer text "
      "|\n",
      Number(mixed));
  return bad == 0 && guard.Dead() + guard.Hung() == 0 && transfers > 0;
}

// The most records of one part that the header does not count yet.
std::uint32_t PartMax() {
  CReportFileBase store;
  return store.OpenRead(Base().c_str()) ? report::RecordsInPart(store.header()) : 0;
}

bool HasHalfHeader() {
  std::error_code missing;
  const std::uintmax_t bytes = std::filesystem::file_size(Base() + ".ind", missing);
  return !missing && bytes > 0 && bytes < sizeof(report::IndexHeader);
}

void CheckAfterKill(BatchModel& model) {
  Shared& shared = SharedBlock();
  if (HasHalfHeader()) ++model.wrong_order;
  model.Check(RecordsInStore(), PartMax(), shared.acknowledged, shared.attempted);
  Writer next;
  if (next.Open(Base(), kSlots).Failed()) shared.is_refused = true;
  model.CheckNextWriter(RecordsInStore());
}

void Begin() {
  setenv("QX_LOG_DEBUG_LEVEL", "0", 1);
  MakeReportDirectory();
  RemoveStore();
  new (&SharedBlock()) Shared;
}

}  // namespace

bool CheckKilledWriters(CrashForm form) {
  const int kills = form == CrashForm::kQuick ? kKillsQuick : kKillsLong;
  Begin();
  std::mt19937_64 random(Seed("killed writers"));
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
    guard.CheckProgress();
  }
  guard.Stop();
  const Model::Losses& losses = model.Counted();
  PrintWriterRows(kills, losses);
  const bool are_readers_good = PrintReaderRows(guard);
  return losses.lost + losses.wrong_order + losses.half_headers == 0 && !SharedBlock().is_refused && are_readers_good;
}

bool CheckKilledBatchWriters(CrashForm form) {
  const int kills = form == CrashForm::kQuick ? kKillsQuick : kKillsLong;
  Begin();
  std::mt19937_64 random(Seed("killed writers of batches"));
  BatchModel model;
  ReaderGuard guard;
  for (int i = 0; i < kills; ++i) {
    KillSoon(Start(BeBatchWriter), random);
    CheckAfterKill(model);
    guard.CheckProgress();
  }
  guard.Stop();
  PrintBatchWriterRows(kills, model);
  const bool are_readers_good = PrintReaderRows(guard);
  return model.lost + model.wrong_order + model.not_counted == 0 && SharedBlock().acknowledged > 0 &&
         !SharedBlock().is_refused && are_readers_good;
}

}  // namespace qx::trust
