// Compares reports with the plain model: model_check LENGTH SECONDS
//
// It tries every sequence of up to LENGTH operations, as far as SECONDS allow, on rings of one to three slots.
//
// The result of an operation depends only on the files and on the data that the writer, the reader and the transfer
// keep in memory. A value of the model contains all of these. So sequences that lead to equal values are continued only
// once. For each value that can be reached, files and objects are set to it, and each operation is tried; files and
// objects must then equal the model's new value. Values that were reached are stored as 128-bit hashes.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "debug/Debug.h"
#include "markup/Markup.h"
#include "provider/FileTransferProvider.h"
#include "provider/ReportTransfer.h"
#include "provider/ThreadData.h"
#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tests/provider/ReportRoot.h"
#include "tests/trust/rings.d/TransferModel.h"

__attribute__((init_priority(101))) CDebug Debug;

namespace {

using qx::report::IndexHeader;
using qx::trust::TransferModel;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kChunkBytes = 1U << 20;
constexpr std::int32_t kNoLimit = 0x7FFFFFFF;

enum class Operation {
  kAppendShort,
  kAppendLong,
  kAppendEmpty,
  kWriterReopens,
  kOtherWriterOpens,  // a new object that asks for another ring size
  kReaderReopens,
  kTransferBegins,        // one record
  kTransferBeginsInRace,  // one record, and the writer appends while it is read
  kTransferContinues,     // one record
  kTransferEnds,          // all records that remain
};
constexpr int kOperations = 10;

// A short text, a long one, which overwrites the next record and its marker, or an empty one. Its letter distinguishes
// it from other texts.
std::string TextOf(Operation operation, std::uint32_t number) {
  if (operation == Operation::kAppendEmpty) return "";
  return std::string(operation == Operation::kAppendLong ? 19 : 1, static_cast<char>('a' + number % 26));
}

// A file that is filled and read back through one descriptor, as often as needed.
class HeldFile {
 public:
  explicit HeldFile(const std::string& path) : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (file_ < 0) std::abort();
  }
  ~HeldFile() { close(file_); }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

  void Write(std::string_view bytes) const {
    const auto size = static_cast<ssize_t>(bytes.size());
    if (pwrite(file_, bytes.data(), bytes.size(), 0) != size || ftruncate(file_, size) != 0) std::abort();
  }
  std::string Read() const {
    std::array<char, 4096> bytes;
    const ssize_t size = pread(file_, bytes.data(), bytes.size(), 0);
    if (size < 0 || size == static_cast<ssize_t>(bytes.size())) std::abort();
    return {bytes.data(), static_cast<std::size_t>(size)};
  }

 private:
  int file_;
};

class ReportFiles {
 public:
  explicit ReportFiles(const std::string& directory) : base_(directory + "/r") {}
  const std::string& Base() const { return base_; }
  const HeldFile& Index() const { return index_; }
  const HeldFile& Data() const { return data_; }

 private:
  std::string base_;
  HeldFile index_{base_ + ".ind"};
  HeldFile data_{base_ + ".dat"};
};

// Files and objects that are set to a value of the model.
class System {
 public:
  System(const ReportFiles& files, const TransferModel& model) : files_(files) {
    SetTo(model.writer, writer_, true);
    SetTo(model.reader, reader_, false);
    if (model.called) SetTo(model.transfer, thread_.report_file, false);
    thread_.state_word = model.called ? 1 : 0;
    thread_.oldest_index = model.oldest;
    thread_.highest_index = model.highest;
    thread_.data_file_size = static_cast<std::int64_t>(model.data.size());
    files_.Index().Write(model.index);
    files_.Data().Write(model.data);
  }

  bool Append(const std::string& text) { return writer_.writeLine(text.c_str()); }
  bool WriterReopens() { return writer_.Close() && writer_.Open(base_.c_str(), 0); }
  bool ReaderReopens() { return reader_.Close() && reader_.OpenRead(base_.c_str()); }
  bool OtherWriterOpens(std::uint32_t slots) {
    CReportFileBase other;
    const bool opened = other.Open(base_.c_str(), slots);
    SetTo(other.header(), writer_, true, files_.Index().Read());
    return opened;
  }

