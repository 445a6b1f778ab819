// Makes the texts of records from the contents of files in /proc.
//
//   load          load1=0.12 load5=0.31 load15=0.25 running=1 tasks=234
//   memory        used_kB=812345 available_kB=7123456 swap_used_kB=0
//   disk/sda      read_kB_s=12.0 written_kB_s=3.5 busy_percent=1.2
//   network/eth0  received_kB_s=1.5 sent_kB_s=0.3 errors=0
//
// The kernel has counters for disks and interfaces, and their records have the growth per second. So these records
// begin with the second sample. No file is read or written here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qx::agent {

// The largest number of disks that get a report, and of interfaces: virtual devices may come and go in large numbers.
inline constexpr std::size_t kDevicesMax = 64;

// The contents of the files. For a text that cannot be parsed there is no record.
struct ProcTexts {
  std::string loadavg = {};
  std::string meminfo = {};
  std::string diskstats = {};
  std::string net_dev = {};
};

struct Sample {
  std::string report;  // below the directory of the agent
  std::string text;
};

// Threads: one thread.
class Samples {
 public:
  // The records of this moment; `seconds` is the time since the last call. [owning thread]
  [[nodiscard]] std::vector<Sample> Take(const ProcTexts& texts, double seconds);

 private:
  using Counters = std::map<std::string, std::vector<std::uint64_t>>;

  Counters disks_;
  Counters interfaces_;
};

// Whether a device gets a report: its name can be the name of a report, and it is not a loop device, a RAM disk, a
// loopback interface, or an interface of a container or virtual machine (which gets a new name at each start). [any
// thread]
[[nodiscard]] bool IsSampledDisk(std::string_view name);
[[nodiscard]] bool IsSampledInterface(std::string_view name);

}  // namespace qx::agent
