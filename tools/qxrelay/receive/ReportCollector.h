// Writes the messages of one report: decides with Decide, writes with CollectedFiles, and keeps messages that cannot be
// decided or written yet.
//
//   message --> queue --decided--> base, if needed --on the disk--> records --> header confirmed --> handled
//                 |
//                 +-- wait: an earlier message is missing; it stays in the queue
//                 +-- the system refuses: it stays in the queue, and the receiver tries again later
//                 +-- the files contradict it: the report is left alone, the message is handled without being written
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/receive/CollectedFiles.h"
#include "tools/qxrelay/receive/Decision.h"
#include "tools/qxrelay/receive/HoleSearch.h"
#include "tools/qxrelay/receive/ReceiveContext.h"
#include "tools/qxrelay/receive/ReportLimits.h"

namespace qx::relay {

// Threads: one thread. Owns: the report's files while they are open, and its queue. Borrows the context.
// Failure: the log, and State. Throws std::bad_alloc.
class ReportCollector {
 public:
  // `load` belongs to the host, and lives as long as the collector.
  ReportCollector(ReceiveContext& context, HostLoad& load, std::string host, std::string report);

  // Adds a message of this report to the queue. If the queue has it already, it gets the new receipt. [owning thread]
  void Add(StreamMessage message, DecodedMessage decoded);
  // Handles the messages of the queue as far as possible. [owning thread]
  void Work(TimeMs now);
  // Must be called after a sync: the base is then on the disk. [owning thread]
  void BaseSynced() { is_base_unsynced_ = false; }
  // Must be called if the stream was created again: drops the queue, and everything that is known from the sequences of
  // the earlier stream. [owning thread]
  void StreamReplaced();
  void CloseFiles() { files_.Close(); }

  [[nodiscard]] bool IsOpen() const { return files_.IsOpen(); }
  [[nodiscard]] bool HasQueue() const { return !queue_.empty(); }
  [[nodiscard]] bool WaitsForBase() const { return is_base_unsynced_; }
  [[nodiscard]] bool WaitsForProof() const { return state_ == CollectedState::kWaits; }
  // The search for messages before a hole. [owning thread]
  [[nodiscard]] HoleSearch& Holes() { return holes_; }
  // The subject of the report's messages. [owning thread]
  [[nodiscard]] std::string SubjectText() const;
  [[nodiscard]] CollectedReport Report() const;

 private:
  struct Queued {
    std::string payload;
    std::string receipt;
    MessageHead head;
    std::vector<std::string_view> texts;  // parts of the payload
    std::optional<std::uint64_t> before;
    std::uint64_t written = 0;  // records of the message that were written before the system refused

    [[nodiscard]] std::size_t Bytes() const { return payload.size() + texts.capacity() * sizeof(std::string_view); }
  };

  enum class Outcome : std::uint8_t { kDone, kWait, kStop };

  void WorkOnQueue(TimeMs now);
  void TrimQueue();
  void Forget(const Queued& message);
  [[nodiscard]] Outcome Handle(TimeMs now, std::uint64_t sequence, Queued& message);
  [[nodiscard]] Outcome Skip(const Queued& message);
  [[nodiscard]] CollectorFault OpenFiles();
  [[nodiscard]] CollectorFault ContinueFiles();
  [[nodiscard]] bool Adopt(const Queued& message, ReportPosition& position);
  [[nodiscard]] Outcome Take(TimeMs now, std::uint64_t sequence, Queued& message, const Decision& decision);
  [[nodiscard]] Outcome Write(TimeMs now, Queued& message, const Decision& decision);
  [[nodiscard]] Outcome Failed(TimeMs now, const CollectorFault& fault, const Queued& message);
  [[nodiscard]] Outcome Contradicted(TimeMs now, const Queued& message, const std::string& text);
  [[nodiscard]] bool IsNext(std::uint64_t sequence, const Queued& message) const;
  [[nodiscard]] bool MayBeElsewhere(const Queued& message);
  void Done(std::uint64_t sequence, Queued& message);
  void Trouble(const std::string& text);

  ReceiveContext& context_;
  HostLoad& load_;
  std::string host_;
  std::string report_;
  CollectedFiles files_;
  std::map<std::uint64_t, Queued> queue_;  // by sequence
  std::uint64_t last_sequence_ = 0;        // no message before it has records that the report needs
  HoleSearch holes_;
  CollectedState state_ = CollectedState::kFollows;
  std::string trouble_;
  TimeMs retry_at_ = 0;               // of a report that is left alone, or that another program writes
  std::optional<TimeMs> busy_since_;  // since another program writes it
  bool is_base_unsynced_ = false;
  bool needs_confirm_ = false;  // the last header may not be in the file
  bool needs_base_ = false;     // the base does not fit the count of the files, so a new base is written
  CollectedReport seen_;        // the figures that Report returns
};

}  // namespace qx::relay