  // The reply document of one call.
  std::string Call(std::int32_t start, std::int32_t limit, const std::string* between) {
    CMarkup in(("<ReportData Name=\"r\" StartIndex=\"" + std::to_string(start) +
                (limit == kNoLimit ? "" : "\" NrRecords=\"" + std::to_string(limit)) + "\"/>")
                   .c_str());
    (void)in.FindElem();
    CMarkup out;
    std::pair context{this, between};
    qx::provider::TransferOptions options;
    options.context = &context;
    if (between != nullptr) {
      options.first_record_read = [](void* at) {
        auto* pair = static_cast<decltype(context)*>(at);
        (void)pair->first->Append(*pair->second);
      };
    }
    (void)qx::provider::ReportTransfer(provider_, thread_, out, options).Run(in);
    ++thread_.state_word;
    return out.GetDoc();
  }

  bool IsAt(const TransferModel& model) {
    return files_.Index().Read() == model.index && files_.Data().Read() == model.data &&
           writer_.header() == model.writer && reader_.header() == model.reader &&
           (thread_.state_word != 0) == model.called &&
           (!model.called || thread_.report_file.header() == model.transfer) && thread_.oldest_index == model.oldest &&
           thread_.highest_index == model.highest;
  }

  // Whether the reader gets the texts of the model from each slot, one by one and in runs, and whole records of the
  // ring.
  bool ReadsAs(const TransferModel& model) {
    std::string all;
    for (std::uint32_t slot = 0; slot < model.reader.highestIndex; ++slot) {
      std::string text;
      if (!reader_.readLine(text, slot) || text != model.Read(slot)) return false;
      all += text;
    }
    std::string unread = "as it was";
    if (reader_.readLine(unread, model.reader.highestIndex) || unread != "as it was") return false;
    std::string runs;
    const auto taken = qx::report::RecordReader(reader_).Take(0, {model.reader.highestIndex, kChunkBytes}, &runs);
    return taken.count == model.reader.highestIndex && runs == all && HasRecordsOf(model);
  }

 private:
  // Whether the newest records are there, oldest first, except those that a longer record has overwritten.
  bool HasRecordsOf(const TransferModel& model) {
    CReportFileBase fresh;
    if (!fresh.OpenRead(base_.c_str()) || fresh.header().highestIndex != model.ring.size()) return false;
    for (std::uint32_t i = 0; i < model.ring.size(); ++i) {
      std::string text;
      if (!fresh.readLine(text, qx::report::SlotOfLogical(fresh.header(), i))) return false;
      if (model.OfAge(i).intact && text != model.OfAge(i).line) return false;
    }
    return true;
  }

  // An object reads its header from the file when it opens, so the file gets that header for a moment.
  void SetTo(const IndexHeader& header, CReportFileBase& store, bool writes, const std::string& index_afterwards = "") {
    files_.Index().Write(TransferModel::Bytes(&header, sizeof header));
    if (!(writes ? store.Open(base_.c_str(), 1) : store.OpenRead(base_.c_str()))) std::abort();
    files_.Index().Write(index_afterwards);
  }

  const ReportFiles& files_;
  const std::string& base_ = files_.Base();
  CReportFileBase writer_;
  CReportFileBase reader_;
  CThreadData thread_;
  CFileTransferProvider provider_;
};

std::string ReplyOf(const std::string& records, std::int32_t start, std::int32_t next) {
  if (records.empty()) return "<Error Msg=\"No more records available (no error)\"/>\n";
  return "<ReportData Name=\"r\" StartIndex=\"" + std::to_string(start) + "\" NextIndex=\"" + std::to_string(next) +
         "\"><![CDATA[" + records + "]]></ReportData>\n";
}

bool CallsAgree(System& system, TransferModel& model, std::int32_t start, std::int32_t limit, bool in_race) {
  const std::string text = TextOf(Operation::kAppendShort, model.writer.elementCount);
  const std::string records = model.Call(start, limit, [&] {
    if (in_race) model.Append(text);
  });
  return system.Call(start, limit, in_race ? &text : nullptr) == ReplyOf(records, start, model.next);
}

