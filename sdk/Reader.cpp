#include "sdk/Reader.h"

#include <algorithm>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "reportfile/tools/ReportFollower.h"
#include "sdk/Cursor.h"
#include "sdk/Errors.h"
#include "sdk/StoreSnapshot.h"

namespace qx {

namespace {

using report::PollEvent;
using report::ReportPoll;
using sdk::MakeError;
using sdk::StoreSnapshot;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::uint32_t kWindowRecords = 4096;
constexpr milliseconds kPauseMax{20};

// The form of a record for the follower's comparisons: one digit for the state, then the text. Without the state, an
// overwritten record could be equal to a whole record with the same text.
std::string Encoded(const RecordView& record) {
  std::string text;
  text.reserve(1 + record.text.size());
  text.push_back(static_cast<char>('0' + static_cast<int>(record.state)));
  return text.append(record.text);
}

Record Decoded(std::string&& text) {
  const auto state = static_cast<RecordState>(text.front() - '0');
  text.erase(0, 1);
  return {.text = std::move(text), .state = state};
}

ReadEvent EventOf(PollEvent event) {
  switch (event) {
    case PollEvent::kNone:
      break;
    case PollEvent::kGap:
      return ReadEvent::kGap;
    case PollEvent::kAmbiguous:
      return ReadEvent::kAmbiguous;
    case PollEvent::kStartedOver:
      return ReadEvent::kStartedOver;
  }
  return ReadEvent::kNone;
}

// Reads the files of a report for the follower.
class FileSource : public report::RecordSource {
 public:
  explicit FileSource(const std::string& path) : snapshot_(path) {}

  bool Refresh() override {
    error_ = snapshot_.Take();
    return !error_.Failed();
  }

  bool Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) override {
    if (start == 0 && !Refresh()) return false;
    std::span<const RecordView> read;
    error_ = snapshot_.Read(start, count_max, read);
    if (error_.Failed()) return false;
    for (const RecordView& record : read) records.push_back(Encoded(record));
    return true;
  }

  [[nodiscard]] bool HasMoved() const { return snapshot_.HasMoved(); }
  [[nodiscard]] const Error& LastError() const { return error_; }

 private:
  StoreSnapshot snapshot_;
  Error error_;
};

}  // namespace

struct Reader::Parts {
  Parts(const std::string& path, report::ReportPosition position)
      : snapshot(path), source(path), follower(source, std::move(position)) {}

  Error error;

  StoreSnapshot snapshot;

  FileSource source;
  report::ReportFollower follower;
  ReportPoll poll;           // the records that Next has read ...
  std::size_t returned = 0;  // ... and the number of them that it has returned
  bool has_reached_end = false;
  ReadEvent event = ReadEvent::kNone;  // of the next record
  std::optional<std::uint64_t> lost;

  [[nodiscard]] Error PollUntil(steady_clock::time_point end);
  [[nodiscard]] bool Poll();
  [[nodiscard]] bool HasRecord() const { return returned < poll.records.size(); }
  [[nodiscard]] Record TakeNext();
};

// Polls until there are new records, or `end` is reached.
Error Reader::Parts::PollUntil(steady_clock::time_point end) {
  for (milliseconds pause{1};; pause = std::min(2 * pause, kPauseMax)) {
    if (!has_reached_end || source.HasMoved()) {
      if (!Poll()) return source.LastError();
      if (HasRecord()) return {};
    }
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    if (left <= milliseconds(0)) return {};
    std::this_thread::sleep_for(std::min(pause, left));
  }
}

// Called when all records of the last poll have been returned. An event of a poll without records is reported with the
// next record.
bool Reader::Parts::Poll() {
  follower.Delivered(returned);
  poll = {};
  returned = 0;
  if (!follower.Poll(kWindowRecords, poll)) return false;
  has_reached_end = poll.reached_end;
  if (poll.event == PollEvent::kNone) return true;
  event = EventOf(poll.event);
  lost = poll.lost;
  return true;
}

