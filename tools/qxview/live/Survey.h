// Surveys all reports of the directory, and doctor's findings, for the pages that show them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
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

  // The document qxview-overview of all reports, or of one report only. [owning thread]
  [[nodiscard]] HttpReply Overview(const std::string& only);
  [[nodiscard]] HttpReply Findings();

  // Sends the document at once, unless the page has it already, and again whenever it changes. [owning thread]
  void SubscribeOverview(StreamId stream, const std::string& only, const std::string& after);
  void SubscribeFindings(StreamId stream, const std::string& after);
  void Unsubscribe(StreamId stream);

  // The document, unless the page has it already. [owning thread]
  [[nodiscard]] LiveNews OverviewChanges(const std::string& only, const std::string& after);
  [[nodiscard]] LiveNews FindingsChanges(const std::string& after);

  // For Worker::Tick. [owning thread]
  [[nodiscard]] std::optional<std::chrono::milliseconds> Tick();

 private:
  // A document, the number of its version, and the streams that follow it.
  struct Version {
    std::uint64_t number = 0;
    std::string content;  // the document without ages and rates; only a change of it is news
    HttpReply::Text text;
    Clock::time_point changed;
    Clock::time_point made;
    std::vector<StreamId> streams;
  };

  void PollReports();
  void RefreshOverview(const std::string& only, Version& version);
  void RefreshFindings();
  [[nodiscard]] Version& OverviewOf(const std::string& only);
  [[nodiscard]] LiveEvent EventOf(const char* name, const Version& version) const;
  void Send(const char* name, const Version& version);
  [[nodiscard]] std::string CursorText(const Version& version) const;
  [[nodiscard]] LiveNews NewsOf(const char* name, const Version& version, const std::string& after) const;
  void DropUnused();

  SurveySettings settings_;
  Deliver deliver_;
  std::string run_;  // a text that no other run of the server has
  std::uint64_t numbers_ = 0;
  ctl::TopReports reports_;
  Clock::time_point polled_;
  Clock::time_point ticked_;
  std::map<std::string, Version> overviews_;  // by the only report in it; "": all reports
  Version findings_;
};

}  // namespace qx::view
