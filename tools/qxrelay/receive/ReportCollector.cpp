#include "tools/qxrelay/receive/ReportCollector.h"

#include <algorithm>
#include <utility>

#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxrelay/message/Subject.h"

namespace qx::relay {

namespace {

constexpr TimeMs kBusyMs = 500;         // between two tries of a report that another program writes
constexpr TimeMs kPatienceMs = 20'000;  // then the report is left alone
constexpr TimeMs kLeftAloneMs = 5000;   // between two tries of a report that cannot be written

// "1 record is lost", "2 records are lost"
std::string LostText(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " record is lost" : " records are lost");
}

}  // namespace

ReportCollector::ReportCollector(ReceiveContext& context, HostLoad& load, std::string host, std::string report)
    : context_(context),
      load_(load),
      host_(std::move(host)),
      report_(std::move(report)),
      files_(context.root.PathOf(host_, report_)) {
  seen_.host = host_;
  seen_.report = report_;
}

// The texts point into the memory of the payload. This memory does not move with the string object, because a message
// is too long for the buffer inside the object.
void ReportCollector::Add(StreamMessage message, DecodedMessage decoded) {
  if (const auto found = queue_.find(message.sequence); found != queue_.end()) {
    found->second.receipt = std::move(message.receipt);
    return;
  }
  Queued& queued = queue_[message.sequence];
  queued.payload = std::move(message.payload);
  queued.receipt = std::move(message.receipt);
  queued.before = message.before;
  queued.head = std::move(decoded.head);
  queued.texts = std::move(decoded.texts);
  context_.queued_bytes += queued.Bytes();
  load_.queued_bytes += queued.Bytes();
  seen_.store_next =
      std::max(queued.head.store_next, queued.head.incarnation == seen_.incarnation ? seen_.store_next : 0);
  seen_.ring_slots = queued.head.ring_slots;
  seen_.sent_ms = std::max(seen_.sent_ms, queued.head.sent_ms);
}

void ReportCollector::Work(TimeMs now) {
  const bool is_busy = busy_since_.has_value() && now < retry_at_;
  if (!is_busy) WorkOnQueue(now);
  TrimQueue();
}

void ReportCollector::WorkOnQueue(TimeMs now) {
  holes_.BeginPass();
  for (bool is_again = true; is_again;) {
    is_again = false;
    bool has_waiting = false;
    for (auto at = queue_.begin(); at != queue_.end();) {
      const Outcome outcome = Handle(now, at->first, at->second);
      if (outcome == Outcome::kStop) return;
      if (outcome == Outcome::kWait) {
        has_waiting = true;
        ++at;
        continue;
      }
      Done(at->first, at->second);
      at = queue_.erase(at);
      is_again = has_waiting;
    }
    if (!has_waiting) holes_.EndHole();
    if (state_ == CollectedState::kWaits && !has_waiting) state_ = CollectedState::kFollows;
    if (has_waiting && state_ == CollectedState::kFollows) state_ = CollectedState::kWaits;
  }
}

// Drops the newest messages until the queue is small enough. They are not acknowledged, so they come again.
void ReportCollector::TrimQueue() {
  const auto is_over = [&] {
    return context_.queued_bytes > context_.queue_bytes_max || load_.queued_bytes > context_.host_queue_bytes_max;
  };
  while (!queue_.empty() && is_over()) {
    Forget(queue_.rbegin()->second);
    queue_.erase(std::prev(queue_.end()));
  }
}

void ReportCollector::Forget(const Queued& message) {
  context_.queued_bytes -= message.Bytes();
  load_.queued_bytes -= message.Bytes();
}

ReportCollector::Outcome ReportCollector::Handle(TimeMs now, std::uint64_t sequence, Queued& message) {
  if (state_ == CollectedState::kLeftAlone && now < retry_at_) return Skip(message);
  if (const CollectorFault fault = files_.IsOpen() ? ContinueFiles() : OpenFiles(); fault.Failed()) {
    return Failed(now, fault, message);
  }
  if (is_base_unsynced_) return Outcome::kStop;
  ReportPosition position = {.is_known = files_.Fit() == BaseFit::kFits || files_.Fit() == BaseFit::kShrunk,
                             .incarnation = files_.Base().incarnation,
                             .next = files_.Next(),
                             .sequence = files_.Base().stream == static_cast<std::uint64_t>(context_.state.created)
                                             ? files_.Base().sequence
                                             : 0};
  needs_base_ = files_.Fit() == BaseFit::kShrunk;
  if (files_.Fit() == BaseFit::kContradicted ||
      (!position.is_known && !files_.IsEmpty() && !Adopt(message, position))) {
    return Contradicted(now, message,
                        "its newest record does not come from this host: remove the report, or move it away");
  }
  const IncomingMessage incoming = {
      .head = message.head, .texts = message.texts, .sequence = sequence, .is_next = IsNext(sequence, message)};
  const Decision decision = Decide(position, incoming, [this](std::uint64_t number) { return files_.HashOf(number); });
  if (decision.verdict == Verdict::kWait) return Outcome::kWait;
  if (decision.missing > 0 && MayBeElsewhere(message)) return Outcome::kWait;
  if (decision.verdict == Verdict::kContradicted) {
    return Contradicted(now, message,
                        "its newest record is not the one that the host has sent: another program has changed it; "
                        "remove the report, or move it away");
  }
  return Take(now, sequence, message, decision);
}

