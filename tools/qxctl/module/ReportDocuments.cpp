#include "tools/qxctl/module/ReportDocuments.h"
#include "tools/qxctl/cli/FileStatus.h"

#include <cerrno>
#include <charconv>
#include <cstring>

#include "markup/Markup.h"

namespace qx::ctl {

namespace {

constexpr int kResultNoMoreRecords = 1;
constexpr int kResultRefusedOrNotFound = 12;

std::optional<std::int32_t> Number(const std::string& text) {
  std::int32_t number = 0;
  const char* const end = text.data() + text.size();
  const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
  if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return number;
}

ReportReply RecordsOf(const CMarkup& document) {
  ReportReply reply;
  reply.kind = ReplyKind::kRecords;
  reply.start_index = Number(document.GetAttrib("StartIndex")).value_or(-1);
  reply.next_index = Number(document.GetAttrib("NextIndex")).value_or(-1);
  reply.records = document.GetData();
  return reply;
}

ReportReply ErrorOf(const CMarkup& document) {
  ReportReply reply;
  reply.kind = ReplyKind::kError;
  reply.message = document.GetAttrib("Msg");
  reply.last_error = Number(document.GetAttrib("LastError"));
  return reply;
}

Status StatusOfFailedOpen(const ReportReply& reply) {
  const int error = reply.last_error.value_or(0);
  if (error == ENOENT) {
    return {ExitCode::kNotFound, reply.message +
                                     ": no such report in the report directory (ReportRoot or FileRoot of " +
                                     "the registry, else \"Reports\" in the working directory)"};
  }
  return StatusOfReportFile(reply.message, error);
}

}  // namespace

std::string RequestText(const ReportRequest& request) {
  CMarkup document;
  const bool is_made = document.AddElem("ReportData") && document.SetAttrib("Name", request.name.c_str()) &&
                       document.SetAttrib("StartIndex", request.start_index) &&
                       (!request.record_count || document.SetAttrib("NrRecords", *request.record_count));
  return is_made ? document.GetDoc() : std::string();
}

ReportReply ParseReply(const CallResult& call) {
  CMarkup document;
  if (!call.reply.has_value() || !document.SetDoc(*call.reply) || !document.FindElem("")) return {};
  const std::string tag = document.GetTagName();
  if (tag == "ReportData") return RecordsOf(document);
  if (tag == "Error") return ErrorOf(document);
  return {};
}

bool IsEndOfReport(const CallResult& call) { return call.result == kResultNoMoreRecords; }

Status StatusOfReports(const CallResult& call, const ReportReply& reply) {
  if (IsEndOfReport(call)) return {};
  if (call.result == 0 && reply.kind == ReplyKind::kRecords) return {};
  if (call.result == 0 && !call.reply.has_value()) {
    // The module has read the records, but after the refusal they would be the second root of the document, and the
    // module sends no such document.
    return {ExitCode::kRefused, "the module refuses: the caller lacks the privilege \"AccessPerformanceMgr\""};
  }
  if (call.result == kResultRefusedOrNotFound) return StatusOfFailedOpen(reply);
  if (call.result == 0) return {ExitCode::kIo, "the module's reply is neither records nor an error"};
  return {ExitCode::kRefused, "the module refuses with result " + std::to_string(call.result) +
                                  (reply.message.empty() ? "" : ": " + reply.message)};
}

}  // namespace qx::ctl
