// Runs the sender of one report: carries out what ReportSender decides.
//
// It opens the store for each step, so it always reads the files that have the path at this moment. No file stays open.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/send/ReportSender.h"
#include "tools/qxrelay/send/RunReader.h"
#include "tools/qxrelay/send/SendContext.h"
#include "tools/qxrelay/send/SentReport.h"

namespace qx::relay {

// Threads: one thread. Owns: the records after a gap, until the gap is stored.
// Failure: the log, and the counters. Throws std::bad_alloc.
class ReportWork {
 public:
  // `report` is a name with a subject (TextOfSubject), `owner` the number in its tokens.
  ReportWork(SendContext& context, std::string report, std::size_t owner);

  // Carries out the actions that are due. To be called again at Wake, or after a reply. [owning thread]
  void Step(TimeMs now);
  [[nodiscard]] TimeMs Wake() const { return wake_; }

  // Must be called when a look-up is free for this report. [owning thread]
  void LookUpFree(TimeMs now) {
    waits_for_look_up_ = false;
    wake_ = now;
  }
  // Nothing is sent any more. [owning thread]
  void Stop() { sender_.Stop(); }
  void Connected(TimeMs now);
  void Disconnected();
  // The reply to a request of this report; answers to earlier tries are ignored. [owning thread]
  void OnReply(TimeMs now, const StreamReply& reply);

  [[nodiscard]] const std::string& Name() const { return report_; }
  [[nodiscard]] const ReportSender& Sender() const { return sender_; }
  [[nodiscard]] bool IsPublishing() const { return in_flight_.has_value(); }
  // The counters of the report since the start of the sender. [owning thread]
  [[nodiscard]] SentReport Sent() const;

 private:
  // The data of the message in flight that is needed when it is stored.
  struct InFlight {
    std::uint64_t token = 0;
    MessageHead head;
    std::size_t bytes = 0;
    std::vector<std::uint64_t> hashes;  // of its last records
    CountedBytes kept;
  };

  struct HeldRun {
    RecordRun run;
    CountedBytes kept;
  };

  // The state of the index file when the store had nothing to send, or only records that wait for others.
  struct Seen {
    Examination found;
    report::IndexHeader header;
    std::optional<struct stat> status;  // if nothing was written for some time before
    TimeMs until = 0;                   // from then on the store is opened, even if the file looks the same
  };

  void Act(TimeMs now, const Action& action);
  void LookUp(TimeMs now);
  void ReleaseLookUp();
  void FindItsPlace(TimeMs now);
  void Examine(TimeMs now);
  [[nodiscard]] Examination ExamineStore();
  [[nodiscard]] bool IsAsLastSeen(TimeMs now);
  [[nodiscard]] bool IsHeaderAsSeen() const;
  void RememberSeen(TimeMs now, const Examination& found);
  void SendRecords(TimeMs now);
  void SendGap(TimeMs now, std::uint64_t oldest);
  void SendRun(TimeMs now, RecordRun run);
  void Hold(RecordRun run);
  void PublishGap(TimeMs now, std::uint64_t count, GapReason reason);
  void PublishRun(TimeMs now, const RecordRun& run);
  void Publish(TimeMs now, const MessageHead& head, const RecordRun& run, std::uint64_t hash_after);
  [[nodiscard]] MessageHead HeadOf(MessageKind kind, std::uint64_t count) const;
  void OnNewest(TimeMs now, const StreamReply& reply);
  [[nodiscard]] bool IsRivalOfUs(TimeMs now, const StreamReply& reply, const MessageHead& newest);
  void OnStored(TimeMs now, const StreamReply& reply);
  void Count(const InFlight& stored);
  void OnFailure(TimeMs now, const StreamReply& reply);
  void Trouble(const std::string& text);
  [[nodiscard]] std::size_t BatchBytes() const;
  [[nodiscard]] std::size_t TextBytesMax() const;

  SendContext& context_;
  std::size_t owner_;
  std::string report_;
  std::string subject_;
  std::string path_;
  ReportSender sender_;
  RunReader reader_;
  RecordRange range_;  // of the last examination
  std::optional<Seen> seen_;
  std::optional<Mark> newest_;   // of the newest message
  std::optional<HeldRun> held_;  // records after the gap that is in flight
  std::optional<InFlight> in_flight_;
  ReportState& known_;  // the position, and the last sent records, in the state directory
  SentCounters sent_;
  std::string trouble_;  // logged last; empty: there is no trouble
  TimeMs wake_ = 0;
  std::uint64_t awaited_change_ = 0;  // of the state directory, before the next message
  bool has_look_up_ = false;
  bool waits_for_look_up_ = false;
};

}  // namespace qx::relay