// Finds the position of files that have no base: their newest record must be in the message, or be the one directly
// before it.
bool ReportCollector::Adopt(const Queued& message, ReportPosition& position) {
  const std::uint64_t newest = files_.NewestHash();
  std::uint64_t next = message.head.first;
  bool is_found = newest != 0 && newest == message.head.hash_before;
  for (std::size_t i = 0; newest != 0 && i < message.texts.size() && !is_found; ++i) {
    is_found = report::RecordHash(message.texts[i]) == newest;
    next = message.head.first + i + 1;
  }
  if (!is_found) return false;
  position = {.is_known = true, .incarnation = message.head.incarnation, .next = next, .sequence = 0};
  needs_base_ = true;
  return true;
}

ReportCollector::Outcome ReportCollector::Take(TimeMs now, std::uint64_t sequence, Queued& message,
                                               const Decision& decision) {
  if (decision.NeedsBase() || needs_base_) {
    ReportBase base = files_.Base();
    if (decision.begins || files_.Fit() == BaseFit::kNone) {
      base.incarnation = message.head.incarnation;
      base.sequence = sequence;
      base.stream = static_cast<std::uint64_t>(context_.state.created);
    }
    base.next = decision.next;
    base.lost += decision.missing + decision.gap;
    if (const CollectorFault fault = files_.WriteBase(base); fault.Failed()) return Failed(now, fault, message);
    is_base_unsynced_ = true;
    context_.needs_base_sync = true;
    seen_.counters.gap_records += decision.missing + decision.gap;
    seen_.counters.missing += decision.missing;
    if (decision.missing > 0) {
      context_.log("report " + host_ + "/" + report_ + ": " + LostText(decision.missing) + " from number " +
                   std::to_string(message.head.first - decision.missing) +
                   " on: neither the stream nor the report has them");
    }
    if (decision.gap > 0) {
      context_.log("report " + host_ + "/" + report_ + ": " + LostText(decision.gap) +
                   ": the host's ring has overwritten them");
    }
  }
  seen_.is_placed = true;
  seen_.incarnation = files_.Base().incarnation;
  return Write(now, message, decision);
}

ReportCollector::Outcome ReportCollector::Write(TimeMs now, Queued& message, const Decision& decision) {
  const std::span<const std::string_view> texts = message.texts;
  const std::span<const std::string_view> fresh = texts.subspan(std::min(decision.skip, texts.size()));
  if (!fresh.empty() && is_base_unsynced_) return Outcome::kStop;
  const std::uint64_t before = files_.Next();
  const CollectorFault fault = files_.Append(fresh);
  const std::uint64_t stored = files_.Next() - before;
  message.written += stored;
  seen_.counters.records += stored;
  for (const std::string_view text : fresh.first(static_cast<std::size_t>(stored))) seen_.counters.bytes += text.size();
  seen_.next = files_.Next();
  if (fault.Failed()) return Failed(now, fault, message);
  needs_confirm_ = stored > 0;
  if (needs_confirm_) {
    if (const CollectorFault unconfirmed = files_.Confirm(); unconfirmed.Failed()) {
      return Failed(now, unconfirmed, message);
    }
  }
  needs_confirm_ = false;
  seen_.counters.repeats += decision.repeats - std::min(decision.repeats, message.written - stored);
  if (!trouble_.empty()) context_.log("report " + host_ + "/" + report_ + ": continues");
  trouble_.clear();
  busy_since_.reset();
  state_ = CollectedState::kFollows;
  return Outcome::kDone;
}

