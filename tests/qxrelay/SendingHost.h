// A host for tests: a sender with private reports, a private state directory, a stream in memory, and a clock that the
// test sets.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/FakeStream.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/send/Sender.h"

namespace qx::test {

// Threads: one thread. The clock is that of the test.
class SendingHost : public testing::Test {
 protected:
  SendingHost() {
    EXPECT_TRUE(std::filesystem::create_directory(dir_.File("reports")));
    settings_.spread = std::chrono::milliseconds(0);
    settings_.rescan = std::chrono::milliseconds(1000);
  }

  // Starts a sender. The previous sender ends without saving anything, as if it were killed.
  void Start(bool takes_over = false, const std::string& state = "state") {
    sender_.reset();
    context_.reset();
    state_ = std::make_unique<relay::SenderState>();
    ASSERT_EQ(state_->Open(dir_.File(state), takes_over), std::nullopt);
    ASSERT_EQ(state_->BeginSession(0), std::nullopt);
    relay::SenderTimes times = {
        .linger = 10, .poll = 5, .poll_idle = 50, .timeout = 1000, .heartbeat = 60000, .batch_bytes = batch_};
    settings_.batch_bytes = batch_;
    context_.reset(new relay::SendContext{.stream = stream_,
                                          .state = *state_,
                                          .log = [this](const std::string& line) { log_.push_back(line); },
                                          .random = [this] { return std::uniform_real_distribution<>()(random_); },
                                          .random_number = [this] { return random_(); },
                                          .wall_ms = [this] { return now_ + wall_jump_ + 1'700'000'000'000; },
                                          .host = "h",
                                          .directory = dir_.File("reports"),
                                          .stream_settings = {},
                                          .settings = settings_,
                                          .times = times,
                                          .takes_over = takes_over});
    sender_ = std::make_unique<relay::Sender>(*context_, now_, labels_);
  }

  // Lets the sender work for this time.
  void Run(relay::TimeMs time) {
    for (const relay::TimeMs end = now_ + time; now_ < end;) {
      const relay::TimeMs wake = sender_->Step(now_);
      now_ = std::min(std::max(wake, now_ + 1), std::min(end, now_ + 3));
    }
  }

  void Append(std::uint64_t count, const std::string& report = "load", std::size_t length = 0) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(Path(report).c_str(), slots_));
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::string text = "record " + std::to_string(written_.size()) + std::string(length, '.');
      ASSERT_TRUE(store.writeLine(text.c_str()));
      written_.push_back(text + "\r\n");
    }
  }

  [[nodiscard]] std::string Path(const std::string& report) const { return dir_.File("reports/" + report); }
  [[nodiscard]] ReceivedReport Received(const std::string& report = "load") const {
    return Receive(stream_, "qx.report.h." + report);
  }

  // Checks that each record that was written arrived once, and in order.
  void ExpectAll() const {
    const ReceivedReport report = Received();
    EXPECT_EQ(report.records, written_);
    EXPECT_EQ(report.gap, 0U);
    EXPECT_EQ(report.holes, 0U);
  }

  [[nodiscard]] std::size_t Lines(const std::string& part) const {
    return static_cast<std::size_t>(std::count_if(
        log_.begin(), log_.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
  }

  TempDir dir_;
  FakeStream stream_;
  relay::SendSettings settings_;
  std::vector<std::string> labels_;
  std::size_t batch_ = 64 * 1024;
  std::uint32_t slots_ = 100;
  std::mt19937_64 random_{1};
  relay::TimeMs now_ = 1000;
  relay::TimeMs wall_jump_ = 0;
  std::vector<std::string> written_;
  std::vector<std::string> log_;
  std::unique_ptr<relay::SenderState> state_;
  std::unique_ptr<relay::SendContext> context_;
  std::unique_ptr<relay::Sender> sender_;
};

}  // namespace qx::test
