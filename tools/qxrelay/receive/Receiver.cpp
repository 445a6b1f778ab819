#include "tools/qxrelay/receive/Receiver.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "reportfile/RecordEnds.h"
#include "tools/qxrelay/message/Backoff.h"
#include "tools/qxrelay/message/Message.h"

namespace qx::relay {

namespace {

constexpr std::size_t kUnacknowledgedMax = 65'536;
constexpr FetchLimits kFetchMax = {.messages = 1024, .bytes = std::size_t{8} * 1024 * 1024};
constexpr TimeMs kBaseSyncMs = 50;  // between two syncs, if a report waits for its base
constexpr TimeMs kStateMs = 250;    // between two reads of the stream's state
constexpr TimeMs kSeekMs = 1000;    // between two searches for a message that no copy of the stream has
constexpr int kSoughtMax = 64;      // messages that are sought in one step
constexpr std::size_t kLoggedMax = 1000;
constexpr std::size_t kNewerMax = 1000;

// Whether the text is a record as a store returns it: only its last byte ends a record.
bool IsRecord(std::string_view text) {
  const std::size_t end = report::FindTextEnd(text);
  return end == text.size() || (end + 1 == text.size() && text[end] != '\0');
}

bool IsBranchOf(MessageKind kind, Branch branch) {
  if (kind == MessageKind::kAbout) return branch == Branch::kAbout;
  if (kind == MessageKind::kNames) return branch == Branch::kNames;
  return branch == Branch::kReport;
}

// {"site=north", "role=web"} => "site=north\nrole=web\n". Labels with control bytes are left out.
std::string LabelText(const std::vector<std::string_view>& labels) {
  std::string text;
  for (const std::string_view label : labels) {
    const bool is_line = std::all_of(label.begin(), label.end(), [](char byte) {
      return static_cast<unsigned char>(byte) >= ' ' && byte != '\x7F';
    });
    if (is_line) text.append(label).append("\n");
  }
  return text;
}

}  // namespace

Receiver::Receiver(ReceiveContext& context, std::string name)
    : context_(context), name_(std::move(name)), limits_(context.settings, context.log) {
  limits_.CountRoot(context.root);
}

TimeMs Receiver::Step(TimeMs now, TimeMs wait) {
  if (!is_connected_ && now >= connect_at_) Connect(now);
  if (!context_.system_fault.empty() && now >= continue_at_) Continue(now);
  if (is_connected_ && context_.system_fault.empty()) {
    const TimeMs sync_due = context_.handled.empty() ? wait : synced_at_ + context_.settings.sync.count() - now;
    Fetch(now, std::clamp(sync_due, TimeMs{1}, wait));
  }
  WorkOnTouched(now);
  SyncBases(now);
  SyncIfDue(now);
  ReadState(now);
  SeekInCopies(now);
  if (!context_.system_fault.empty() && now >= continue_at_) Pause(now);
  if (!is_connected_) return std::min(connect_at_, context_.handled.empty() ? connect_at_ : now + wait);
  return context_.system_fault.empty() ? now : continue_at_;
}

void Receiver::Connect(TimeMs now) {
  std::optional<std::string> problem = context_.stream.Connect(name_, kUnacknowledgedMax, context_.settings.redeliver);
  ConsumerState state;
  if (!problem.has_value()) problem = context_.stream.ReadState(state);
  if (problem.has_value()) return Disconnected(now, *problem);
  if (context_.state.created != 0 && state.created != context_.state.created) {
    context_.log("the stream was deleted and created again");
    for (auto& [key, entry] : entries_) entry->collector.StreamReplaced();
    context_.handled.clear();
    newer_.clear();
  }
  context_.state = state;
  ++context_.counters.connects;
  is_connected_ = true;
  failures_ = 0;
  if (!problem_.empty()) context_.log("connected again");
  problem_.clear();
}

void Receiver::Disconnected(TimeMs now, const std::string& problem) {
  context_.stream.Close();
  is_connected_ = false;
  connect_at_ = now + BackoffMs(++failures_, context_.random());
  Trouble(problem);
}

void Receiver::Fetch(TimeMs now, TimeMs wait) {
  messages_.clear();
  const std::optional<std::string> problem =
      context_.stream.Fetch(kFetchMax, std::chrono::milliseconds(wait), messages_);
  for (StreamMessage& message : messages_) {
    ++context_.counters.messages;
    if (message.delivered > 1) ++context_.counters.redelivered;
    context_.counters.pending = message.pending;
    Sort(std::move(message));
  }
  if (problem.has_value()) Disconnected(now, *problem);
}

// Finds the report of the message, and refuses messages that no sender sends.
void Receiver::Sort(StreamMessage message) {
  const std::optional<Subject> subject = SubjectOfText(context_.stream_settings.prefix, message.subject);
  if (!subject.has_value()) return Refuse(message, "its subject is not one of the relay");
  DecodedMessage decoded = DecodeMessage(message.payload);
  if (decoded.fault == MessageFault::kVersion && newer_.size() < kNewerMax) {
    newer_.insert(message.sequence);  // it comes again, possibly after an upgrade of this program
    return LogOnce(message.subject + ": " + std::string(TextOfFault(decoded.fault)));
  }
  if (decoded.fault != MessageFault::kNone) return Refuse(message, std::string(TextOfFault(decoded.fault)));
  if (!IsBranchOf(decoded.head.kind, subject->branch) || decoded.head.report != subject->report) {
    return Refuse(message, "its content does not fit its subject");
  }
  if (subject->branch != Branch::kReport) return TakeSide(message, *subject, decoded);
  const bool has_records = decoded.head.kind == MessageKind::kRecords;
  if (decoded.head.incarnation == 0 ||
      (has_records && !std::all_of(decoded.texts.begin(), decoded.texts.end(), IsRecord))) {
    return Refuse(message, "it has records that no report can have");
  }
  Entry* const entry = EntryOf(*subject, has_records ? decoded.head.count : 0);
  if (entry == nullptr) return LeaveOut(message);
  entry->collector.Add(std::move(message), std::move(decoded));
  touched_.insert(entry);
}

// Acknowledges a message above a limit without writing it. If it stayed unacknowledged, it would stop all others sooner
// or later.
void Receiver::LeaveOut(const StreamMessage& message) {
  context_.counters.left_out = limits_.LeftOut();
  context_.handled.push_back({.sequence = message.sequence, .receipt = message.receipt});
}

void Receiver::Refuse(const StreamMessage& message, const std::string& why) {
  ++context_.counters.refused;
  LogOnce("a message of " + message.subject + " is refused: " + why);
  (void)context_.stream.Refuse(message.receipt);  // if the refusal is lost, the message comes and is refused again
}

// Writes the names or labels of a message: the newest message replaces the state. Acknowledgements are sent in the
// order of the stream, so an older message never comes again after a newer one was acknowledged.
void Receiver::TakeSide(const StreamMessage& message, const Subject& subject, const DecodedMessage& decoded) {
  CollectorFault fault;
  if (subject.branch == Branch::kAbout) {
    if (limits_.Host(subject.host) == nullptr) return LeaveOut(message);
    fault = context_.root.WriteAbout(subject.host, LabelText(decoded.texts));
  } else {
    Entry* const entry = EntryOf(subject, 0);
    if (entry == nullptr) return LeaveOut(message);
    const bool is_newer = message.sequence >= entry->names_sequence;
    const auto bytes = decoded.head.count > 0 ? std::optional(decoded.texts[0]) : std::nullopt;
    if (is_newer) fault = context_.root.WriteNames(subject.host, subject.report, bytes);
    if (is_newer && !fault.Failed()) entry->names_sequence = message.sequence;
  }
  if (fault.kind == CollectorFault::Kind::kSystem) {
    context_.system_fault = fault.text;
    sides_.push_back(message);
    return;
  }
  if (fault.Failed()) LogOnce(fault.text);
  context_.handled.push_back({.sequence = message.sequence, .receipt = message.receipt});
}

// The entry of a report; null if the report would be above the limits.
Receiver::Entry* Receiver::EntryOf(const Subject& subject, std::uint64_t records) {
  const auto found = entries_.find({subject.host, subject.report});
  if (found != entries_.end()) return found->second.get();
  HostLoad* const load = limits_.Report(subject.host, subject.report, records);
  if (load == nullptr) return nullptr;
  auto made = std::make_unique<Entry>(context_, *load, subject.host, subject.report);
  return entries_.emplace(std::pair(subject.host, subject.report), std::move(made)).first->second.get();
}

// Works on one report, and closes another one if too many are open.
void Receiver::WorkOn(TimeMs now, Entry& entry) {
  if (!entry.collector.IsOpen() && opened_.size() >= context_.open_max) {
    Entry* const oldest = opened_.back();
    oldest->collector.CloseFiles();
    oldest->is_opened = false;
    opened_.pop_back();
  }
  entry.collector.Work(now);
  if (entry.is_opened) opened_.erase(entry.opened);
  entry.is_opened = entry.collector.IsOpen();
  if (!entry.is_opened) return;
  opened_.push_front(&entry);
  entry.opened = opened_.begin();
}

void Receiver::WorkOnTouched(TimeMs now) {
  for (auto at = touched_.begin(); at != touched_.end() && context_.system_fault.empty();) {
    WorkOn(now, **at);
    at = (*at)->collector.HasQueue() ? std::next(at) : touched_.erase(at);
  }
}

void Receiver::Pause(TimeMs now) {
  continue_at_ = now + BackoffMs(++write_failures_, context_.random());
  Trouble(context_.system_fault);
}

// Continues after the system refused a write: repeats the writes.
void Receiver::Continue(TimeMs now) {
  context_.system_fault.clear();
  for (StreamMessage& message : std::exchange(sides_, {})) Sort(std::move(message));
  WorkOnTouched(now);
  if (!context_.system_fault.empty()) return Pause(now);
  write_failures_ = 0;
  context_.log("writing continues");
  problem_.clear();
}

// Syncs the bases of many reports together, and then writes their records.
void Receiver::SyncBases(TimeMs now) {
  if (!context_.needs_base_sync || now < synced_at_ + kBaseSyncMs || !Sync(now)) return;
  for (Entry* const entry : touched_) entry->collector.BaseSynced();
  for (auto& [key, entry] : entries_) {
    if (entry->collector.WaitsForBase()) entry->collector.BaseSynced();
  }
  context_.needs_base_sync = false;
  WorkOnTouched(now);
}

void Receiver::SyncIfDue(TimeMs now) {
  if (context_.handled.empty() || now < synced_at_ + context_.settings.sync.count()) return;
  (void)Sync(now);
}

bool Receiver::Sync(TimeMs now) {
  synced_at_ = now;
  const int error = context_.root.Sync();
  ++context_.counters.syncs;
  if (error != 0) {
    ++context_.counters.failed_syncs;
    sync_problem_ = "cannot sync the file system of " + context_.root.Path() + ": " + std::strerror(error) +
                    "; nothing is acknowledged";
    Trouble(sync_problem_);
    return false;
  }
  if (!sync_problem_.empty()) {
    context_.log("the file system is synced again");
    if (problem_ == sync_problem_) problem_ = context_.system_fault;
    sync_problem_.clear();
  }
  Acknowledge();
  return true;
}

void Receiver::Acknowledge() {
  std::vector<HandledMessage>& handled = context_.handled;
  std::sort(handled.begin(), handled.end(),
            [](const HandledMessage& left, const HandledMessage& right) { return left.sequence < right.sequence; });
  for (const HandledMessage& message : handled) {
    if (message.receipt.empty()) continue;  // from a copy of the stream, not from the consumer
    if (context_.stream.Acknowledge(message.receipt).has_value()) break;  // the others come again
    ++context_.counters.acknowledged;
  }
  handled.clear();
}

// Reads the state of the stream, which can prove that a missing message will not come.
void Receiver::ReadState(TimeMs now) {
  const bool is_waiting = std::any_of(touched_.begin(), touched_.end(),
                                      [](const Entry* entry) { return entry->collector.WaitsForProof(); });
  if (!is_connected_ || !is_waiting || now < state_at_) return;
  state_at_ = now + kStateMs;
  ConsumerState state;
  if (const auto problem = context_.stream.ReadState(state)) return Disconnected(now, *problem);
  context_.state = state;
}

// Reads the messages of holes from the copies of the stream.
void Receiver::SeekInCopies(TimeMs now) {
  if (!is_connected_ || !context_.system_fault.empty() || now < seek_at_) return;
  for (int i = 0; i < kSoughtMax; ++i) {
    const auto entry = std::find_if(touched_.begin(), touched_.end(),
                                    [](Entry* each) { return each->collector.Holes().Sought().has_value(); });
    if (entry == touched_.end()) return;
    const bool is_found = SeekFor(now, **entry, *(*entry)->collector.Holes().Sought());
    WorkOnTouched(now);
    if (is_found) continue;
    seek_at_ = now + kSeekMs;
    return;
  }
}

bool Receiver::SeekFor(TimeMs now, Entry& entry, std::uint64_t sequence) {
  const std::string subject = entry.collector.SubjectText();
  bool is_certain = true;
  for (std::size_t copy = 0; copy < context_.stream.Copies(); ++copy) {
    StreamMessage message;
    const CopyAnswer answer = context_.stream.ReadFromCopy(copy, sequence, message);
    if (answer == CopyAnswer::kUnknown) is_certain = false;
    if (answer != CopyAnswer::kMessage || message.subject != subject) continue;
    const DecodedMessage decoded = DecodeMessage(message.payload);
    if (decoded.fault != MessageFault::kNone || !entry.collector.Holes().IsSought(decoded.head)) continue;
    ++context_.counters.read_again;
    entry.collector.Holes().Found();
    Sort(std::move(message));
    return true;
  }
  entry.collector.Holes().NotFound(now, is_certain);
  return false;
}

void Receiver::Finish(TimeMs now) {
  WorkOnTouched(now);
  if (context_.needs_base_sync && Sync(now)) {
    for (auto& [key, entry] : entries_) entry->collector.BaseSynced();
    context_.needs_base_sync = false;
    WorkOnTouched(now);
  }
  if (!context_.handled.empty()) (void)Sync(now);
  for (auto& [key, entry] : entries_) entry->collector.CloseFiles();
  context_.stream.Close();
  is_connected_ = false;
}

std::vector<CollectedReport> Receiver::Reports() const {
  std::vector<CollectedReport> reports;
  reports.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) reports.push_back(entry->collector.Report());
  return reports;
}

void Receiver::Trouble(const std::string& problem) {
  if (problem == problem_) return;
  problem_ = problem;
  context_.log(problem);
}

void Receiver::LogOnce(const std::string& text) {
  if (logged_.size() >= kLoggedMax || !logged_.insert(text).second) return;
  context_.log(text);
}

}  // namespace qx::relay
