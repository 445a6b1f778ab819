// Serves the event streams of pages, and the documents that come from the same sources.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/qxview/api/ViewRequest.h"
#include "tools/qxview/http/Exchange.h"
#include "tools/qxview/live/LiveReports.h"
#include "tools/qxview/live/StreamHub.h"
#include "tools/qxview/live/Survey.h"
#include "tools/qxview/live/TraceFeed.h"
#include "tools/qxview/tasks/Loop.h"
#include "tools/qxview/tasks/Worker.h"

namespace qx::view {

// Threads: the server's. Owns: the event streams, and one thread for each source.
class LiveDesk {
 public:
  static constexpr std::size_t kStreamsMax = 400;

  LiveDesk(Loop& loop, const SurveySettings& settings, const std::string& trace_directory);

  // Each of these functions answers the exchange, at once or later. [owning thread]
  void Events(const ExchangePtr& exchange);
  void Changes(const ExchangePtr& exchange);
  void Overview(const ExchangePtr& exchange);
  void Findings(const ExchangePtr& exchange);
  void Traces(const ExchangePtr& exchange);

  // To be called about once a second. [owning thread]
  void Maintain() { hub_.Maintain(StreamHub::Clock::now()); }

 private:
  // A question to one source: what is new. It is asked in the thread of the source.
  struct Step {
    Worker* worker;
    std::function<LiveNews()> ask;
  };
  struct Walk {
    ExchangePtr exchange;
    std::vector<Step> steps;
    std::vector<LiveNews> news;
  };

  void Answer(Worker& worker, const ExchangePtr& exchange, std::function<HttpReply()> answer);
  void Subscribe(StreamId stream, const ViewRequest& view);
  void Leave(StreamId stream);
  [[nodiscard]] std::vector<Step> StepsOf(const ViewRequest& view);
  void Continue(const std::shared_ptr<Walk>& walk);
  [[nodiscard]] HttpReply TracesReply(const HttpRequest& request);
  [[nodiscard]] Deliver ToHub();

  Loop& loop_;
  std::string directory_;
  StreamHub hub_;
  LiveReports reports_;
  Survey survey_;
  TraceFeed traces_;

  // The last members: their threads use the others.
  Worker report_worker_;
  Worker survey_worker_;
  Worker trace_worker_;
};

}  // namespace qx::view
