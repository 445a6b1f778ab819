// Limits the hosts and reports of a collector: a host that invents names must not fill its disk or memory.
//
// Hosts and reports that are below the root at the start count, and continue whatever the limits are. Another host or
// report above a limit is not created: its messages are acknowledged and not written. They are counted here, and
// Findings reports them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/receive/CollectorRoot.h"

namespace qx::relay {

// The data of one host that a receiver keeps in memory.
struct HostLoad {
  std::set<std::string> reports;  // on the collector
  std::size_t queued_bytes = 0;   // of messages that wait in memory
};

// Threads: one thread. Owns: the names of hosts and reports, as many as the limits and the root allow.
// Throws std::bad_alloc.
class ReportLimits {
 public:
  // `log` gets one line for each limit and each host that reaches it.
  ReportLimits(const ReceiveSettings& settings, std::function<void(const std::string&)> log)
      : settings_(settings), log_(std::move(log)) {}

  // Counts the hosts and reports below the root. [owning thread]
  void CountRoot(const CollectorRoot& root);

  // The host, if it is known or one more may be created; otherwise null, and its messages are left out. [owning thread]
  [[nodiscard]] HostLoad* Host(const std::string& host);
  // The host of the report, if the report is known or one more may be created. Otherwise null, and `records` of it are
  // counted as left out. [owning thread]
  [[nodiscard]] HostLoad* Report(const std::string& host, const std::string& report, std::uint64_t records);

  // A line for each limit that was reached, with the number of lost records. The number of lines is limited. [owning
  // thread]
  [[nodiscard]] std::vector<std::string> Findings() const;
  // Records that were left out. [owning thread]
  [[nodiscard]] std::uint64_t LeftOut() const { return left_out_; }

 private:
  void LeaveOut(const std::string& key, const std::string& finding, std::uint64_t records);

  struct Cost {
    std::string finding;
    std::uint64_t records = 0;
  };

  const ReceiveSettings& settings_;
  std::function<void(const std::string&)> log_;
  std::map<std::string, HostLoad> hosts_;
  std::size_t reports_ = 0;            // of all hosts
  std::map<std::string, Cost> costs_;  // by the host; the empty name has the cost of hosts that are not known
  std::uint64_t left_out_ = 0;
};

}  // namespace qx::relay