// Runs the operation on the system and on the model. False if their results differ.
bool Run(Operation operation, System& system, TransferModel& model) {
  const std::string text = TextOf(operation, model.writer.elementCount);
  switch (operation) {
    case Operation::kAppendShort:
    case Operation::kAppendLong:
    case Operation::kAppendEmpty:
      model.Append(text);
      return system.Append(text);
    case Operation::kWriterReopens:
      model.writer = model.ReadHeader(model.writer);
      return system.WriterReopens();
    case Operation::kOtherWriterOpens:
      model.writer = model.ReadHeader();
      return system.OtherWriterOpens(model.writer.maxRecord + 1);
    case Operation::kReaderReopens:
      model.reader = model.ReadHeader();
      return system.ReaderReopens();
    case Operation::kTransferBegins:
      return CallsAgree(system, model, 0, 1, false);
    case Operation::kTransferBeginsInRace:
      return CallsAgree(system, model, 0, 1, true);
    case Operation::kTransferContinues:
      return CallsAgree(system, model, model.next, 1, false);
    default:
      return CallsAgree(system, model, model.next, kNoLimit, false);
  }
}

using Key = std::array<std::uint64_t, 2>;
struct KeyHash {
  std::size_t operator()(const Key& key) const { return key[0]; }
};

Key KeyOf(const TransferModel& model) {
  std::string bytes = model.index + '|' + model.data + '|';
  for (const TransferModel::Kept& kept : model.ring) {
    bytes.append(kept.line).append(TransferModel::Bytes(&kept.at, 4)) += kept.intact ? '+' : '-';
  }
  for (const IndexHeader& header : {model.writer, model.reader, model.transfer}) {
    bytes += TransferModel::Bytes(&header, sizeof header);
  }
  bytes.append(TransferModel::Bytes(&model.oldest, 8)).append(TransferModel::Bytes(&model.highest, 8));
  bytes += TransferModel::Bytes(&model.next, 4);
  bytes += model.called ? '+' : '-';
  return {std::hash<std::string>()(bytes), std::hash<std::string>()(bytes + "once more")};
}

// Finds the values that can be reached from new stores, with one more operation in each step.
class Search {
 public:
  explicit Search(const std::string& directory) : files_(directory) {
    for (std::uint32_t slots = 1; slots <= 3; ++slots) {
      TransferModel model;
      model.writer.maxRecord = slots;
      reached_.insert(KeyOf(model));
      frontier_.push_back(model);
    }
  }

  // Tries each operation on each model of the frontier. The new models become the next frontier, except after the last
  // step.
  void AdvanceFrontier(bool is_last) {
    std::vector<TransferModel> next;
    for (const TransferModel& from : frontier_) {
      for (int i = 0; i < kOperations; ++i) {
        TransferModel model = from;
        if (!Try(static_cast<Operation>(i), model)) Report(from, i);
        if (reached_.insert(KeyOf(model)).second && !is_last) next.push_back(std::move(model));
      }
    }
    frontier_ = std::move(next);
  }

  std::size_t States() const { return reached_.size(); }
  std::size_t Steps() const { return steps_; }
  std::size_t Wrong() const { return wrong_; }

 private:
  bool Try(Operation operation, TransferModel& model) {
    ++steps_;
    System system(files_, model);
    return Run(operation, system, model) && system.IsAt(model) && system.ReadsAs(model);
  }

  void Report(const TransferModel& from, int operation) {
    if (++wrong_ > 5) return;
    std::fprintf(stderr, "model_check: operation %d on a ring of %u slots, %u records written: not as the model\n",
                 operation, from.writer.maxRecord, from.writer.elementCount);
  }

  ReportFiles files_;
  std::vector<TransferModel> frontier_;
  std::unordered_set<Key, KeyHash> reached_;
  std::size_t steps_ = 0;
  std::size_t wrong_ = 0;
};

int Check(int length, double seconds) {
  const auto start = Clock::now();
  const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  const qx::test::TempDir directory;
  const qx::test::ReportRoot root(directory.Path());
  Search search(directory.Path());
  int reached = 0;
  for (double last = 0, growth = 1; reached < length && elapsed() + last * growth < seconds; ++reached) {
    const double before = elapsed();
    search.AdvanceFrontier(reached + 1 == length);
    growth = last > 0.01 ? (elapsed() - before) / last : 8;
    last = elapsed() - before;
    std::fprintf(stderr, "model_check: length %d, %zu states, %.1f s\n", reached + 1, search.States(), elapsed());
  }
  std::printf(
      "| all sequences of %d operations (appends, reopened stores, transfer calls) up to length %d on rings of 1 "
      "to 3 slots: %zu steps from %zu states, each against a plain model | %zu disagreements | none |\n",
      kOperations, reached, search.Steps(), search.States(), search.Wrong());
  return search.Wrong() == 0 && reached > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  return Check(std::atoi(argv[1]), std::atof(argv[2]));
}
