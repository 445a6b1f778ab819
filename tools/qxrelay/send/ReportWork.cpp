#include "tools/qxrelay/send/ReportWork.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxrelay/message/Subject.h"

namespace qx::relay {

namespace {

constexpr int kActionsMax = 8;  // in one step, so that other reports are not delayed
constexpr TimeMs kMemoryWaitMs = 50;
constexpr TimeMs kStateWaitMs = 10;
constexpr TimeMs kNever = std::numeric_limits<TimeMs>::max();
constexpr std::size_t kLengthBytesMax = 5;
constexpr TimeMs kSeenMs = 5000;
constexpr std::int64_t kSettledMs = 3000;

std::string SubjectOf(const SendContext& context, const std::string& report) {
  const Subject subject = {.branch = Branch::kReport, .host = context.host, .report = report};
  return TextOfSubject(context.stream_settings.prefix, subject).value_or(std::string());
}

std::string TextOfStoreError(int error) {
  if (error == ENOENT) return "there is no such report";
  if (error == EBADMSG) return "the files contradict each other: \"qxctl report verify\" shows how";
  return std::string("the report cannot be read: ") + std::strerror(error);
}

// The hashes of the last records of the run, oldest first.
std::vector<std::uint64_t> LastHashes(const RecordRun& run) {
  std::vector<std::uint64_t> hashes;
  std::string_view rest = run.texts;
  for (auto length = run.lengths.rbegin(); length != run.lengths.rend(); ++length) {
    if (hashes.size() == report::kOverlapRecords) break;
    hashes.push_back(report::RecordHash(rest.substr(rest.size() - *length)));
    rest.remove_suffix(*length);
  }
  std::reverse(hashes.begin(), hashes.end());
  return hashes;
}

// The position after a message, from its own fields.
Mark MarkAfter(const DecodedMessage& message) {
  const MessageHead& head = message.head;
  Mark mark = {.incarnation = head.incarnation, .next = head.Next(), .hash_before = 0, .ring_slots = head.ring_slots};
  if (head.kind == MessageKind::kEmpty) mark.hash_before = head.hash_before;
  if (head.kind == MessageKind::kRecords) mark.hash_before = report::RecordHash(message.texts.back());
  return mark;
}

void CountIn(SentCounters& counters, const MessageHead& stored) {
  ++counters.messages;
  if (stored.kind == MessageKind::kRecords) counters.records += stored.count;
  if (stored.kind != MessageKind::kGap) return;
  counters.gap_records += stored.count;
  if (stored.reason == GapReason::kOverLimit) counters.over_limit += stored.count;
  if (stored.reason == GapReason::kUnreadable) counters.unreadable += stored.count;
}

bool IsOfAReport(const MessageHead& head) {
  return head.kind == MessageKind::kRecords || head.kind == MessageKind::kGap || head.kind == MessageKind::kEmpty;
}

}  // namespace

ReportWork::ReportWork(SendContext& context, std::string report, std::size_t owner)
    : context_(context),
      owner_(owner),
      report_(std::move(report)),
      subject_(SubjectOf(context, report_)),
      path_(report::PathIn(context.directory, report_)),
      sender_(context.times, context.random),
      reader_(path_),
      known_(context.state.Of(report_)) {}

void ReportWork::Step(TimeMs now) {
  for (int i = 0; i < kActionsMax; ++i) {
    const Action action = sender_.Next(now);
    if (in_flight_.has_value() && !sender_.IsInFlight()) {  // there was no answer in time
      ++context_.counters.unanswered;
      in_flight_.reset();
      Trouble("the servers do not acknowledge: is the stream there, and may this host publish to " + subject_ + "?");
    }
    ReleaseLookUp();
    if (action.kind == ActionKind::kWait || action.kind == ActionKind::kStopped) {
      wake_ = action.kind == ActionKind::kWait ? action.until : kNever;
      break;
    }
    wake_ = now;
    Act(now, action);
    if (wake_ > now) break;
  }
}

void ReportWork::Act(TimeMs now, const Action& action) {
  switch (action.kind) {
    case ActionKind::kLookUp:
      LookUp(now);
      break;
    case ActionKind::kPlace:
      FindItsPlace(now);
      break;
    default:
      Examine(now);
      break;
  }
}

void ReportWork::LookUp(TimeMs now) {
  if (context_.look_ups_free == 0) {
    wake_ = kNever;
    if (!waits_for_look_up_) context_.look_up_waiting.push_back(owner_);
    waits_for_look_up_ = true;
    return;
  }
  --context_.look_ups_free;
  has_look_up_ = true;
  held_.reset();
  const std::uint64_t token = context_.NewToken(owner_);
  sender_.LookUpSent(now, token);
  if (!context_.stream.LookUp(token, subject_)) (void)sender_.Failed(now, token);
}

void ReportWork::ReleaseLookUp() {
  if (!has_look_up_ || (sender_.IsInFlight() && !in_flight_.has_value())) return;
  has_look_up_ = false;
  ++context_.look_ups_free;
}

void ReportWork::FindItsPlace(TimeMs now) {
  if (const int error = reader_.Open(); error != 0) {
    wake_ = sender_.Examined(now, {.error = error}).until;
    return Trouble(TextOfStoreError(error));
  }
  const std::optional<Mark> state = known_.mark.incarnation != 0 ? std::optional(known_.mark) : std::nullopt;
  const Place place = FindPlace(reader_.View(), newest_, state, known_.overlap, reader_);
  const report::IndexHeader& header = reader_.View().header;
  Mark mark = {.incarnation = place.incarnation,
               .next = place.next,
               .hash_before = place.hash_before,
               .ring_slots = header.highestIndex != 0 ? header.maxRecord : 0};
  if (mark.incarnation == 0) {
    const bool had_one = newest_.has_value() || state.has_value();
    while (mark.incarnation == 0) mark.incarnation = context_.random_number();
    ++context_.counters.incarnations;
    if (!place.is_recognised) known_.overlap.clear();
    if (had_one) {
      context_.log("report " + report_ + ": the store was started over or replaced" +
                   (place.is_recognised ? "; it still has the last sent records" : ""));
    }
  }
  held_.reset();
  seen_.reset();
  const bool is_new = known_.mark.incarnation != mark.incarnation;
  if (known_.mark != mark) known_.mark = mark;
  const std::uint64_t change = context_.state.Changed();
  if (is_new) awaited_change_ = change;  // the first message of an incarnation is sent after it
  sender_.Placed(now, mark);
  reader_.Close();
}

void ReportWork::Examine(TimeMs now) {
  if (held_.has_value() && held_->run.first == sender_.Position().next) {
    HeldRun held = *std::exchange(held_, std::nullopt);
    return SendRun(now, std::move(held.run));
  }
  if (context_.kept_bytes >= SendContext::kKeptBytesMax) {
    wake_ = now + kMemoryWaitMs;
    return;
  }
  if (!context_.state.IsTried(awaited_change_)) {
    context_.needs_state = true;
    wake_ = now + kStateWaitMs;
    return;
  }
  const bool is_as_seen = IsAsLastSeen(now);
  Examination found = is_as_seen ? seen_->found : ExamineStore();
  if (!is_as_seen) RememberSeen(now, found);
  Action action = sender_.Examined(now, found);
  if (is_as_seen && action.kind == ActionKind::kRecords) {  // the last examination shows when to send, but not what
    found = ExamineStore();
    RememberSeen(now, found);
    action = sender_.Examined(now, found);
  }
  if (found.error != 0) Trouble(TextOfStoreError(found.error));
  if (action.kind == ActionKind::kWait) wake_ = action.until;
  if (action.kind == ActionKind::kPlace) newest_ = sender_.Position();
  if (action.kind == ActionKind::kGap) SendGap(now, action.first + action.count);
  if (action.kind == ActionKind::kRecords) SendRecords(now);
  if (action.kind == ActionKind::kEmpty)
    Publish(now, HeadOf(MessageKind::kEmpty, 0), {}, sender_.Position().hash_before);
  reader_.Close();
}

// A report without new records is not opened at every poll. For some seconds, one of two checks replaces an
// examination:
//   - If the header is the same, the store has no new records.
//   - If times and size of the index file are the same, the file was not written. The times must have been old when
//     they were read, because two writes within one tick of the file system's clock get the same time. This check does
//     not notice another store.
bool ReportWork::IsAsLastSeen(TimeMs now) {
  if (!seen_.has_value() || now >= seen_->until) return false;
  struct stat status = {};
  if (file::StatusOf(report::IndexFileName(path_).c_str(), status) != 0) return false;
  if (seen_->status.has_value() && file::IsUnchanged(status, *seen_->status)) return true;
  if (!IsHeaderAsSeen()) return false;
  const std::int64_t written_ms = std::int64_t{status.st_mtim.tv_sec} * 1000;
  if (context_.wall_ms() - written_ms >= kSettledMs) seen_->status = status;  // the header was read after this status
  return true;
}

bool ReportWork::IsHeaderAsSeen() const {
  const file::Descriptor index = file::OpenRegular(report::IndexFileName(path_).c_str(), O_RDONLY);
  report::IndexHeader header;
  if (!index.IsOpen() || file::ReadAt(index.Number(), 0, &header, sizeof header).bytes != sizeof header) return false;
  return header == seen_->header;
}

void ReportWork::RememberSeen(TimeMs now, const Examination& found) {
  seen_.reset();
  const std::uint64_t next = sender_.Position().next;
  const bool has_gap = found.sendable.oldest > next || found.sendable.end < next;
  if (found.error != 0 || found.proof != Proof::kProven || has_gap) return;
  seen_ = {.found = found, .header = reader_.View().header, .status = std::nullopt, .until = now + kSeenMs};
}

Examination ReportWork::ExamineStore() {
  Examination found;
  ++context_.counters.opens;
  found.error = reader_.Open();
  if (found.error != 0) return found;
  const Mark& position = sender_.Position();
  found.proof = ProveMark(position, reader_.View(), reader_);
  const std::optional<RecordRange> range = RangeNear(reader_.View().header, position.next);
  if (found.proof == Proof::kContradicted || !range.has_value()) {
    found.proof = Proof::kContradicted;
    return found;
  }
  range_ = *range;
  found.sendable = reader_.View().Sendable(range_);
  found.slots = reader_.View().header.highestIndex != 0 ? reader_.View().header.maxRecord : 0;
  const std::uint64_t first = std::max(position.next, found.sendable.oldest);
  if (first < range_.end) found.bytes = reader_.BytesFrom(range_, first);
  return found;
}

void ReportWork::SendRecords(TimeMs now) { SendRun(now, reader_.Read(range_, sender_.Position().next, BatchBytes())); }

// The records after the gap are read before the gap is sent. Otherwise a fast writer could overwrite them meanwhile,
// and the count of the gap would be wrong.
void ReportWork::SendGap(TimeMs now, std::uint64_t oldest) {
  RecordRun run;
  run.first = oldest;
  if (oldest < range_.end) run = reader_.Read(range_, oldest, BatchBytes());
  const std::uint64_t count = run.first - sender_.Position().next;
  if (!run.lengths.empty() && run.error == 0) Hold(std::move(run));
  PublishGap(now, count, GapReason::kOverwritten);
}

void ReportWork::SendRun(TimeMs now, RecordRun run) {
  const std::uint64_t next = sender_.Position().next;
  if (run.error != 0) {
    wake_ = sender_.Examined(now, {.error = run.error}).until;
    return Trouble(TextOfStoreError(run.error));
  }
  if (run.first > next) {
    const std::uint64_t count = run.first - next;
    if (!run.lengths.empty()) Hold(std::move(run));
    return PublishGap(now, count, GapReason::kOverwritten);
  }
  if (run.unreadable > 0) return PublishGap(now, run.unreadable, GapReason::kUnreadable);
  if (run.lengths.empty()) {
    sender_.NotSent(now);
    return;
  }
  if (run.texts.size() > TextBytesMax()) {  // only a single record can be that long
    context_.log("report " + report_ + ": record " + std::to_string(next) + " of " + std::to_string(run.texts.size()) +
                 " bytes is larger than a message may be, and is skipped");
    return PublishGap(now, 1, GapReason::kOverLimit);
  }
  PublishRun(now, run);
}

void ReportWork::Hold(RecordRun run) {
  const std::size_t bytes = run.texts.size() + run.lengths.size() * sizeof(std::uint32_t);
  held_ = {.run = std::move(run), .kept = CountedBytes(context_.kept_bytes, bytes)};
}

void ReportWork::PublishGap(TimeMs now, std::uint64_t count, GapReason reason) {
  MessageHead head = HeadOf(MessageKind::kGap, count);
  head.reason = reason;
  Publish(now, head, {}, 0);
}

void ReportWork::PublishRun(TimeMs now, const RecordRun& run) {
  Publish(now, HeadOf(MessageKind::kRecords, run.Count()), run, report::RecordHash(LastText(run)));
}

void ReportWork::Publish(TimeMs now, const MessageHead& head, const RecordRun& run, std::uint64_t hash_after) {
  const std::string bytes = EncodeMessage(head, run.lengths, run.texts);
  const std::uint64_t token = context_.NewToken(owner_);
  in_flight_ = {.token = token,
                .head = head,
                .bytes = bytes.size(),
                .hashes = LastHashes(run),
                .kept = CountedBytes(context_.kept_bytes, bytes.size())};
  sender_.Sent(now, token, head.Next(), hash_after);
  if (context_.stream.Publish(token, subject_, bytes, sender_.LastSequence())) return;
  in_flight_.reset();
  (void)sender_.Failed(now, token);
}

MessageHead ReportWork::HeadOf(MessageKind kind, std::uint64_t count) const {
  const Mark& position = sender_.Position();
  const report::IndexHeader& header = reader_.View().header;
  return {.kind = kind,
          .reason = GapReason::kNone,
          .identity = context_.state.Identity().identity,
          .incarnation = position.incarnation,
          .session = context_.state.Identity().session,
          .first = position.next,
          .count = count,
          .hash_before = position.hash_before,
          .store_next = std::max(range_.end, position.next + count),
          .sent_ms = context_.wall_ms(),
          .ring_slots = header.highestIndex != 0 ? header.maxRecord : 0,
          .report = report_};
}

void ReportWork::Connected(TimeMs now) {
  sender_.Connected(now);
  wake_ = now;
}

void ReportWork::Disconnected() {
  sender_.Disconnected();
  in_flight_.reset();
  ReleaseLookUp();
}

void ReportWork::OnReply(TimeMs now, const StreamReply& reply) {
  if (!sender_.IsCurrent(reply.token)) return;
  switch (reply.kind) {
    case ReplyKind::kStored:
      OnStored(now, reply);
      break;
    case ReplyKind::kNewest:
    case ReplyKind::kNone:
      OnNewest(now, reply);
      break;
    default:
      OnFailure(now, reply);
      break;
  }
  ReleaseLookUp();
  wake_ = now;
}

void ReportWork::OnNewest(TimeMs now, const StreamReply& reply) {
  ++context_.counters.look_ups;
  newest_.reset();
  if (reply.kind == ReplyKind::kNewest) {
    const DecodedMessage message = DecodeMessage(reply.payload);
    const bool is_ours =
        message.fault == MessageFault::kNone && IsOfAReport(message.head) && message.head.report == report_;
    if (message.fault == MessageFault::kVersion) {
      sender_.Stop();
      return Trouble(std::string("stopped: the newest message is ") + std::string(TextOfFault(message.fault)));
    }
    if (is_ours && IsRivalOfUs(now, reply, message.head)) return;
    if (is_ours) {
      newest_ = MarkAfter(message);
    } else {
      ++context_.counters.foreign;
      context_.log("report " + report_ + ": the newest message of " + subject_ +
                   " is not from a sender; check who may publish there");
    }
  }
  (void)sender_.NewestFound(reply.token, reply.sequence);  // the token is the current one
}

// True if the message is from another sender. This sender is then stopped, with a finding.
bool ReportWork::IsRivalOfUs(TimeMs now, const StreamReply& reply, const MessageHead& newest) {
  const SenderIdentity& own = context_.state.Identity();
  const Rival rival = RivalOf(newest, own.identity, own.session);
  if (rival == Rival::kNone) return false;
  if (context_.takes_over) {
    if (newest.session < own.session) return false;
    const std::optional<std::string> problem = context_.state.BeginSession(newest.session);
    if (problem.has_value()) context_.log(*problem);
    return false;
  }
  if (!context_.are_labels_known) return sender_.Failed(now, reply.token);  // looked up again
  // A report that could not be sent after a --take-over still has a message of the other sender.
  if (reply.sequence < context_.own_labels_sequence) return false;
  sender_.Stop();
  context_.rival = rival;
  return true;
}

void ReportWork::OnStored(TimeMs now, const StreamReply& reply) {
  const InFlight stored = *std::exchange(in_flight_, std::nullopt);
  if (!sender_.Stored(now, reply.token, reply.sequence)) {
    held_.reset();
    return Trouble(
        "the sequence numbers of the stream do not increase: it was deleted, or its servers have lost messages");
  }
  Count(stored);
  known_.mark = sender_.Position();
  (void)context_.state.Changed();  // it is written with other changes, after some seconds
  std::vector<std::uint64_t>& overlap = known_.overlap;
  overlap.insert(overlap.end(), stored.hashes.begin(), stored.hashes.end());
  const auto surplus = static_cast<std::ptrdiff_t>(overlap.size() - std::min(overlap.size(), report::kOverlapRecords));
  overlap.erase(overlap.begin(), overlap.begin() + surplus);
  if (!trouble_.empty()) context_.log("report " + report_ + ": continues");
  trouble_.clear();
}

void ReportWork::Count(const InFlight& stored) {
  CountIn(context_.counters, stored.head);
  CountIn(sent_, stored.head);
  context_.counters.bytes += stored.bytes;
  if (stored.head.kind == MessageKind::kGap) {
    context_.log("report " + report_ + ": gap of " + std::to_string(stored.head.count) + " records from number " +
                 std::to_string(stored.head.first) + " on");
  }
}

SentReport ReportWork::Sent() const {
  return {.report = report_,
          .is_placed = sender_.Position().incarnation != 0,
          .next = sender_.Position().next,
          .counters = sent_,
          .trouble = trouble_};
}

void ReportWork::OnFailure(TimeMs now, const StreamReply& reply) {
  (void)sender_.Failed(now, reply.token);  // the token is the current one
  in_flight_.reset();
  held_.reset();
  ++context_.counters.refused;
  if (reply.kind == ReplyKind::kWrongLast) {
    ++context_.counters.conflicts;
    return;  // a late message of our own, or one of another sender: the look-up shows which
  }
  const std::string stream = context_.stream_settings.name;
  Trouble(reply.kind == ReplyKind::kNoStream ? "no stream takes " + subject_ + ": \"qxrelay stream create\" creates " +
                                                   stream + ", or its servers have no leader"
                                             : "the stream " + stream + " refuses a message: " + reply.text);
}

void ReportWork::Trouble(const std::string& text) {
  if (text == trouble_) return;
  trouble_ = text;
  context_.log("report " + report_ + ": " + text);
}

std::size_t ReportWork::TextBytesMax() const {
  const std::size_t overhead = kHeadBytes + report_.size() + kLengthBytesMax;
  return context_.payload_max > overhead ? context_.payload_max - overhead : 0;
}

// The limit of the texts of a message: the message also contains a length for each record, which can take as much
// memory as a short record.
std::size_t ReportWork::BatchBytes() const { return std::min(context_.settings.batch_bytes, TextBytesMax() / 2); }

}  // namespace qx::relay
