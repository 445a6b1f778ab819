// A collector in memory for tests: a receiver with a private root and a stream that the test fills.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/FakeConsume.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/receive/Receiver.h"

namespace qx::test {

// All records of the report at this path, oldest first, with their line ends.
inline std::vector<std::string> RecordsAt(const std::string& path) {
  CReportFileBase store;
  std::vector<std::string> records;
  if (!store.OpenRead(path.c_str())) return records;
  for (std::uint32_t age = 0; age < store.header().highestIndex; ++age) {
    std::string text;
    EXPECT_TRUE(store.readLine(text, report::SlotOfAge(store.header(), age)));
    records.push_back(text);
  }
  return records;
}

// Threads: one thread. The clock is that of the test.
class Collector {
 public:
  Collector() { Start(); }

  void Start() {
    root = std::make_unique<relay::CollectorRoot>();
    ASSERT_EQ(root->Open(Root()), std::nullopt);
    context = std::make_unique<relay::ReceiveContext>(
        relay::ReceiveContext{.stream = stream,
                              .root = *root,
                              .log = [this](const std::string& line) { log.push_back(line); },
                              .random = [] { return 0.0; },
                              .stream_settings = {},
                              .settings = settings});
    context->open_max = open_max;
    receiver = std::make_unique<relay::Receiver>(*context, "c");
  }
  // Kills the receiver and starts another one: messages that were not acknowledged come again.
  void Restart() {
    Kill();
    stream.Redeliver();
    Start();
  }
  void Kill() {
    receiver.reset();
    context.reset();
    root.reset();
  }

  relay::TimeMs Step() { return receiver->Step(now, 10); }
  // Steps of half a second until no message comes any more.
  void Run(int steps = 12) {
    for (; steps > 0; --steps) {
      (void)Step();
      now += 500;
    }
  }

  [[nodiscard]] std::string Root() const { return dir.File("root"); }
  [[nodiscard]] std::string PathOf(const std::string& report, const std::string& host = "h") const {
    return Root() + "/" + host + "/" + report;
  }
  [[nodiscard]] std::vector<std::string> Records(const std::string& report, const std::string& host = "h") const {
    return RecordsAt(PathOf(report, host));
  }
  [[nodiscard]] relay::CollectedReport Report(const std::string& name, const std::string& host = "h") const {
    for (relay::CollectedReport& report : receiver->Reports()) {
      if (report.host == host && report.report == name) return std::move(report);
    }
    return {};
  }
  [[nodiscard]] bool IsLogged(const std::string& text) const {
    return std::any_of(log.begin(), log.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
  }

  TempDir dir;
  FakeConsume stream;
  relay::ReceiveSettings settings;
  std::size_t open_max = 300;
  relay::TimeMs now = 1'000'000;
  std::vector<std::string> log;
  std::unique_ptr<relay::CollectorRoot> root;
  std::unique_ptr<relay::ReceiveContext> context;
  std::unique_ptr<relay::Receiver> receiver;
};

}  // namespace qx::test
