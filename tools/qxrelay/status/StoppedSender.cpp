#include "tools/qxrelay/status/StoppedSender.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <utility>

#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/status/SenderFlow.h"

namespace qx::relay {

namespace {

constexpr std::size_t kLookUpsAtOnce = 4;

std::int64_t NowMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// Waits until there are replies, at most a tenth of a second, and at most until `end`.
void WaitFor(PublishStream& stream, std::int64_t end) {
  constexpr std::int64_t kWaitMs = 100;
  pollfd waiting = {stream.Descriptor(), POLLIN, 0};
  const std::int64_t time = std::clamp<std::int64_t>(end - NowMs(), 0, kWaitMs);
  (void)poll(&waiting, 1, static_cast<int>(time));  // a failure is a short wait
}

std::optional<MessageHead> HeadOf(const StreamReply& reply, const std::string& report) {
  if (reply.kind != ReplyKind::kNewest) return std::nullopt;
  const DecodedMessage message = DecodeMessage(reply.payload);
  const bool is_ours = message.fault == MessageFault::kNone && message.head.report == report;
  return is_ours ? std::optional(message.head) : std::nullopt;
}

const ReportFlow* FindReport(const std::optional<ServiceFlow>& flow, const std::string& report) {
  if (!flow.has_value()) return nullptr;
  const auto found = std::find_if(flow->reports.begin(), flow->reports.end(),
                                  [&](const ReportFlow& one) { return one.report == report; });
  return found != flow->reports.end() ? &*found : nullptr;
}

}  // namespace

// The token of a look-up is the index of its report in the list plus one, because no token is 0.
std::map<std::string, MessageHead> NewestMessages(PublishStream& stream, const std::string& prefix,
                                                  const std::string& host, const std::vector<std::string>& reports,
                                                  std::int64_t time_ms) {
  std::map<std::string, MessageHead> newest;
  const std::int64_t end = NowMs() + time_ms;
  std::size_t asked = 0;
  std::size_t answered = 0;
  while (answered < reports.size() && NowMs() < end) {
    for (; asked < reports.size() && asked - answered < kLookUpsAtOnce; ++asked) {
      const Subject subject = {.branch = Branch::kReport, .host = host, .report = reports[asked]};
      const std::optional<std::string> text = TextOfSubject(prefix, subject);
      if (!text.has_value() || !stream.LookUp(asked + 1, *text)) ++answered;
    }
    std::vector<StreamReply> replies;
    stream.TakeReplies(replies);
    if (replies.empty()) WaitFor(stream, end);
    for (const StreamReply& reply : replies) {
      if (reply.kind == ReplyKind::kDisconnect) return newest;
      if (reply.token == 0 || reply.token > reports.size()) continue;
      ++answered;
      const std::string& report = reports[reply.token - 1];
      if (const std::optional<MessageHead> head = HeadOf(reply, report)) newest.emplace(report, *head);
    }
  }
  return newest;
}

std::vector<std::string> StoppedSender::Reports() const {
  std::set<std::string> names;
  for (const std::string& name : report::FindReports(directory).names) {
    if (IsSelected(settings, name)) names.insert(name);
  }
  for (const auto& [name, state] : states) names.insert(name);
  return {names.begin(), names.end()};
}

// The position of a report is that of its newest message in the stream, or, without a message, that of the state
// directory.
ServiceFlow StoppedSender::Flow(std::int64_t now, std::int64_t wall_ms) const {
  SenderFlow flow(host, directory);
  std::vector<SentReport> sent;
  for (const std::string& report : Reports()) {
    SentReport one;
    one.report = report;
    const auto message = newest.find(report);
    const auto state = states.find(report);
    if (message != newest.end()) {
      one.is_placed = true;
      one.next = message->second.Next();
      flow.AddCount(report, std::min(now, now - (wall_ms - message->second.sent_ms)), message->second.store_next);
    } else if (state != states.end()) {
      one.is_placed = true;
      one.next = state->second.mark.next;
    } else {
      one.trouble = "no record was sent yet";
    }
    if (const ReportFlow* const before = FindReport(last, report)) {
      one.counters.records = before->records;
      one.counters.gap_records = before->gap_records;
    }
    sent.push_back(one);
  }
  ServiceFlow service;
  service.name = host;
  service.time_ms = wall_ms;
  service.problem = "the sender is not running";
  service.reports = flow.Take(sent, now, wall_ms);
  if (last.has_value()) service.counters = last->counters;
  return service;
}

}  // namespace qx::relay
