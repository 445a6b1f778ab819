// The counters of a receiver since its start, for all reports together and for each: plain data for those who show it.
//
// The receiver returns it as values (Receiver::Reports, Receiver::Counters). The caller decides how often to show it,
// and where to keep it. <root>/.qxrelay/ is a place for it: it belongs to the receiver of the root, and no host can
// have that name.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx::relay {

// The directory below the root for everything that is not a report: the lock, the labels of the hosts (about/HOST, one
// "name=value" for each line), and the status file of the receiver.
inline constexpr std::string_view kReceiverDirectory = ".qxrelay";

enum class CollectedState : std::uint8_t {
  kFollows,    // new messages are written
  kWaits,      // an earlier message is missing: the later ones are neither written nor acknowledged
  kHeld,       // the system refuses to write (a full disk): nothing is acknowledged, and it is tried again
  kLeftAlone,  // the files are not what the receiver left: its messages are acknowledged and not written
};

// Counters of a report since the start of the receiver, unless a comment says otherwise.
struct CollectedCounters {
  std::uint64_t records = 0;      // written
  std::uint64_t messages = 0;     // handled: written, or all their records were in the report already
  std::uint64_t bytes = 0;        // of the written records
  std::uint64_t gap_records = 0;  // counted as lost, for any reason
  std::uint64_t missing = 0;      // of the lost records: neither the stream nor the report has them any more
  std::uint64_t repeats = 0;      // records that came again and were dropped
  std::uint64_t skipped = 0;      // records that were acknowledged and not written, because the report is left alone;
                                  // once it can be written again, they are read again or counted as a gap
  std::uint64_t gap_records_ever = 0;  // like gap_records, since the report is on this collector

  friend bool operator==(const CollectedCounters&, const CollectedCounters&) = default;
};

// One report of one host.
struct CollectedReport {
  std::string host;
  std::string report;
  CollectedState state = CollectedState::kFollows;
  std::string trouble;     // why the report does not continue, for the operator; empty if it does
  bool is_placed = false;  // the position is known; otherwise `next` means nothing
  std::uint64_t incarnation = 0;
  std::uint64_t next = 0;              // number of the record after the last one that is written or counted as lost
  std::uint64_t waiting_messages = 0;  // messages after a hole
  std::uint64_t waiting_first = 0;     // number of the first record after the hole: `next` up to here are missing
  // These three are from the newest message of the report; 0 before the first message since the start.
  std::uint64_t store_next = 0;  // number of the record that the host's writer appended next
  std::uint32_t ring_slots = 0;  // of the host's ring
  std::int64_t sent_ms = 0;      // when the message was sent, in milliseconds since 1970, by the host's clock
  CollectedCounters counters;
};

// The counters of the receiver as a whole.
struct ReceiverCounters {
  std::uint64_t messages = 0;      // fetched
  std::uint64_t acknowledged = 0;  // messages
  std::uint64_t refused = 0;       // messages that are no messages of a sender, and will not come again
  std::uint64_t left_out = 0;      // records whose report would be over a limit: acknowledged and not written
  std::uint64_t redelivered = 0;   // messages that came for the second time or more
  std::uint64_t read_again = 0;    // messages before a hole that the consumer lacked and a copy of the stream had
  std::uint64_t syncs = 0;         // of the file system
  std::uint64_t failed_syncs = 0;
  std::uint64_t connects = 0;
  std::uint64_t opens = 0;    // of reports
  std::uint64_t pending = 0;  // messages of the stream after the last one that this collector has fetched
};

}  // namespace qx::relay
