// All reports of the directory, worst first, and doctor's findings: for pages that show them, once a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxctl/top/TopReports.h"
#include "tools/qxview/live/LiveEvent.h"

namespace qx::view {

struct SurveySettings {
  std::string directory;
  std::int64_t stale_seconds = 900;  // a report without a new record for longer is silent
};

// Threads: one thread, the only one that reads the registry.
class Survey {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kRound{1000};
  static constexpr std::chrono::seconds kFindingsRound{15};
  static constexpr std::chrono::seconds kRefresh{10};  // an overview without news is sent again after this time

  Survey(SurveySettings settings, Deliver deliver);

  [[nodiscard]] HttpReply Overview();
  [[nodiscard]] HttpReply Findings();

  // Sends both documents at once, unless the page has them, and later whenever one changes. [owning thread]
  void Subscribe(StreamId stream, const std::string& after);
  void Unsubscribe(StreamId stream) { std::erase(streams_, stream); }
  [[nodiscard]] std::vector<LiveEvent> Changes(const std::string& after);

  // For Worker::Tick. [owning thread]
  [[nodiscard]] std::optional<std::chrono::milliseconds> Tick();

 private:
  // A document with the number of its version.
  struct Version {
    std::uint64_t number = 0;
    std::string content;  // without what changes all the time
    HttpReply::Text text;
    Clock::time_point time;
  };

  void Refresh();
  void RefreshOverview();
  void RefreshFindings();
  void Send(const LiveEvent& event);
  [[nodiscard]] std::string CursorText() const;
  [[nodiscard]] LiveEvent OverviewEvent() const;
  [[nodiscard]] LiveEvent FindingsEvent() const;

  SurveySettings settings_;
  Deliver deliver_;
  std::string run_;  // a text that no other run of the server has
  ctl::TopReports reports_;
  Version overview_;
  Version findings_;
  std::vector<StreamId> streams_;
};

}  // namespace qx::view