CollectorFault ReportCollector::OpenFiles() {
  if (CollectorFault fault = context_.root.MakeDirectories(host_, report_); fault.Failed()) return fault;
  ++context_.counters.opens;
  CollectorFault fault = files_.Open(context_.settings.slots);
  if (fault.Failed()) return fault;
  needs_confirm_ = false;  // the position is what the header in the file says
  const bool is_shrunk = files_.Fit() == BaseFit::kShrunk;
  const bool is_behind = files_.Fit() == BaseFit::kFits && seen_.is_placed && files_.Next() != seen_.next;
  if (is_shrunk || is_behind) {
    context_.log("report " + host_ + "/" + report_ +
                 ": the files were removed, emptied or replaced; the report continues with the records that they have");
  }
  seen_.counters.gap_records_ever = files_.Base().lost;
  return {};
}

// Checks whether the open files are still as this receiver has left them.
CollectorFault ReportCollector::ContinueFiles() {
  if (needs_confirm_) {
    if (CollectorFault fault = files_.Confirm(); fault.Failed()) return fault;
    needs_confirm_ = false;
  }
  if (!files_.CheckUntouched().Failed()) return {};
  files_.Close();
  return OpenFiles();
}

ReportCollector::Outcome ReportCollector::Failed(TimeMs now, const CollectorFault& fault, const Queued& message) {
  if (fault.kind == CollectorFault::Kind::kSystem) {
    state_ = CollectedState::kHeld;
    context_.system_fault = fault.text;
    trouble_ = fault.text;  // the receiver logs it once for all reports
    return Outcome::kStop;
  }
  files_.Close();
  if (fault.kind == CollectorFault::Kind::kBusy) {
    if (!busy_since_.has_value()) busy_since_ = now;
    if (now - *busy_since_ < kPatienceMs) {
      state_ = CollectedState::kHeld;
      retry_at_ = now + kBusyMs;
      Trouble(fault.text);
      return Outcome::kStop;
    }
  }
  busy_since_.reset();
  state_ = CollectedState::kLeftAlone;
  retry_at_ = now + kLeftAloneMs;
  Trouble("left alone, its messages are skipped: " + fault.text);
  return Skip(message);
}

ReportCollector::Outcome ReportCollector::Contradicted(TimeMs now, const Queued& message, const std::string& text) {
  if (files_.Fit() != BaseFit::kContradicted) {
    if (const CollectorFault fault = files_.WriteContradiction(); fault.Failed()) return Failed(now, fault, message);
  }
  return Failed(now, {.kind = CollectorFault::Kind::kReport, .text = text}, message);
}

ReportCollector::Outcome ReportCollector::Skip(const Queued& message) {
  if (message.head.kind == MessageKind::kRecords) seen_.counters.skipped += message.head.count - message.written;
  return Outcome::kDone;
}

bool ReportCollector::IsNext(std::uint64_t sequence, const Queued& message) const {
  const std::uint64_t before = message.before.value_or(sequence - 1);
  return before < context_.state.first || before <= last_sequence_ || before <= context_.state.acknowledged;
}

// The consumer shows that no earlier message will come. But its copy of the stream may lack a message that the other
// copies have, or the files have lost the records of an earlier message.
bool ReportCollector::MayBeElsewhere(const Queued& message) {
  return message.before.has_value() && *message.before >= context_.state.first &&
         holes_.Seek(*message.before, message.head);
}

std::string ReportCollector::SubjectText() const {
  const Subject subject = {.branch = Branch::kReport, .host = host_, .report = report_};
  return TextOfSubject(context_.stream_settings.prefix, subject).value_or("");
}

void ReportCollector::Done(std::uint64_t sequence, Queued& message) {
  last_sequence_ = std::max(last_sequence_, sequence);
  Forget(message);
  context_.handled.push_back({.sequence = sequence, .receipt = std::move(message.receipt)});
  ++seen_.counters.messages;
}

void ReportCollector::StreamReplaced() {
  for (const auto& [sequence, message] : queue_) Forget(message);
  queue_.clear();
  last_sequence_ = 0;
  holes_ = {};
  if (state_ == CollectedState::kWaits) state_ = CollectedState::kFollows;
}

void ReportCollector::Trouble(const std::string& text) {
  if (text == trouble_) return;
  trouble_ = text;
  context_.log("report " + host_ + "/" + report_ + ": " + text);
}

CollectedReport ReportCollector::Report() const {
  CollectedReport report = seen_;
  report.state = state_;
  report.trouble = trouble_;
  report.counters.gap_records_ever = files_.Base().lost;
  report.next = files_.Next();
  if (state_ == CollectedState::kWaits) {
    report.waiting_messages = queue_.size();
    report.waiting_first = queue_.empty() ? 0 : queue_.begin()->second.head.first;
  }
  return report;
}

}  // namespace qx::relay
