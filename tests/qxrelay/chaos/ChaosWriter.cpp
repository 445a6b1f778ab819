#include "tests/qxrelay/chaos/ChaosWriter.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tests/qxrelay/chaos/ChaosRecord.h"

namespace qx::chaos {

namespace {

constexpr std::chrono::milliseconds kPause{20};
constexpr std::uint32_t kBatchMax = 20;
constexpr int kBurstIn = 400;  // one of this number of appends is a burst

// The writers are never killed, so a failure is a defect of the library or of the machine.
void Require(const Error& error, const std::string& report) {
  if (!error.Failed()) return;
  std::fprintf(stderr, "chaos: cannot write %s: %s\n", report.c_str(), error.text.c_str());
  std::abort();
}

}  // namespace

std::int64_t WallMs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void ChaosReport::Open(const std::string& directory) { Require(writer_.Open(directory + "/" + name_, slots_), name_); }

void ChaosReport::Append(std::uint32_t count) {
  std::vector<std::string> texts;
  {
    const std::lock_guard guard(lock_);
    const std::uint64_t first = begun_ms_.size();
    for (std::uint32_t i = 0; i < count; ++i) texts.push_back(ChaosRecord(FullName(), first + i));
    begun_ms_.resize(begun_ms_.size() + count, WallMs());
  }
  Require(writer_.Append(std::span<const std::string>(texts)), name_);
}

std::uint64_t ChaosReport::Count() {
  const std::lock_guard guard(lock_);
  return begun_ms_.size();
}

bool ChaosReport::WasLost(std::uint64_t number, std::int64_t time_ms) {
  const std::lock_guard guard(lock_);
  const std::uint64_t replaced_after = number + slots_ - 1;
  return replaced_after < begun_ms_.size() && begun_ms_[replaced_after] <= time_ms;
}

ChaosWriter::ChaosWriter(std::vector<ChaosReport*> reports, double rate, std::uint64_t seed)
    : reports_(std::move(reports)), random_(seed), thread_([this, rate] { Run(rate); }) {}

void ChaosWriter::Stop() {
  is_stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

void ChaosWriter::Run(double rate) {
  const double batches = rate * std::chrono::duration<double>(kPause).count() / (kBatchMax / 2.0);
  std::uniform_real_distribution<> chance;
  std::uniform_int_distribution<std::uint32_t> size(1, kBatchMax);
  std::uniform_int_distribution<int> burst(1, kBurstIn);
  while (!is_stopping_) {
    for (ChaosReport* const report : reports_) {
      if (chance(random_) >= batches) continue;
      // A burst has more records than the ring of a small report, so it causes a gap without any fault.
      const std::uint32_t batch = size(random_);
      const std::uint32_t repeats = burst(random_) == 1 ? std::min(report->Slots(), 2000U) / kBatchMax * 2 : 1;
      for (std::uint32_t i = 0; i < repeats; ++i) report->Append(batch);
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace qx::chaos
