// The counters of a sender for one report since its start: plain data for status and metrics.
#pragma once

#include <cstdint>
#include <string>

namespace qx::relay {

// Counters of stored messages.
struct SentCounters {
  std::uint64_t records = 0;
  std::uint64_t messages = 0;
  std::uint64_t gap_records = 0;  // counted as lost, for any reason
  std::uint64_t over_limit = 0;   // of the lost records: they are larger than a message may be
  std::uint64_t unreadable = 0;   // of the lost records: the files have no text of them

  friend bool operator==(const SentCounters&, const SentCounters&) = default;
};

struct SentReport {
  std::string report;
  bool is_placed = false;  // the place in the store is known; otherwise `next` means nothing
  std::uint64_t next = 0;  // number of the record after the last stored one
  SentCounters counters;
  std::string trouble;  // why the report does not continue; empty if it does
};

}  // namespace qx::relay
