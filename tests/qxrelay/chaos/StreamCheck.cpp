#include "tests/qxrelay/chaos/StreamCheck.h"

#include <algorithm>
#include <utility>

#include "sdk/Reader.h"
#include "tests/qxrelay/chaos/ChaosRecord.h"
#include "tools/qxrelay/message/Subject.h"

namespace qx::chaos {

namespace {

using relay::MessageHead;
using relay::MessageKind;

constexpr std::string_view kPrefix = "qx";

// Compares the records of a collector's report with the records and gaps of the stream.
class CollectedCheck {
 public:
  CollectedCheck(ReportCheck& report, const ReadCopies& read_copies, std::function<void(const std::string&)> say,
                 Verdict& verdict)
      : report_(report),
        read_copies_(read_copies),
        say_(std::move(say)),
        verdict_(verdict),
        gap_(report.Gaps().begin()) {}

  void Take(std::string_view text) {
    ++verdict_.records;
    SkipGaps();
    const std::optional<std::uint64_t> number = NumberOfRecord(report_.Report().FullName(), text);
    if (!number.has_value()) return TakeTorn();
    if (*number < end_) {
      ++verdict_.repeated;
      return Say(std::to_string(*number));
    }
    end_ = *number + 1;
    if (*number < next_) {
      ++verdict_.of_one_copy;
    } else {
      Advance(*number);
    }
  }

  void Finish() {
    SkipGaps();
    const std::uint64_t count = report_.Report().Count();
    if (next_ == count) return;
    verdict_.lost += count - next_;
    say_("ends at " + std::to_string(next_) + " of " + std::to_string(count));
  }

 private:
  void Say(const std::string& what) const { say_("record " + std::to_string(next_) + " is " + what); }

  void SkipGaps() {
    for (; gap_ != report_.Gaps().end() && gap_->first == next_; ++gap_) next_ = gap_->next;
  }

  void TakeTorn() {
    ++verdict_.torn;
    Say("torn");
    ++next_;
  }

  // Counts the records before `number` as lost, unless another copy of the stream has a gap for them.
  void Advance(std::uint64_t number) {
    if (number > next_ && !report_.IsGapOfACopy(next_, number)) TakeGapsOfCopies(number);
    if (number > next_ && !report_.IsGapOfACopy(next_, number)) {
      verdict_.lost += number - next_;
      Say(std::to_string(number));
    }
    next_ = number + 1;
    while (gap_ != report_.Gaps().end() && gap_->first < next_) ++gap_;
  }

  // Reads the gaps of other copies: such a copy may have a gap under the sequence under which the checked copy has the
  // records.
  void TakeGapsOfCopies(std::uint64_t number) {
    for (const relay::StreamMessage& stored : read_copies_(report_.SequencesAround(next_, number))) {
      const std::optional<relay::Subject> subject = relay::SubjectOfText(kPrefix, stored.subject);
      const relay::DecodedMessage message = relay::DecodeMessage(stored.payload);
      if (!subject.has_value() || message.fault != relay::MessageFault::kNone) continue;
      if (subject->host + "/" + subject->report != report_.Report().FullName()) continue;
      if (message.head.kind == MessageKind::kGap) report_.TakeGapOfACopy(message.head, verdict_);
    }
  }

