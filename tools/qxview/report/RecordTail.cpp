#include "tools/qxview/report/RecordTail.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/tools/RecordOverlap.h"

namespace qx::view {

namespace {

using report::IndexHeader;

constexpr std::size_t kPageBytesMax = std::size_t{1} << 20;

// The two files of a report, opened for one page of records.
class OpenStore {
 public:
  explicit OpenStore(const std::string& base_path) {
    errno = 0;
    if (!store_.OpenRead(base_path.c_str())) {
      const int open_error = errno;
      error_ = open_error != 0 ? open_error : EIO;
      return;
    }
    if (header().highestIndex != 0 && !report::HasPlausibleRing(header())) error_ = EBADMSG;
    numbers_ = NumbersOf(header());
  }

  [[nodiscard]] int Error() const { return error_; }
  [[nodiscard]] const RecordNumbers& Numbers() const { return numbers_; }

  // False if the record does not exist any more, or cannot be read.
  [[nodiscard]] bool Read(std::uint64_t number, std::string& text) {
    const auto age = static_cast<std::uint32_t>(number - numbers_.begin);
    bool is_too_long = false;
    text.clear();
    if (!reader_.Read(report::SlotOfAge(header(), age), RecordTail::kRecordBytesMax, &text, &is_too_long)) return false;
    if (is_too_long) text = "(a record of more than 64 KiB)\r\n";
    return true;
  }

  [[nodiscard]] std::uint64_t HashBefore(std::uint64_t number) {
    std::string text;
    const bool has_one = number > numbers_.begin && number <= numbers_.end;
    return has_one && Read(number - 1, text) ? report::RecordHash(text) : 0;
  }

 private:
  [[nodiscard]] const IndexHeader& header() const { return store_.header(); }

  CReportFileBase store_;
  report::RecordReader reader_{store_};
  RecordNumbers numbers_;
  int error_ = 0;
};

// False if the report was started over since the cursor was made, as far as the files show this. If the record before
// the cursor has left the ring, it cannot be compared, and the result is true.
bool Continues(OpenStore& store, const Cursor& cursor) {
  if (cursor.next > store.Numbers().end) return false;
  const bool can_compare = cursor.hash != 0 && cursor.next > store.Numbers().begin;
  return !can_compare || store.HashBefore(cursor.next) == cursor.hash;
}

void ReadRecords(OpenStore& store, std::uint64_t first, RecordPage& page) {
  std::size_t bytes = 0;
  NumberedRecord record;
  for (record.number = first; record.number < store.Numbers().end; ++record.number) {
    if (!store.Read(record.number, record.text)) continue;  // its writer has overwritten it
    bytes += record.text.size();
    page.records.push_back(record);
  }
  // If the texts together are too long, only the newest records are kept.
  std::size_t dropped = 0;
  for (; bytes > kPageBytesMax && dropped + 1 < page.records.size(); ++dropped) {
    bytes -= page.records[dropped].text.size();
  }
  page.records.erase(page.records.begin(), page.records.begin() + static_cast<std::ptrdiff_t>(dropped));
  page.omitted += dropped;
}

}  // namespace

bool RecordTail::HasMoved() {
  struct stat now = {};
  const int error = file::StatusOf(report::IndexFileName(base_path_).c_str(), now);
  if (error != 0) {
    index_ = {};
    return std::exchange(header_, std::nullopt).has_value();
  }
  const bool is_other = !index_.IsOpen() || !file::IsSameFile(status_, now);
  if (is_other) index_ = file::OpenRegular(report::IndexFileName(base_path_).c_str(), O_RDONLY);
  status_ = now;
  IndexHeader header;
  const file::Progress read = file::ReadAt(index_.Number(), 0, &header, sizeof header);
  if (read.bytes != sizeof header) return is_other;
  const bool is_same = !is_other && header_ == header;
  header_ = header;
  return !is_same;
}

RecordPage RecordTail::Read(const std::optional<Cursor>& after, std::uint32_t count_max) {
  RecordPage page;
  OpenStore store(base_path_);
  page.error = store.Error();
  if (page.error != 0) return page;
  const RecordNumbers& numbers = store.Numbers();
  page.is_reset = !after.has_value() || !Continues(store, *after);
  const std::uint64_t wanted = page.is_reset ? numbers.begin : after->next;
  std::uint64_t first = std::max(wanted, numbers.begin);
  page.lost = first - wanted;
  if (numbers.end - first > count_max) {
    page.omitted = numbers.end - first - count_max;
    first = numbers.end - count_max;
  }
  ReadRecords(store, first, page);
  page.cursor = {.next = numbers.end, .hash = store.HashBefore(numbers.end)};
  return page;
}

}  // namespace qx::view
