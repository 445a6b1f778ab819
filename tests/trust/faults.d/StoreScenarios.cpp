// Scenarios for the record store: appending and reading.
#include <algorithm>
#include <memory>
#include <string>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tests/support/Support.h"
#include "tests/trust/faults.d/Scenario.h"

namespace qx::trust {

namespace {

constexpr unsigned kSlots = 8;
constexpr int kBefore = 14;  // the ring is full, and two records later the data file restarts
constexpr int kAppended = 5;

std::string Base(const std::string& directory) { return directory + "/r1"; }
std::string Text(int number) {
  return "record " + std::to_string(100 + number) + (number % 2 == 0 ? " long" : " text");
}

// These texts are made before the faults, because the caller's allocations are not tested.
std::string base;
std::vector<std::string> texts;

void PrepareTexts(const std::string& directory) {
  base = Base(directory);
  for (int i = 0; i < kAppended; ++i) texts.push_back(Text(kBefore + i));
}

bool is_open = false;
bool acknowledged[kAppended];
std::vector<std::string> taken;  // by readLine
std::string taken_at_once;

void MakeStore(const std::string& directory) {
  PrepareTexts(directory);
  taken.reserve(kSlots + 1);
  CReportFileBase store;
  bool is_made = store.Open(Base(directory).c_str(), kSlots);
  for (int i = 0; i < kBefore; ++i) is_made = is_made && store.writeLine(Text(i).c_str());
  if (!is_made) std::abort();
}

void RunAppend(const std::string&) {
  CReportFileBase store;
  is_open = store.Open(base.c_str(), kSlots);
  for (int i = 0; is_open && i < kAppended; ++i)
    acknowledged[i] = store.writeLine(texts[static_cast<std::size_t>(i)].c_str());
}

std::vector<std::string> RecordsOf(const std::string& directory) {
  CReportFileBase store;
  std::vector<std::string> records;
  if (!store.OpenRead(Base(directory).c_str())) return {"cannot be opened"};
  std::string text;
  for (unsigned i = 0; i < store.header().highestIndex; ++i) {
    if (store.readLine(text, report::SlotOfLogical(store.header(), i)))
      records.push_back(text.substr(0, text.find('\r')));
  }
  return records;
}

// The records that must be there: the newest eight of those that were stored.
std::vector<std::string> Expected(int before) {
  std::vector<std::string> records;
  for (int i = 0; i < before; ++i) records.push_back(Text(i));
  for (int i = 0; i < kAppended; ++i) {
    if (acknowledged[i]) records.push_back(Text(kBefore + i));
  }
  if (records.size() > kSlots) records.erase(records.begin(), records.end() - kSlots);
  return records;
}

// The write of the header after the last record has failed, and the writer has ended. The ring is full, so the record
// is in the slot of the oldest one. The old header still names this slot as the oldest, so the newest record is read
// first.
bool IsWithoutLastHeader(const std::vector<std::string>& found) {
  std::vector<std::string> expected = Expected(kBefore);
  std::rotate(expected.begin(), expected.end() - 1, expected.end());
  return found == expected;
}

Finding AppendMore(const std::string& directory) {
  CReportFileBase store;
  if (!store.Open(Base(directory).c_str(), kSlots) || !store.writeLine("the next one")) return Broken("cannot go on");
  store.Close();
  const std::vector<std::string> records = RecordsOf(directory);
  return !records.empty() && records.back() == "the next one" ? Kept() : Broken("the next record is not the newest");
}

std::string Joined(const std::vector<std::string>& records) {
  std::string text;
  for (const std::string& record : records) text += "\n  " + record;
  return text;
}

bool HasAppendedAll() {
  return is_open &&
         std::all_of(std::begin(acknowledged), std::end(acknowledged), [](bool is_stored) { return is_stored; });
}

Finding JudgeAppend(const std::string& directory) {
  if (IsTransientOpenFault() && !HasAppendedAll()) return Broken("a fault that passes kept records out");
  const std::vector<std::string> found = RecordsOf(directory);
  const Finding next = AppendMore(directory);
  if (next.kind != Finding::Kind::kKept) return next;
  if (found == Expected(kBefore)) return Kept();
  if (IsWithoutLastHeader(found))
    return Noted("the last record's header failed and its writer ended: no other record is lost");
  // The last records were written but not counted.
  bool is_any_in_place = false;
  for (const std::string& record : Expected(kBefore)) {
    is_any_in_place = is_any_in_place || std::find(found.begin(), found.end(), record) != found.end();
  }
  const bool holds_all = [&] {
    const std::vector<std::string> expected = Expected(kBefore);
    return std::all_of(expected.begin(), expected.end(), [&](const std::string& record) {
      return std::find(found.begin(), found.end(), record) != found.end();
    });
  }();
  if (holds_all && is_any_in_place) return Kept();
  return Broken("records differ:" + Joined(found) + "\nexpected:" + Joined(Expected(kBefore)));
}

// The first slot and the header are written by one call, so the ring size is never missing.
bool HasHeaderOfZeros(const std::string& directory) {
  const std::string index = test::Exists(Base(directory) + ".ind") ? test::ReadFile(Base(directory) + ".ind") : "";
  return index.starts_with(std::string(24, '\0'));
}

Finding JudgeCreate(const std::string& directory) {
  if (IsTransientOpenFault() && !HasAppendedAll()) return Broken("a fault that passes kept records out");
  if (HasHeaderOfZeros(directory)) return Broken("a header that nobody wrote");
  const std::vector<std::string> found =
      test::Exists(Base(directory) + ".ind") && test::Exists(Base(directory) + ".dat") ? RecordsOf(directory)
                                                                                       : std::vector<std::string>();
  const Finding next = AppendMore(directory);
  if (next.kind != Finding::Kind::kKept) return next;
  if (found == Expected(0)) return Kept();
  std::vector<std::string> without_last = Expected(0);
  if (!without_last.empty()) without_last.pop_back();
  if (found == without_last)
    return Noted("the last record's header failed and its writer ended: no other record is lost");
  return Broken("records differ:" + Joined(found) + "\nexpected:" + Joined(Expected(0)));
}

void RunRead(const std::string&) {
  CReportFileBase store;
  is_open = store.OpenRead(base.c_str());
  if (!is_open) return;
  std::string text;
  for (unsigned slot = 0; slot < kSlots; ++slot) {
    if (store.readLine(text, slot)) taken.push_back(text);
  }
  report::RecordReader reader(store);
  (void)reader.Take(0, {kSlots, std::size_t{1} << 20}, &taken_at_once);
}

// Whether the text is a record of the ring before the faults. Slots 0 to 5 have the records 8 to 13, slots 6 and 7 the
// records 6 and 7.
bool IsTrueRecord(const std::string& text) {
  for (int i = kBefore - static_cast<int>(kSlots); i < kBefore; ++i) {
    if (text == Text(i) + "\r\n") return true;
  }
  return false;
}

Finding JudgeRead(const std::string& directory) {
  const std::vector<std::string> after = RecordsOf(directory);
  if (after != Expected(kBefore)) return Broken("reading changed the store:" + Joined(after));
  if (IsTransientOpenFault() && taken.size() != kSlots) return Broken("a fault that passes hid records");
  for (const std::string& text : taken) {
    if (!IsTrueRecord(text)) return Broken("a record that is not in that slot: " + text);
  }
  return Kept();
}

}  // namespace

std::vector<Scenario> StoreScenarios() {
  return {
      {.name = "store append",
       .promise = "nothing is lost: every record before and every acknowledged one is there; the next writer continues",
       .prepare = MakeStore,
       .run = RunAppend,
       .finish = nullptr,
       .judge = JudgeAppend},
      {.name = "store creation",
       .promise = "every acknowledged record is there, and the next writer continues",
       .prepare = PrepareTexts,
       .run = RunAppend,
       .finish = nullptr,
       .judge = JudgeCreate},
      {.name = "store read",
       .promise = "true records, or a failure that shows; nothing is lost",
       .prepare = MakeStore,
       .run = RunRead,
       .finish = nullptr,
       .judge = JudgeRead},
  };
}

}  // namespace qx::trust