Record Reader::Parts::TakeNext() {
  Record record = Decoded(std::move(poll.records[returned++]));
  record.event = std::exchange(event, ReadEvent::kNone);
  record.lost = std::exchange(lost, std::nullopt);
  return record;
}

Reader::Reader() = default;
Reader::~Reader() = default;

Error Reader::Open(const std::string& path) { return Open(path, std::string_view()); }

Error Reader::Open(const std::string& path, std::string_view cursor) {
  Close();
  return sdk::WithoutExceptions([&]() -> Error {
    if (path.empty() || path.find('\0') != std::string::npos) {
      return MakeError(ErrorCode::kBadArgument, "the path of a report is empty or contains a NUL");
    }
    const auto position = cursor.empty() ? report::ReportPosition() : sdk::CursorOfText(cursor);
    if (!position.has_value()) return MakeError(ErrorCode::kBadArgument, "the text is not the cursor of a report");
    auto parts = std::make_unique<Parts>(path, *position);
    Error error = TakeSnapshot(*parts);
    if (!error.Failed()) parts_ = std::move(parts);
    return error;
  });
}

Error Reader::Refresh() {
  return sdk::WithoutExceptions([&]() -> Error {
    if (parts_ == nullptr) return MakeError(ErrorCode::kNotOpen, "no report is open");
    return TakeSnapshot(*parts_);
  });
}

std::uint32_t Reader::Count() const { return parts_ != nullptr ? parts_->snapshot.Count() : 0; }

Error Reader::Read(std::uint32_t age, Record& record) {
  return sdk::WithoutExceptions([&]() -> Error {
    if (parts_ == nullptr) return MakeError(ErrorCode::kNotOpen, "no report is open");
    if (age >= Count()) {
      return MakeError(ErrorCode::kBadArgument, "there is no record of age " + std::to_string(age) + ", only " +
                                                    std::to_string(Count()) + " records");
    }
    const RecordView* const found = RecordAt(age);
    if (found == nullptr) return parts_->error;
    record = {.text = std::string(found->text), .state = found->state};
    return {};
  });
}

Error Reader::TakeSnapshot(Parts& parts) {
  window_ = {};
  return parts.snapshot.Take();
}

const RecordView* Reader::ReadWindowAt(std::uint32_t age) {
  window_ = {};
  if (parts_ == nullptr) return nullptr;
  std::span<const RecordView> read;
  parts_->error = sdk::WithoutExceptions([&] { return parts_->snapshot.Read(age, kWindowRecords, read); });
  if (read.empty()) return nullptr;
  window_ = {.records = read.data(), .age = age, .count = static_cast<std::uint32_t>(read.size())};
  return read.data();
}

Reader::Iterator Reader::begin() { return begin(0); }

Reader::Iterator Reader::begin(std::uint32_t age) {
  window_ = {};  // each loop reads the files again
  return {this, age};
}

Reader::Iterator Reader::end() { return {}; }

std::optional<Record> Reader::Next(milliseconds timeout) {
  if (parts_ == nullptr) return std::nullopt;
  std::optional<Record> record;
  parts_->error = sdk::WithoutExceptions([&]() -> Error {
    if (!parts_->HasRecord()) {
      if (Error error = parts_->PollUntil(steady_clock::now() + timeout); error.Failed()) return error;
    }
    if (parts_->HasRecord()) record = parts_->TakeNext();
    return {};
  });
  return record;
}

std::string Reader::Cursor() const {
  if (parts_ == nullptr) return {};
  return sdk::TextOfCursor(parts_->follower.PositionAfter(parts_->returned));
}

const Error& Reader::LastError() const {
  static const Error kNotOpened = {.code = ErrorCode::kNotOpen, .text = "no report is open"};
  if (parts_ == nullptr) return kNotOpened;
  return parts_->error;
}

void Reader::Close() {
  parts_.reset();
  window_ = {};
}

}  // namespace qx
