// Runs sixteen service threads at once, like the service: one module object, and a block and thread data for each
// thread.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "tests/provider/TransferFixture.h"

namespace {

using qx::test::NoMoreRecords;
using qx::test::Records;
using qx::test::Reply;
using qx::test::ServiceThread;

constexpr int kThreads = 16;
constexpr int kRecords = 40;

std::string Record(int report, int number) {
  return "report " + std::to_string(report) + " record " + std::to_string(number) + std::string(100, '.');
}

// The records from `first` up to, but not including `last`, as a reply shows them.
std::string Text(int report, int first, int last) {
  std::string text;
  for (int number = first; number < last; ++number) text += Record(report, number) + "\r\n";
  return text;
}

class ReportTransferThreads : public qx::test::TransferFixture {
 protected:
  ReportTransferThreads() {
    for (int report = 0; report < kThreads; ++report) {
      std::vector<std::string> records;
      for (int number = 0; number < kRecords; ++number) records.push_back(Record(report, number));
      Append("r" + std::to_string(report), 100, records);
    }
  }

  // Runs `body(thread number)` on all threads at once.
  template <typename Body>
  void OnAllThreads(Body body) {
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) threads.emplace_back(body, number);
    for (std::thread& thread : threads) thread.join();
  }
};

// A whole transfer in chunks of 7 records.
void TransferWhole(int report) {
  ServiceThread thread;
  const std::string name = "r" + std::to_string(report);
  int start = 0;
  while (start < kRecords) {
    const int next = std::min(start + 7, kRecords);
    ASSERT_EQ(thread.Ask(name, start, 7), Records(name, start, next, Text(report, start, next)));
    start = next;
  }
  ASSERT_EQ(thread.Ask(name, start, 7), NoMoreRecords());
}

TEST_F(ReportTransferThreads, EachThreadTransfersItsOwnReport) {
  OnAllThreads([](int number) {
    for (int round = 0; round < 5; ++round) TransferWhole(number);
  });
}

TEST_F(ReportTransferThreads, AllThreadsTransferTheSameReport) {
  OnAllThreads([](int) {
    for (int round = 0; round < 5; ++round) TransferWhole(3);
  });
}

TEST_F(ReportTransferThreads, TracedTransfersReturnTheirOwnRecords) {
  const qx::test::TraceCapture trace(5);
  OnAllThreads([](int number) { TransferWhole(number); });
}

TEST_F(ReportTransferThreads, WriterMayAppendDuringTheTransfers) {
  std::atomic<bool> is_done{false};
  Append("ring", 50, {"0"});
  std::thread writer([&] {
    for (int number = 1; !is_done || number < 200; ++number) Append("ring", 50, {std::to_string(number)});
  });
  OnAllThreads([](int) {
    ServiceThread thread;
    for (int round = 0; round < 20; ++round) {
      const Reply reply = thread.Ask("ring", 0);
      ASSERT_EQ(reply.result, 0) << reply.document;
      ASSERT_TRUE(reply.is_well_formed);
    }
  });
  is_done = true;
  writer.join();
}

}  // namespace