  ReportCheck& report_;
  const ReadCopies& read_copies_;
  std::function<void(const std::string&)> say_;
  Verdict& verdict_;
  std::vector<Range>::const_iterator gap_;
  std::uint64_t next_ = 0;  // the next number of the stream, after the gaps
  std::uint64_t end_ = 0;   // the number after that of the newest record
};

std::string Place(const ChaosReport& report, std::uint64_t number) {
  return report.FullName() + " record " + std::to_string(number);
}

}  // namespace

void ReportCheck::Take(const MessageHead& head, const std::vector<std::string_view>& texts, std::uint64_t sequence,
                       Verdict& verdict) {
  if (incarnation_ == 0) {
    // The records that the ring had overwritten before a sender first read the report are in no message.
    incarnation_ = head.incarnation;
    if (head.first > 0) TakeLoss(head.first, head, verdict);
  }
  if (head.incarnation != incarnation_ || head.report != report_.Name()) {
    ++verdict.foreign;
    return say_(report_.FullName() + ": a new incarnation, although the store was never started over");
  }
  if (head.first > next_) {
    ++verdict.out_of_order;
    return say_(Place(report_, next_) + ": the stream continues with " + std::to_string(head.first));
  }
  if (head.kind == MessageKind::kGap) TakeGap(head, verdict);
  if (head.kind == MessageKind::kRecords) TakeRecords(head, texts, verdict);
  messages_[sequence] = {head.first, head.Next()};
}

void ReportCheck::TakeGap(const MessageHead& head, Verdict& verdict) {
  if (head.first < next_) TakeGapOfACopy(head, verdict);  // it came again, or one copy of the stream has the records
  if (head.Next() > next_) TakeLoss(head.Next(), head, verdict);
}

void ReportCheck::TakeGapOfACopy(const MessageHead& head, Verdict& verdict) {
  const Range gap = {head.first, head.Next()};
  if (std::find(gaps_of_copies_.begin(), gaps_of_copies_.end(), gap) != gaps_of_copies_.end()) return;
  gaps_of_copies_.push_back(gap);
  for (std::uint64_t number = gap.first; number < gap.next; ++number) {
    if (!report_.WasLost(number, head.sent_ms)) ++verdict.lost;
  }
}

Range ReportCheck::SequencesAround(std::uint64_t first, std::uint64_t next) const {
  Range around = {1, 1};
  for (const auto& [sequence, records] : messages_) {
    if (records.next <= first) around.first = sequence + 1;
    around.next = sequence;
    if (records.first >= next) break;
  }
  return around;
}

bool ReportCheck::IsGapOfACopy(std::uint64_t first, std::uint64_t next) const {
  return std::any_of(gaps_of_copies_.begin(), gaps_of_copies_.end(),
                     [&](const Range& gap) { return gap.first <= first && next <= gap.next; });
}

// The records up to `next` are counted as lost. The ring must have overwritten them when the message was made.
void ReportCheck::TakeLoss(std::uint64_t next, const MessageHead& head, Verdict& verdict) {
  gaps_.push_back({next_, next});
  ++verdict.gaps;
  verdict.gap_records += next - next_;
  for (std::uint64_t number = next_; number < next; ++number) {
    if (report_.WasLost(number, head.sent_ms)) continue;
    ++verdict.lost;
    say_(Place(report_, number) + ": lost, although the ring held it; the gap ends at " + std::to_string(next));
  }
  next_ = next;
}

void ReportCheck::TakeRecords(const MessageHead& head, const std::vector<std::string_view>& texts, Verdict& verdict) {
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const std::uint64_t number = head.first + i;
    const std::optional<std::uint64_t> named = NumberOfRecord(report_.FullName(), texts[i]);
    if (!named.has_value()) {
      ++verdict.torn;
      say_(Place(report_, number) + " is torn: " + std::string(texts[i]));
    } else if (*named != number) {
      ++verdict.out_of_order;
      say_(Place(report_, number) + " is record " + std::to_string(*named));
    }
    if (number < next_) {
      ++verdict.repeats;
      continue;
    }
    ++verdict.records;
    next_ = number + 1;
  }
}

void ReportCheck::Finish(Verdict& verdict) {
  const std::uint64_t count = report_.Count();
  if (next_ == count) return;
  verdict.lost += count > next_ ? count - next_ : 0;
  verdict.foreign += count < next_ ? 1 : 0;
  say_(report_.FullName() + ": the stream ends at " + std::to_string(next_) + " of " + std::to_string(count));
}

StreamCheck::StreamCheck(const std::vector<ChaosReport*>& reports, std::function<void(const std::string&)> say)
    : say_(std::move(say)) {
  for (ChaosReport* const report : reports) reports_.try_emplace(report->FullName(), *report, say_);
}

bool StreamCheck::IsHoleBefore(const relay::StreamMessage& stored) const {
  const std::optional<relay::Subject> subject = relay::SubjectOfText(kPrefix, stored.subject);
  const relay::DecodedMessage message = relay::DecodeMessage(stored.payload);
  if (!subject.has_value() || message.fault != relay::MessageFault::kNone) return false;
  if (subject->branch != relay::Branch::kReport) return false;
  const auto report = reports_.find(subject->host + "/" + subject->report);
  return report != reports_.end() && report->second.IsHoleBefore(message.head);
}

void StreamCheck::Take(const relay::StreamMessage& stored) {
  ++verdict_.messages;
  const std::optional<relay::Subject> subject = relay::SubjectOfText(kPrefix, stored.subject);
  const relay::DecodedMessage message = relay::DecodeMessage(stored.payload);
  const bool is_message = subject.has_value() && message.fault == relay::MessageFault::kNone;
  if (is_message && subject->branch != relay::Branch::kReport) return;
  const auto report = is_message ? reports_.find(subject->host + "/" + subject->report) : reports_.end();
  if (report == reports_.end()) {
    ++verdict_.foreign;
    return say_("a foreign message: " + stored.subject);
  }
  report->second.Take(message.head, message.texts, stored.sequence, verdict_);
}

bool StreamCheck::IsComplete() {
  for (auto& [name, report] : reports_) {
    if (!report.IsComplete()) return false;
  }
  return true;
}

const Verdict& StreamCheck::Finish() {
  for (auto& [name, report] : reports_) report.Finish(verdict_);
  return verdict_;
}

void CheckCollected(const std::string& path, ReportCheck& report, const ReadCopies& read_copies,
                    const std::function<void(const std::string&)>& say, Verdict& verdict) {
  Reader reader;
  if (const Error error = reader.Open(path); error.Failed()) {
    verdict.lost += report.Report().Count();
    return say(path + ": " + error.text);
  }
  CollectedCheck check(
      report, read_copies, [&](const std::string& text) { say(path + ": " + text); }, verdict);
  for (const RecordView& record : reader) check.Take(record.text);
  check.Finish();
}

}  // namespace qx::chaos
