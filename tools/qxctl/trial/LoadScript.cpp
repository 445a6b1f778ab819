#include "tools/qxctl/trial/LoadScript.h"

#include <charconv>
#include <cstdio>
#include <functional>
#include <string_view>

#include "tools/qxctl/module/InstanceNames.h"
#include "tools/qxctl/module/ReportDocuments.h"
#include "tools/qxctl/store/MissingReport.h"

namespace qx::ctl {

namespace {

constexpr char kStartAttribute[] = " StartIndex=\"";
constexpr char kNextAttribute[] = "\" NextIndex=\"";
constexpr char kReportTail[] = "]]></ReportData>\n";
constexpr char kNoMoreRecords[] = "<Error Msg=\"No more records available (no error)\"/>\n";
constexpr int kResultNoMoreRecords = 1;

ExpectedReplies::Print PrintOf(const std::string& reply) {
  return {reply.size(), std::hash<std::string_view>()(reply)};
}

// "GetReports: result 12, reply <Error Msg=...": the failure with the reply that came instead, for the operator.
std::string FailureText(RequestFunction function, const CallResult& call, const std::string& why) {
  constexpr std::size_t kReplyCharsMax = 120;
  std::string text = std::string(NameOf(function)) + ": " + why + "; result " + std::to_string(call.result);
  if (!call.reply.has_value()) return text + ", no reply";
  text += ", reply " + call.reply->substr(0, kReplyCharsMax);
  if (call.reply->size() > kReplyCharsMax) text += "...";
  while (text.ends_with('\n')) text.pop_back();
  return text;
}

std::string RequestAt(const LoadPlan& plan, std::int32_t start) {
  return RequestText({.name = plan.report, .start_index = start, .record_count = plan.records_a_call});
}

bool Includes(const LoadPlan& plan, RequestFunction function) {
  for (const RequestFunction asked : plan.mix) {
    if (asked == function) return true;
  }
  return false;
}

// Makes one transfer from beginning to end; if nothing is compared byte for byte, only its first call.
Status AskForRecords(WorkerThread& worker, const LoadPlan& plan, ExpectedReplies& expected) {
  for (std::int32_t start = 0;;) {
    const CallResult call = worker.Call(RequestFunction::kGetReports, RequestAt(plan, start));
    const ReportReply reply = ParseReply(call);
    Status status = StatusOfReports(call, reply);
    if (status.Code() == ExitCode::kNotFound && start == 0) return NoSuchReport(plan.report);
    if (!status.IsOk()) return status;
    if (start == 0) expected.report_is_empty = IsEndOfReport(call);
    if (IsEndOfReport(call)) return {};
    if (start == 0) expected.report_head = call.reply->substr(0, call.reply->find(kStartAttribute));
    if (!plan.exact) return {};
    expected.transfers[start] = PrintOf(*call.reply);
    if (reply.next_index <= start) return {ExitCode::kIo, "the module's transfer makes no progress"};
    start = reply.next_index;
  }
}

}  // namespace

Status AskForExpected(const ModuleHost& module, const LoadPlan& plan, ExpectedReplies& expected) {
  WorkerThread worker(module, plan.block);
  if (Includes(plan, RequestFunction::kWhat)) {
    const CallResult call = worker.Call(RequestFunction::kWhat, "");
    if (call.result != 0 || !call.reply.has_value())
      return {ExitCode::kRefused, "the module's reply to What does not name the module"};
    expected.what = *call.reply;
  }
  if (Includes(plan, RequestFunction::kGetReportInstanceNames)) {
    expected.names = worker.Call(RequestFunction::kGetReportInstanceNames, NamesRequestText(plan.report));
    std::vector<Instance> ignored;
    Status status = InstancesOf(expected.names, ignored);
    if (!status.IsOk() && status.Code() != ExitCode::kNotFound)
      return status;  // for a missing report there is a reply, too
  }
  return Includes(plan, RequestFunction::kGetReports) ? AskForRecords(worker, plan, expected) : Status();
}

LoadScript::LoadScript(const LoadPlan& plan, const ExpectedReplies& expected, unsigned thread)
    : plan_(plan), expected_(expected), thread_(thread), step_(thread) {}

std::string LoadScript::Step(WorkerThread& worker, double& seconds) {
  const RequestFunction function = plan_.mix[step_++ % plan_.mix.size()];
  switch (function) {
    case RequestFunction::kWhat:
      return StepWhat(worker, seconds);
    case RequestFunction::kReflect:
      return StepReflect(worker, seconds);
    case RequestFunction::kGetReports:
      return StepReports(worker, seconds);
    case RequestFunction::kGetReportInstanceNames:
      return StepNames(worker, seconds);
  }
  return "";
}

std::string LoadScript::StepWhat(WorkerThread& worker, double& seconds) {
  const CallResult call = worker.Call(RequestFunction::kWhat, "");
  seconds = call.seconds;
  if (call.result == 0 && call.reply == expected_.what) return "";
  return FailureText(RequestFunction::kWhat, call, "another reply than the first time");
}

// The document contains the thread and the number of the request, so that a reply of another call is found.
std::string LoadScript::StepReflect(WorkerThread& worker, double& seconds) {
  char document[128];
  std::snprintf(document, sizeof document, "<Load Thread=\"%u\" Request=\"%llu\"><Text>a &amp; b</Text></Load>\n",
                thread_, static_cast<unsigned long long>(step_));
  const CallResult call = worker.Call(RequestFunction::kReflect, document);
  seconds = call.seconds;
  if (call.result == 0 && call.reply == document) return "";
  return FailureText(RequestFunction::kReflect, call, "not the document that was sent");
}

std::string LoadScript::StepNames(WorkerThread& worker, double& seconds) {
  const CallResult call = worker.Call(RequestFunction::kGetReportInstanceNames, NamesRequestText(plan_.report));
  seconds = call.seconds;
  if (call.result == expected_.names.result && call.reply == expected_.names.reply) return "";
  return FailureText(RequestFunction::kGetReportInstanceNames, call, "another reply than the first time");
}

std::string LoadScript::StepReports(WorkerThread& worker, double& seconds) {
  const CallResult call = worker.Call(RequestFunction::kGetReports, RequestAt(plan_, next_index_));
  seconds = call.seconds;
  std::string wrong = call.result == kResultNoMoreRecords ? CheckEnd(call) : CheckRecords(call);
  if (!wrong.empty()) next_index_ = 0;  // the next one starts a new transfer
  return wrong;
}

// Checks the reply to the last request of a transfer; the next request starts another transfer.
std::string LoadScript::CheckEnd(const CallResult& call) {
  const bool may_end = next_index_ > 0 || expected_.report_is_empty;
  const bool is_where_the_first_ended = !plan_.exact || !expected_.transfers.contains(next_index_);
  next_index_ = 0;
  if (may_end && is_where_the_first_ended && call.reply == kNoMoreRecords) return "";
  return FailureText(RequestFunction::kGetReports, call, "no end of the report");
}

std::string LoadScript::CheckRecords(const CallResult& call) {
  const auto failure = [&](const char* why) { return FailureText(RequestFunction::kGetReports, call, why); };
  if (call.result != 0 || !call.reply.has_value()) return failure("no records");
  const std::string& reply = *call.reply;
  const std::string head = expected_.report_head + kStartAttribute + std::to_string(next_index_) + kNextAttribute;
  if (expected_.report_is_empty || !reply.starts_with(head) || !reply.ends_with(kReportTail)) {
    return failure("not the requested records");
  }
  if (plan_.exact) {
    const auto expected = expected_.transfers.find(next_index_);
    const bool is_equal = expected != expected_.transfers.end() && expected->second == PrintOf(reply);
    if (!is_equal) return failure("not the bytes of the first transfer");
  }
  std::int32_t next = 0;
  (void)std::from_chars(reply.data() + head.size(), reply.data() + reply.size(), next);  // 0 fails just below
  if (next <= next_index_) return failure("a transfer without progress");
  next_index_ = next;
  return "";
}

}  // namespace qx::ctl
