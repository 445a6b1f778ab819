// The figures of a sender or a receiver and of its reports ("flow"): plain data. The command `status` shows them, the
// status file contains them, and the metrics are made from them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx::relay {

enum class ServiceKind : std::uint8_t { kSender, kReceiver };

// "sender", "receiver"
[[nodiscard]] constexpr std::string_view NameOf(ServiceKind kind) {
  return kind == ServiceKind::kSender ? "sender" : "receiver";
}

// The figures of a report. Counts begin at the start of the service. A figure that the service cannot know is unset.
struct ReportFlow {
  std::string host;
  std::string report;
  std::string trouble;                       // why the report does not continue; empty if it does
  std::optional<std::uint64_t> lag_records;  // in the host's ring, not sent or not collected yet
  std::optional<std::int64_t> lag_ms;        // approximate age of the oldest of these records; 0 if no record waits
  std::optional<double> records_per_second;  // appended by the host's writer
  std::optional<double> overtaken_in_s;      // until the ring overwrites an unsent record, if nothing is sent meanwhile
  std::optional<std::uint64_t> ring_slots;   // of the host's ring
  std::uint64_t records = 0;                 // sent, or written on the collector
  std::uint64_t gap_records = 0;             // lost, and counted as lost
  std::uint64_t holes = 0;                   // of a receiver: missing records that may still come
  std::uint64_t repeats = 0;                 // of a receiver: records that came again and were dropped

  friend bool operator==(const ReportFlow&, const ReportFlow&) = default;
};

// Sets overtaken_in_s from ring, lag and rate; unset without a rate. The oldest record of a full ring counts as
// overwritten, because the writer may be replacing it. [any thread]
//   4 slots, 1 record waits, 2 records a second => 1 s    4 slots, 3 or more wait => 0 s
void SetOvertaken(ReportFlow& flow);

struct ServiceFlow {
  ServiceKind kind = ServiceKind::kSender;
  std::string name;             // of the host or the collector
  std::int64_t time_ms = 0;     // time of these figures, in milliseconds since 1970
  std::int64_t started_ms = 0;  // when the service was started; 0: it is not running
  bool is_connected = false;
  std::string problem;                                          // the problem that stops all reports; empty: no problem
  std::vector<std::string> findings;                            // one text for each limit that leaves something out
  std::vector<std::pair<std::string, std::uint64_t>> counters;  // of the service as a whole, by their names
  std::vector<ReportFlow> reports;                              // in the order of hosts and reports

  friend bool operator==(const ServiceFlow&, const ServiceFlow&) = default;
};

}  // namespace qx::relay
