#include "tools/qxrelay/send/Sender.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/File.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/message/Subject.h"

namespace qx::relay {

namespace {

constexpr std::string_view kNamesEnding = ".names";
constexpr std::size_t kAboutOwner = 0;
constexpr std::size_t kLoggedMax = 32;
// The file of positions is written as a whole. So a larger file is written less often: about 100 KiB a second.
constexpr TimeMs kSaveMs = 10'000;
constexpr TimeMs kSaveBytesInMs = 100;
constexpr TimeMs kSavePollMs = 100;   // while a write is running
constexpr TimeMs kUrgentSaveMs = 50;  // while reports wait until their new incarnation is saved
constexpr TimeMs kUrgentSaveBytesInMs = 20'000;
constexpr std::size_t kNamesBytesMax = std::size_t{16} * 1024 * 1024;  // of all names files together

std::string SubjectText(const SendContext& context, Branch branch, const std::string& report) {
  const Subject subject = {.branch = branch, .host = context.host, .report = report};
  return TextOfSubject(context.stream_settings.prefix, subject).value_or(std::string());
}

// A text that differs whenever the file was changed or replaced.
std::string SeenText(const struct stat& status) {
  return std::to_string(status.st_dev) + " " + std::to_string(status.st_ino) + " " + std::to_string(status.st_size) +
         " " + std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

MessageHead SideHead(const SendContext& context, MessageKind kind, std::uint64_t count, const std::string& report) {
  MessageHead head;
  head.kind = kind;
  head.identity = context.state.Identity().identity;
  head.session = context.state.Identity().session;
  head.count = count;
  head.sent_ms = context.wall_ms();
  head.report = report;
  return head;
}

}  // namespace

Sender::Sender(SendContext& context, TimeMs now, std::vector<std::string> labels)
    : context_(context),
      labels_(std::move(labels)),
      about_(context, SubjectText(context, Branch::kAbout, {}), kAboutOwner),
      watch_(context, SubjectText(context, Branch::kAbout, {}), kAboutOwner),
      connect_at_(now + static_cast<TimeMs>(static_cast<double>(context.settings.spread.count()) * context.random())),
      rescan_at_(now),
      saved_at_(now) {}

std::string Sender::AboutMessage() const {
  std::vector<std::uint32_t> lengths;
  std::string texts;
  for (const std::string& label : labels_) {
    lengths.push_back(static_cast<std::uint32_t>(label.size()));
    texts += label;
  }
  return EncodeMessage(SideHead(context_, MessageKind::kAbout, labels_.size(), {}), lengths, texts);
}

TimeMs Sender::Step(TimeMs now) {
  TakeReplies(now);
  if (context_.rival != Rival::kNone && !has_stopped_) StopAll();
  if (!is_stopping_ && !is_connected_ && now >= connect_at_) Connect(now);
  if (is_stopping_) return now + context_.times.poll;
  if (now >= rescan_at_) Rescan(now);
  TimeMs wake = rescan_at_;
  if (!is_connected_) return std::min(wake, connect_at_);
  if (has_stopped_) return wake;
  watch_.Step(now);
  if (watch_.IsUnanswered()) LogOnce(SilenceText());
  wake = std::min(wake, watch_.Wake());
  about_.Step(now);
  if (about_.IsSet()) wake = std::min(wake, about_.Wake());
  WakeForLookUps(now);
  StepDue(now);
  SaveState(now);
  if (context_.state.HasChanges()) wake = std::min(wake, std::max(SaveDue(), now + kSavePollMs));
  if (context_.look_ups_free > 0 && !context_.look_up_waiting.empty()) return now + 1;
  return queue_.empty() ? wake : std::min(wake, queue_.begin()->first);
}

TimeMs Sender::SaveDue() const {
  const auto bytes = static_cast<TimeMs>(context_.state.FileBytes());
  if (context_.needs_state) return saved_at_ + kUrgentSaveMs + bytes / kUrgentSaveBytesInMs;
  return saved_at_ + std::max(kSaveMs, bytes / kSaveBytesInMs);
}

// If the write fails, the reports continue: the stream also has each position.
void Sender::SaveState(TimeMs now) {
  SenderState& state = context_.state;
  const bool is_due = state.HasChanges() && !state.IsWriting() && now >= SaveDue();
  if (is_due) {
    saved_at_ = now;
    context_.needs_state = false;
    state.BeginWrite();
  }
  if (const auto problem = state.EndWrite()) LogOnce(*problem);
}

// Wakes as many waiting reports as there are free look-ups. If thousands of reports wait, it would cost too much to
// wake all of them each time.
void Sender::WakeForLookUps(TimeMs now) {
  for (int i = 0; i < context_.look_ups_free && !context_.look_up_waiting.empty(); ++i) {
    const std::size_t index = context_.look_up_waiting.front() - 1;
    context_.look_up_waiting.pop_front();
    works_[index]->work.LookUpFree(now);
    Queue(index);
  }
}

// Each report gets at most one step, so that replies are handled between two steps of a busy report.
void Sender::StepDue(TimeMs now) {
  due_now_.clear();
  for (const auto& [due, index] : queue_) {
    if (due > now) break;
    due_now_.push_back(index);
  }
  for (const std::size_t index : due_now_) {
    Entry& entry = *works_[index];
    if (entry.work.Wake() <= now) entry.work.Step(now);
    entry.names.Step(now);
    Queue(index);
  }
}

void Sender::Queue(std::size_t index) {
  Entry& entry = *works_[index];
  const TimeMs due = entry.names.IsSet() ? std::min(entry.work.Wake(), entry.names.Wake()) : entry.work.Wake();
  if (entry.due == due) return;
  if (entry.due.has_value()) queue_.erase({*entry.due, index});
  entry.due = due;
  queue_.insert({due, index});
}

void Sender::QueueAll() {
  for (std::size_t index = 0; index < works_.size(); ++index) Queue(index);
}

void Sender::TakeReplies(TimeMs now) {
  replies_.clear();
  context_.stream.TakeReplies(replies_);
  for (const StreamReply& reply : replies_) {
    if (reply.kind == ReplyKind::kDisconnect) {
      Disconnected(now);
      return;  // the replies after this one belong to a connection that is closed
    }
    OnReply(now, reply);
  }
}

void Sender::OnReply(TimeMs now, const StreamReply& reply) {
  if (reply.kind == ReplyKind::kProblem) return LogOnce("the server reports: " + reply.text);
  const std::size_t owner = SendContext::OwnerOf(reply.token);
  if (owner == kAboutOwner) {
    about_.OnReply(now, reply);
    if (const std::optional<Rival> rival = watch_.OnReply(now, reply)) OnRival(now, *rival);
    return;
  }
  if (owner > works_.size()) return;
  Entry& entry = *works_[owner - 1];
  entry.work.OnReply(now, reply);
  entry.names.OnReply(now, reply);
  Queue(owner - 1);
}

// The labels are sent after the first check for other senders. They stop an older sender, so they may be sent only if
// this sender may send.
void Sender::OnRival(TimeMs now, Rival rival) {
  if (rival != Rival::kNone && context_.takes_over) {
    if (watch_.Session() >= context_.state.Identity().session) {
      if (const auto problem = context_.state.BeginSession(watch_.Session())) context_.log(*problem);
    }
    rival = Rival::kNone;
  }
  if (rival == Rival::kNone) {
    // Each message contains its time, so a new message is made only if the stream does not have that of this session.
    const bool is_stored = about_.IsSet() && watch_.Session() == context_.state.Identity().session;
    if (!is_stored) about_.Set(now, AboutMessage());
    return;
  }
  context_.rival = rival;
}

void Sender::StopAll() {
  has_stopped_ = true;
  for (const auto& entry : works_) entry->work.Stop();
  context_.log("stopped: " + RivalText());
}

void Sender::Disconnected(TimeMs now) {
  context_.stream.Close();
  logged_.clear();
  is_connected_ = false;
  connect_at_ = now + static_cast<TimeMs>(static_cast<double>(context_.settings.spread.count()) * context_.random());
  context_.log("the connection is lost; connecting again in " + std::to_string((connect_at_ - now + 999) / 1000) +
               " s");
  about_.Disconnected(now);
  for (const auto& entry : works_) {
    entry->work.Disconnected();
    entry->names.Disconnected(now);
  }
  QueueAll();
}

void Sender::Connect(TimeMs now) {
  if (const auto problem = context_.stream.Connect()) {
    connect_at_ = now + BackoffMs(++connect_failures_, context_.random());
    connect_problem_ = *problem;
    return LogOnce(*problem);
  }
  is_connected_ = true;
  connect_problem_.clear();
  connect_failures_ = 0;
  ++context_.counters.connects;
  context_.payload_max = std::min(context_.stream.PayloadBytesMax(), kMessageBytesMax);
  context_.log("connected");
  watch_.Connected(now);
  for (const auto& entry : works_) entry->work.Connected(now);
  QueueAll();
}

void Sender::Rescan(TimeMs now) {
  rescan_at_ = now + context_.settings.rescan.count();
  const report::FoundReports found = report::FindReports(context_.directory);
  if (found.error != 0) {
    LogOnce("cannot list " + context_.directory + ": " + std::strerror(found.error));
  }
  left_out_ = 0;
  for (const std::string& report : found.names) {
    if (!IsSelected(context_.settings, report) || known_.contains(report)) continue;
    if (known_.size() >= context_.settings.reports_max) {
      ++left_out_;
      continue;
    }
    known_.insert(report);
    Add(now, report);
  }
  for (const std::string& finding : Findings()) LogOnce(finding);
  for (std::size_t index = 0; index < works_.size(); ++index) ReadNames(now, index);
}

void Sender::Add(TimeMs now, const std::string& report) {
  if (SubjectText(context_, Branch::kReport, report).empty()) {
    context_.log("report " + report +
                 ": it is not sent: its name is absolute, too long, or has an empty component, \".\" or \"..\"");
    return;
  }
  const std::size_t owner = works_.size() + 1;
  auto entry = std::make_unique<Entry>(context_, report, SubjectText(context_, Branch::kNames, report), owner);
  if (is_connected_) entry->work.Connected(now);
  if (has_stopped_) entry->work.Stop();
  works_.push_back(std::move(entry));
  Queue(works_.size() - 1);
}

// A report without a names file gets no message about it, unless it had a names file before.
void Sender::ReadNames(TimeMs now, std::size_t index) {
  Entry& entry = *works_[index];
  const std::string path = report::PathIn(context_.directory, entry.work.Name()) + std::string(kNamesEnding);
  struct stat status = {};
  const bool is_there = file::StatusOf(path.c_str(), status) == 0 && S_ISREG(status.st_mode);
  const std::string seen = is_there ? SeenText(status) : "";
  if (seen == entry.names_seen) return;
  std::string text;
  if (is_there) {
    const file::Descriptor file = file::OpenRegular(path.c_str(), O_RDONLY);
    const std::size_t bytes_max = context_.payload_max / 2;
    if (!file.IsOpen() || bytes_max == 0 || file::ReadWhole(file.Number(), text, bytes_max) != 0) return;
  }
  entry.names_seen = seen;
  if (!TakeNamesBytes(entry, text.size())) return;
  const auto size = static_cast<std::uint32_t>(text.size());
  const MessageHead head = SideHead(context_, MessageKind::kNames, is_there ? 1 : 0, entry.work.Name());
  entry.names.Set(now, is_there ? EncodeMessage(head, {&size, 1}, text) : EncodeMessage(head));
  Queue(index);
}

// Counts the bytes of a names file, which is kept in memory to be sent again. False if all of them together would be
// too large.
bool Sender::TakeNamesBytes(Entry& entry, std::size_t bytes) {
  names_bytes_ -= entry.names_bytes;
  entry.names_bytes = 0;
  if (names_bytes_ + bytes > kNamesBytesMax) {
    ++names_left_out_;
    return false;
  }
  entry.names_bytes = bytes;
  names_bytes_ += bytes;
  return true;
}

bool Sender::IsBusy() const {
  return is_connected_ &&
         std::any_of(works_.begin(), works_.end(), [](const auto& entry) { return entry->work.IsPublishing(); });
}

void Sender::Finish() {
  if (context_.state.HasChanges()) {
    if (const auto problem = context_.state.Write()) LogOnce(*problem);
  }
  context_.stream.Close();
  is_connected_ = false;
}

std::size_t Sender::Stopped() const {
  return static_cast<std::size_t>(
      std::count_if(works_.begin(), works_.end(), [](const auto& entry) { return entry->work.Sender().IsStopped(); }));
}

std::string Sender::Problem() const {
  if (std::string rival = RivalText(); !rival.empty()) return rival;
  if (!is_connected_) return connect_problem_;
  return watch_.IsUnanswered() ? SilenceText() : "";
}

// The finding if no look-up is answered: for a stream that does not exist, no server answers.
std::string Sender::SilenceText() const {
  return "the servers do not answer: is there a stream " + context_.stream_settings.name +
         " (\"qxrelay stream create\"), does it have a leader, and may this host ask for its own newest messages?";
}

std::vector<std::string> Sender::Findings() const {
  std::vector<std::string> findings;
  if (left_out_ > 0) {
    findings.push_back(std::to_string(left_out_) + " reports are not sent: reports_max is " +
                       std::to_string(context_.settings.reports_max));
  }
  if (names_left_out_ > 0) {
    findings.push_back("changes of " + std::to_string(names_left_out_) +
                       " names files are not sent: all of them together may have " + std::to_string(kNamesBytesMax) +
                       " bytes");
  }
  return findings;
}

std::vector<SentReport> Sender::Sent() const {
  std::vector<SentReport> reports;
  reports.reserve(works_.size());
  for (const auto& entry : works_) reports.push_back(entry->work.Sent());
  return reports;
}

// Each text is logged once until the connection is lost, because a server may report the same problem for thousands of
// reports.
void Sender::LogOnce(const std::string& text) {
  if (logged_.size() < kLoggedMax && logged_.insert(text).second) context_.log(text);
}

}  // namespace qx::relay
