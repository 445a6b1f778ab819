// Runs the receiver of a collector: fetches the messages of all hosts, and writes their reports below one root.
//
// It has no thread and no clock of its own: Step fetches, writes, syncs and acknowledges what is due. A message is
// acknowledged only after its records were written and the file system was synced.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/receive/ReceiveContext.h"
#include "tools/qxrelay/receive/ReportCollector.h"
#include "tools/qxrelay/receive/ReportLimits.h"

namespace qx::relay {

// Threads: one thread.
// Owns: the collectors of the reports. Borrows the context.
// Failure: the log; the receiver continues after every failure. Throws std::bad_alloc.
class Receiver {
 public:
  Receiver(ReceiveContext& context, std::string name);

  // Waits for messages, at most `wait` milliseconds, and does what is due. Returns the time of the next call: now, or
  // later after a failure. [owning thread]
  [[nodiscard]] TimeMs Step(TimeMs now, TimeMs wait);

  // Writes, syncs and acknowledges what was fetched, as far as it can, and closes everything. [owning thread]
  void Finish(TimeMs now);

  [[nodiscard]] bool IsConnected() const { return is_connected_; }
  [[nodiscard]] const ReceiverCounters& Counters() const { return context_.counters; }
  // A text for the operator for each limit that has left something out. [owning thread]
  [[nodiscard]] std::vector<std::string> Findings() const { return limits_.Findings(); }
  // All reports, in the order of hosts and reports. [owning thread]
  [[nodiscard]] std::vector<CollectedReport> Reports() const;
  // The problem that stops all reports, such as a lost connection or a full disk. Empty if there is no such problem.
  // [owning thread]
  [[nodiscard]] const std::string& Problem() const { return problem_; }

 private:
  struct Entry {
    ReportCollector collector;
    std::list<Entry*>::iterator opened = {};  // in opened_, if is_opened
    bool is_opened = false;
    std::uint64_t names_sequence = 0;  // of the names that were written last

    Entry(ReceiveContext& context, HostLoad& load, const std::string& host, const std::string& report)
        : collector(context, load, host, report) {}
  };

  void Connect(TimeMs now);
  void Disconnected(TimeMs now, const std::string& problem);
  void Fetch(TimeMs now, TimeMs wait);
  void Sort(StreamMessage message);
  void Refuse(const StreamMessage& message, const std::string& why);
  void TakeSide(const StreamMessage& message, const Subject& subject, const DecodedMessage& decoded);
  void LeaveOut(const StreamMessage& message);
  [[nodiscard]] Entry* EntryOf(const Subject& subject, std::uint64_t records);
  void WorkOn(TimeMs now, Entry& entry);
  void WorkOnTouched(TimeMs now);
  void Pause(TimeMs now);
  void Continue(TimeMs now);
  void SyncBases(TimeMs now);
  void SyncIfDue(TimeMs now);
  [[nodiscard]] bool Sync(TimeMs now);
  void Acknowledge();
  void ReadState(TimeMs now);
  void SeekInCopies(TimeMs now);
  [[nodiscard]] bool SeekFor(TimeMs now, Entry& entry, std::uint64_t sequence);
  void Trouble(const std::string& problem);
  void LogOnce(const std::string& text);

  ReceiveContext& context_;
  std::string name_;
  ReportLimits limits_;
  std::map<std::pair<std::string, std::string>, std::unique_ptr<Entry>> entries_;
  std::list<Entry*> opened_;  // reports with open files, the last used one first
  std::set<Entry*> touched_;  // reports with something to do
  std::vector<StreamMessage> messages_;
  std::vector<StreamMessage> sides_;  // names and labels that the system refused to write
  std::set<std::uint64_t> newer_;     // messages of a later version, which wait for an upgrade
  TimeMs connect_at_ = 0;
  TimeMs continue_at_ = 0;  // after the system refused to write
  TimeMs synced_at_ = 0;
  TimeMs state_at_ = 0;
  TimeMs seek_at_ = 0;
  std::uint32_t failures_ = 0;  // of connects, in a row
  std::uint32_t write_failures_ = 0;
  bool is_connected_ = false;
  std::string problem_;
  std::string sync_problem_;      // of the last sync; empty if it succeeded
  std::set<std::string> logged_;  // problems that are logged once; a bounded number of them
};

}  // namespace qx::relay
