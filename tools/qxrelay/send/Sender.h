// Runs the sender of a host: follows the reports of a directory and sends them to the stream.
//
// It has no thread and no clock of its own: Step does what is due and returns the time of its next call.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/qxrelay/send/HostWatch.h"
#include "tools/qxrelay/send/ReportWork.h"
#include "tools/qxrelay/send/SendContext.h"
#include "tools/qxrelay/send/SideMessage.h"

namespace qx::relay {

// Threads: one thread.
// Owns: the senders of the reports. Borrows the context.
// Failure: the log; the sender continues after every failure. Throws std::bad_alloc.
class Sender {
 public:
  // Connects at a random time within the spread time. `labels` are those of the settings.
  Sender(SendContext& context, TimeMs now, std::vector<std::string> labels);

  // Handles replies and does what is due. Returns the time of the next call; replies that come earlier need an earlier
  // call.
  // [owning thread]
  [[nodiscard]] TimeMs Step(TimeMs now);

  // From now on nothing is sent; Step handles the replies. [owning thread]
  void BeginStop() { is_stopping_ = true; }
  // Whether a message is in flight. [owning thread]
  [[nodiscard]] bool IsBusy() const;
  // Writes the positions to the state directory and closes the connection. [owning thread]
  void Finish();

  // The number of reports, and the number of those whose sender is stopped. [owning thread]
  [[nodiscard]] std::size_t Reports() const { return works_.size(); }
  [[nodiscard]] std::size_t Stopped() const;
  // If another sender was found, and so nothing is sent any more, a text that says so and what to do. Otherwise empty.
  // [owning thread]
  [[nodiscard]] std::string RivalText() const { return TextOfRival(context_.rival, context_.host); }
  [[nodiscard]] bool IsConnected() const { return is_connected_; }
  // The problem that stops all reports, and what to do; empty if there is no such problem. [owning thread]
  [[nodiscard]] std::string Problem() const;
  // One text for the operator for each limit that leaves something out. [owning thread]
  [[nodiscard]] std::vector<std::string> Findings() const;
  // The counters of each report. [owning thread]
  [[nodiscard]] std::vector<SentReport> Sent() const;

 private:
  // A report, and the message with its names file.
  struct Entry {
    ReportWork work;
    SideMessage names;
    std::string names_seen;  // size, times and file of the names file
    std::size_t names_bytes = 0;
    std::optional<TimeMs> due;  // the time of its next step, under which it is in the queue

    Entry(SendContext& context, const std::string& report, const std::string& names_subject, std::size_t owner)
        : work(context, report, owner), names(context, names_subject, owner) {}
  };

  // Puts the report into the queue at the time of its next step. Must be called after each change of this time.
  void Queue(std::size_t index);
  void QueueAll();
  void WakeForLookUps(TimeMs now);
  void StepDue(TimeMs now);
  void TakeReplies(TimeMs now);
  void OnReply(TimeMs now, const StreamReply& reply);
  void OnRival(TimeMs now, Rival rival);
  void StopAll();
  void Disconnected(TimeMs now);
  void Connect(TimeMs now);
  void Rescan(TimeMs now);
  void Add(TimeMs now, const std::string& report);
  [[nodiscard]] TimeMs SaveDue() const;
  void SaveState(TimeMs now);
  void ReadNames(TimeMs now, std::size_t index);
  [[nodiscard]] bool TakeNamesBytes(Entry& entry, std::size_t bytes);
  [[nodiscard]] std::string AboutMessage() const;
  [[nodiscard]] std::string SilenceText() const;
  void LogOnce(const std::string& text);

  SendContext& context_;
  std::vector<std::string> labels_;
  std::vector<std::unique_ptr<Entry>> works_;  // owner n of a token is at n - 1
  // The time of the next step of each report, and its index in works_. A step must not visit the thousands that wait.
  std::set<std::pair<TimeMs, std::size_t>> queue_;
  std::vector<std::size_t> due_now_;
  std::set<std::string> known_;  // the names of reports, also of those that cannot be relayed
  std::size_t left_out_ = 0;     // reports over the limit, in the last scan
  std::size_t names_bytes_ = 0;  // of all names files that are in memory
  std::size_t names_left_out_ = 0;
  SideMessage about_;  // set after the first check, if it found no other sender
  HostWatch watch_;
  std::vector<StreamReply> replies_;
  TimeMs connect_at_;
  TimeMs rescan_at_;
  TimeMs saved_at_;  // when the state directory was written
  std::uint32_t connect_failures_ = 0;
  std::string connect_problem_;  // of the last try; empty after a success
  bool is_connected_ = false;
  bool is_stopping_ = false;
  bool has_stopped_ = false;      // for good, because of another sender
  std::set<std::string> logged_;  // problems that are logged once; a bounded number of them
};

}  // namespace qx::relay
