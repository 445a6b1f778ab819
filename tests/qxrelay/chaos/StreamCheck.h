// Checks the messages in the order of the stream, and then each report.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/qxrelay/chaos/ChaosWriter.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/stream/Stream.h"

namespace qx::chaos {

// The number of broken promises, and of events that are allowed.
struct Verdict {
  std::uint64_t lost = 0;          // records that a ring held until the end, or when a gap was sent for them
  std::uint64_t repeated = 0;      // records of a collector's report that do not follow the one before
  std::uint64_t out_of_order = 0;  // records, or messages that begin after the next record
  std::uint64_t torn = 0;          // records whose text is not the one that their writer appended
  std::uint64_t foreign = 0;       // messages that no sender sends, incarnations that nobody began
  std::uint64_t records = 0;
  std::uint64_t messages = 0;
  std::uint64_t repeats = 0;  // records that came again in the stream: allowed
  std::uint64_t gaps = 0;
  std::uint64_t gap_records = 0;
  std::uint64_t of_one_copy = 0;  // records of a collector in gaps: another copy of the stream has them

  [[nodiscard]] bool IsKept() const { return lost + repeated + out_of_order + torn + foreign == 0; }
};

// A run of numbers.
struct Range {
  std::uint64_t first = 0;
  std::uint64_t next = 0;

  friend bool operator==(const Range&, const Range&) = default;
};

// One report in the stream. Threads: one thread.
class ReportCheck {
 public:
  ReportCheck(ChaosReport& report, std::function<void(const std::string&)> say)
      : report_(report), say_(std::move(say)) {}

  void Take(const relay::MessageHead& head, const std::vector<std::string_view>& texts, std::uint64_t sequence,
            Verdict& verdict);
  // Takes a gap message that only other copies of the stream have.
  void TakeGapOfACopy(const relay::MessageHead& head, Verdict& verdict);
  // Whether records before the message are missing.
  [[nodiscard]] bool IsHoleBefore(const relay::MessageHead& head) const {
    return head.incarnation == incarnation_ && head.first > next_;
  }
  // Whether the stream has, or counts as lost, everything that was written.
  [[nodiscard]] bool IsComplete() { return next_ == report_.Count(); }
  // Checks how many of the newest records are not in the stream.
  void Finish(Verdict& verdict);

  [[nodiscard]] const std::vector<Range>& Gaps() const { return gaps_; }
  // Whether a gap message has these records, which another copy of the stream has. A leader that was stopped may have
  // stored them alone: a collector that reads another copy has the gap.
  [[nodiscard]] bool IsGapOfACopy(std::uint64_t first, std::uint64_t next) const;
  // The sequences between the messages that are before and after these records.
  [[nodiscard]] Range SequencesAround(std::uint64_t first, std::uint64_t next) const;
  [[nodiscard]] ChaosReport& Report() const { return report_; }

 private:
  void TakeLoss(std::uint64_t next, const relay::MessageHead& head, Verdict& verdict);
  void TakeGap(const relay::MessageHead& head, Verdict& verdict);
  void TakeRecords(const relay::MessageHead& head, const std::vector<std::string_view>& texts, Verdict& verdict);

  ChaosReport& report_;
  std::function<void(const std::string&)> say_;
  std::uint64_t incarnation_ = 0;
  std::uint64_t next_ = 0;
  std::vector<Range> gaps_;
  std::vector<Range> gaps_of_copies_;        // of gap messages for records that were taken before
  std::map<std::uint64_t, Range> messages_;  // the records in each message, by its sequence
};

// All reports. Threads: one thread.
class StreamCheck {
 public:
  StreamCheck(const std::vector<ChaosReport*>& reports, std::function<void(const std::string&)> say);

  [[nodiscard]] bool IsHoleBefore(const relay::StreamMessage& message) const;
  // A message in the order of the stream.
  void Take(const relay::StreamMessage& message);
  [[nodiscard]] bool IsComplete();
  const Verdict& Finish();

  [[nodiscard]] std::map<std::string, ReportCheck>& Reports() { return reports_; }

 private:
  std::function<void(const std::string&)> say_;
  std::map<std::string, ReportCheck> reports_;  // by host and report
  Verdict verdict_;
};

// The messages that the servers' copies of the stream have under these sequences.
using ReadCopies = std::function<std::vector<relay::StreamMessage>(Range sequences)>;

// A collector's report must have the records that are not in a gap, in order. It may have some of a gap as well, if the
// collector read a copy of the stream that has them.
void CheckCollected(const std::string& path, ReportCheck& report, const ReadCopies& read_copies,
                    const std::function<void(const std::string&)>& say, Verdict& verdict);

}  // namespace qx::chaos
