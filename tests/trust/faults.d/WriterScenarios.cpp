// Scenarios for qx::Writer: records one by one, and a batch that wraps the ring.
#include "sdk/Writer.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "sdk/Reader.h"
#include "tests/support/Support.h"
#include "tests/trust/faults.d/Scenario.h"

namespace qx::trust {

namespace {

constexpr unsigned kSlots = 8;
constexpr std::size_t kInFullRing = 14;  // two records later the data file restarts
constexpr std::size_t kSingles = 3;
constexpr std::size_t kTexts = kSingles + 10;  // the rest is one batch, of two parts

// These texts are made before the faults, because the caller's allocations are not tested.
std::string base;
std::vector<std::string> sequence;    // the records before the faults, and those that are appended
std::vector<std::string_view> texts;  // the records that are appended
std::size_t before = 0;
std::size_t stored = 0;  // of the texts, according to the results

// Hides other processes: a writer checks whether any process of the machine writes the report. Here it finds only
// itself, so the number of calls does not depend on other programs.
void HideOtherProcesses(const std::string& directory) {
  if (unshare(CLONE_NEWNS) != 0) return;  // an ordinary user: the sweep only takes longer
  const std::string process = std::to_string(getpid());
  const std::string only = directory + "/proc";
  std::filesystem::create_directories(only + "/" + process);
  std::filesystem::create_directory_symlink(process, only + "/self");
  const bool is_hidden =
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
      mount(("/proc/" + process).c_str(), (only + "/" + process).c_str(), nullptr, MS_BIND, nullptr) == 0 &&
      mount(only.c_str(), "/proc", nullptr, MS_BIND | MS_REC, nullptr) == 0;
  if (!is_hidden) std::abort();
}

void PrepareTexts(const std::string& directory) {
  HideOtherProcesses(directory);
  base = directory + "/r1";
  for (std::size_t i = 0; i < before + kTexts; ++i) {
    sequence.push_back("record " + std::to_string(100 + i) + (i % 2 == 0 ? " long" : " text"));
  }
  texts.assign(sequence.begin() + static_cast<std::ptrdiff_t>(before), sequence.end());
}

// Writes the files that CReportFileBase makes of the first `count` records of the sequence.
void WriteWithTheStore(const std::string& path, std::size_t count) {
  CReportFileBase store;
  bool is_made = store.Open(path.c_str(), kSlots);
  for (std::size_t i = 0; i < count; ++i) is_made = is_made && store.writeLine(sequence[i].c_str());
  if (!is_made) std::abort();
}

void MakeFullRing(const std::string& directory) {
  before = kInFullRing;
  PrepareTexts(directory);
  WriteWithTheStore(base, before);
}

// Appends like an agent that tries each call twice. The second try begins with the record that the error names, so the
// stored texts are always the first ones.
bool AppendTwice(Writer& writer, std::size_t end) {
  for (int attempt = 0; attempt < 2 && stored < end; ++attempt) {
    const Error error = writer.Append(std::span(texts).subspan(stored, end - stored));
    stored = error.Failed() ? stored + error.record : end;
  }
  return stored == end;
}

void RunWriter(const std::string&) {
  Writer writer;
  if (writer.Open(base, kSlots).Failed() && writer.Open(base, kSlots).Failed()) return;
  for (std::size_t i = 0; i < kSingles; ++i) {
    if (!AppendTwice(writer, i + 1)) return;
  }
  (void)AppendTwice(writer, kTexts);
}

// The newest records of the first `count` of the sequence.
std::vector<std::string> Newest(std::size_t count) {
  const std::size_t first = count > kSlots ? count - kSlots : 0;
  return {sequence.begin() + static_cast<std::ptrdiff_t>(first), sequence.begin() + static_cast<std::ptrdiff_t>(count)};
}

std::vector<std::string> WholeRecords() {
  Reader reader;
  std::vector<std::string> records;
  if (const Error error = reader.Open(base); error.Failed()) return {error.text};
  for (const RecordView& record : reader)
    records.push_back((record.IsWhole() ? "" : "damaged: ") + std::string(record.text));
  return records;
}

// Whether the files have these records, slot by slot and in any order.
bool AreInTheFiles(const std::vector<std::string>& records) {
  CReportFileBase store;
  std::vector<std::string> found(kSlots);
  if (!store.OpenRead(base.c_str())) return false;
  for (unsigned slot = 0; slot < kSlots; ++slot) (void)store.readLine(found[slot], slot);
  return std::all_of(records.begin(), records.end(), [&found](const std::string& record) {
    return std::find(found.begin(), found.end(), record + "\r\n") != found.end();
  });
}

bool AreFilesThoseOfTheStore(const std::string& directory) {
  const std::string other = directory + "/store";
  WriteWithTheStore(other, sequence.size());
  const auto is_equal = [&](const char* ending) {
    return test::ReadFile(base + ending) == test::ReadFile(other + ending);
  };
  return is_equal(".ind") && is_equal(".dat");
}

std::string Joined(const std::vector<std::string>& records) {
  std::string text;
  for (const std::string& record : records) text += "\n  " + record;
  return text;
}

// If writing the header failed and the writer has ended, no reader of a ring that is not full finds the last records.
// They are one part: one record, or the records of the batch before the wrap.
bool IsWithoutLastPart(const std::vector<std::string>& found) {
  if (before != 0 || found.size() >= stored || found != Newest(found.size())) return false;
  return found.size() < kSingles ? stored == found.size() + 1 : found.size() == kSingles && stored <= kSlots;
}

// The next writer appends the missing records. Then the files must be those of an agent without a fault.
Finding AppendTheRest(Writer& writer, std::size_t first, const std::string& directory) {
  if (const Error error = writer.Append(std::span(texts).subspan(first)); error.Failed()) {
    return Broken("the next writer cannot append: " + error.text);
  }
  writer.Close();
  if (!AreFilesThoseOfTheStore(directory)) return Broken("the files are not those of CReportFileBase");
  return Kept();
}

Finding JudgeWriter(const std::string& directory) {
  if (IsTransientOpenFault() && stored != kTexts) return Broken("a fault that passes kept records out");
  if (before != 0 && !AreInTheFiles(Newest(before + stored))) return Broken("an acknowledged record is lost");
  Writer writer;
  if (const Error error = writer.Open(base, kSlots); error.Failed()) return Broken("no next writer: " + error.text);
  const std::vector<std::string> found = WholeRecords();
  const bool is_without_last_part = IsWithoutLastPart(found);
  if (found != Newest(before + stored) && !is_without_last_part) {
    return Broken("records differ:" + Joined(found) + "\nexpected:" + Joined(Newest(before + stored)));
  }
  const Finding rest = AppendTheRest(writer, is_without_last_part ? found.size() : stored, directory);
  if (rest.kind != Finding::Kind::kKept || !is_without_last_part) return rest;
  return Noted("the last part's header failed and its writer ended: no other record is lost");
}

}  // namespace

std::vector<Scenario> WriterScenarios() {
  return {
      {.name = "writer append",
       .promise = "no acknowledged record is lost; with the rest appended, the files are those of the store class",
       .prepare = MakeFullRing,
       .run = RunWriter,
       .finish = nullptr,
       .judge = JudgeWriter},
      {.name = "writer creation",
       .promise = "every acknowledged record is there; with the rest appended, the files are those of the store class",
       .prepare = PrepareTexts,
       .run = RunWriter,
       .finish = nullptr,
       .judge = JudgeWriter},
  };
}

}  // namespace qx::trust
