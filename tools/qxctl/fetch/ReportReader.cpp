#include "tools/qxctl/fetch/ReportReader.h"
#include "tools/qxctl/cli/FileStatus.h"

#include <algorithm>
#include <iterator>

#include "reportfile/RecordEnds.h"
#include "tools/qxctl/store/MissingReport.h"

namespace qx::ctl {

namespace {

// Cuts the text after the end of each record. The last piece may lack an end.
//   "a\r\nb\xFF" => "a\r\n", "b\xFF"
std::vector<std::string> CutAtEnds(std::string_view text) {
  std::vector<std::string> records;
  while (!text.empty()) {
    const std::string_view record = FirstRecord(text);
    records.emplace_back(record);
    text.remove_prefix(record.size());
  }
  return records;
}

}  // namespace

std::string_view FirstRecord(std::string_view records) {
  const auto end = std::find_if(records.begin(), records.end(), EndsRecord);
  return end == records.end() ? records : records.substr(0, static_cast<std::size_t>(end - records.begin()) + 1);
}

Status ReportReader::Ask(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply) {
  for (int tries = 1;; ++tries) {
    Status status = AskOnce(start_index, record_count, reply);
    const bool may_pass = status.Code() == ExitCode::kIo && reply.kind == ReplyKind::kError;
    if (!may_pass || tries == kTriesMax) return status;
  }
}

// If a report is missing in the middle of a transfer, it existed at its start. The status then says which file could
// not be opened, not that there is no such report.
Status ReportReader::AskOnce(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply) {
  const std::string request = RequestText({report_, start_index, record_count});
  const CallResult call = worker_.Call(RequestFunction::kGetReports, request);
  module_seconds_ += call.seconds;
  reply = ParseReply(call);
  Status status = StatusOfReports(call, reply);
  if (status.Code() != ExitCode::kNotFound) return status;
  if (start_index == 0) return NoSuchReport(report_);
  return StatusOfReportFile(reply.message, reply.last_error.value_or(0));
}

// Each counted record of the reply ends at most one line: there cannot be more line ends than records.
Status ReportReader::Check(std::int32_t start_index, const ReportReply& reply) const {
  const std::int64_t records = std::int64_t{reply.next_index} - reply.start_index;
  const auto line_ends = static_cast<std::int64_t>(report::CountTextEnds(reply.records));  // a reply has no NUL
  const bool is_consistent = reply.start_index == start_index && records > 0 && line_ends <= records;
  if (is_consistent) return {};
  return {ExitCode::kChanged, "the reply to index " + std::to_string(start_index) +
                                  " contradicts itself: the records " + std::to_string(reply.start_index) + " to " +
                                  std::to_string(reply.next_index) + " in " + std::to_string(line_ends) +
                                  " lines; fetch the report again"};
}

Status ReportReader::Split(const ReportReply& reply, std::vector<std::string>& records) {
  return SplitRange(reply.start_index, reply.next_index, reply.records, records);
}

// A record without an end runs into the next one, so there are fewer pieces than records.
Status ReportReader::SplitRange(std::int32_t start, std::int32_t end, std::string_view text,
                                std::vector<std::string>& records) {
  std::vector<std::string> pieces = CutAtEnds(text);
  if (end - start == 1) pieces.assign(1, std::string(text));
  if (pieces.size() == static_cast<std::size_t>(end - start)) {
    records.insert(records.end(), std::make_move_iterator(pieces.begin()), std::make_move_iterator(pieces.end()));
    return {};
  }
  const std::int32_t middle = start + (end - start) / 2;
  ReportReply latter;
  if (Status status = Ask(middle, end - middle, latter); !status.IsOk()) return status;
  if (!text.ends_with(latter.records)) {
    return {ExitCode::kChanged, "report \"" + report_ + "\" changed while it was read; fetch it again"};
  }
  const std::string_view former = text.substr(0, text.size() - latter.records.size());
  if (Status status = SplitRange(start, middle, former, records); !status.IsOk()) return status;
  return SplitRange(middle, end, latter.records, records);
}

}  // namespace qx::ctl
