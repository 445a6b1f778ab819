// The reports of one host and the thread that appends to them, through qx::Writer.
//
// It also stores when each append began, so that a check can compute which records a ring had at any moment.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sdk/Writer.h"

namespace qx::chaos {

// One report. Threads: its writer appends; Count and BegunMs may be called at any time.
class ChaosReport {
 public:
  ChaosReport(std::string host, std::string name, std::uint32_t slots)
      : host_(std::move(host)), name_(std::move(name)), slots_(slots) {}

  void Open(const std::string& directory);
  // Appends a batch of records.
  void Append(std::uint32_t count);

  [[nodiscard]] const std::string& Host() const { return host_; }
  [[nodiscard]] const std::string& Name() const { return name_; }
  [[nodiscard]] std::string FullName() const { return host_ + "/" + name_; }
  [[nodiscard]] std::uint32_t Slots() const { return slots_; }
  [[nodiscard]] std::uint64_t Count();
  // Whether the ring had lost record `number`, or was about to lose it, at a time in milliseconds since 1970. The
  // oldest record of a full ring counts as lost: the writer replaces its slot next.
  [[nodiscard]] bool WasLost(std::uint64_t number, std::int64_t time_ms);

 private:
  std::string host_;
  std::string name_;
  std::uint32_t slots_;
  Writer writer_;
  std::mutex lock_;
  std::vector<std::int64_t> begun_ms_;  // of each record's append
};

// Threads: a thread of its own from the constructor to Stop.
class ChaosWriter {
 public:
  // Appends about `rate` records a second to each report, in batches whose sizes `seed` decides.
  ChaosWriter(std::vector<ChaosReport*> reports, double rate, std::uint64_t seed);
  ~ChaosWriter() { Stop(); }
  ChaosWriter(const ChaosWriter&) = delete;
  ChaosWriter& operator=(const ChaosWriter&) = delete;

  void Stop();

 private:
  void Run(double rate);

  std::vector<ChaosReport*> reports_;
  std::mt19937_64 random_;
  std::atomic<bool> is_stopping_ = false;
  std::thread thread_;
};

[[nodiscard]] std::int64_t WallMs();

}  // namespace qx::chaos
