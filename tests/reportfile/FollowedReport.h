// The oracle of a follower: a list of all records that were ever written, and the ring model with the last of them. The
// follower reads it as it reads a report of the module.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "reportfile/tools/ReportFollower.h"
#include "tests/support/ReportRing.h"

namespace qx::test {

class FollowedReport : public report::RecordSource {
 public:
  explicit FollowedReport(std::uint32_t slots) { ring_.writer.maxRecord = slots; }

  void Append(const std::string& record);
  // Empties the report and forgets its records.
  void StartOver();

  // All records since the start, and the number of the first ones that have been replaced.
  const std::vector<std::string>& All() const { return all_; }
  std::size_t Gone() const { return all_.size() - ring_.ring.size(); }

  // Sets the largest number of records in one reply.
  void LimitAnswers(std::uint32_t records) { answer_max_ = records; }
  // Sets a function that is called before each record is read; it can append records.
  void BetweenReads(std::function<void()> step) { between_ = std::move(step); }
  // Makes the nth call from now on fail (1: the next one).
  void FailCall(int n) { fail_in_ = n; }
  int Calls() const { return calls_; }

  bool Refresh() override;
  bool Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) override;

  static constexpr std::size_t kRecordBytesMax = 1000;  // a longer record does not fit into a reply

 private:
  void TakeSnapshot();
  bool Call();

  ReportRing ring_;
  std::uint32_t answer_max_ = 1000000;
  std::vector<std::string> all_;
  std::uint32_t snapshot_oldest_ = 0;
  std::uint32_t snapshot_count_ = 0;
  std::function<void()> between_;
  int fail_in_ = 0;
  int calls_ = 0;
};

}  // namespace qx::test
