// The web site: checks each request, and passes it to the thread that can answer it.
//
//   thread    does
//   server    connections, sessions, files of the pages, event streams
//   reading   one request about a report after the other: charts, records, downloads
//   live      follows the reports that pages show
//   survey    the overview and doctor's findings
//   traces    the trace files
//
// Nobody but the server's thread touches a connection, and no thread touches what another one owns.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/qxview/api/Failure.h"
#include "tools/qxview/api/Reading.h"
#include "tools/qxview/assets/Assets.h"
#include "tools/qxview/http/Exchange.h"
#include "tools/qxview/live/LiveReports.h"
#include "tools/qxview/live/StreamHub.h"
#include "tools/qxview/live/Survey.h"
#include "tools/qxview/session/Origin.h"
#include "tools/qxview/session/Sessions.h"
#include "tools/qxview/work/Loop.h"
#include "tools/qxview/work/Worker.h"

namespace qx::view {

struct SiteSettings {
  SurveySettings survey;
  std::vector<std::string> hosts;  // that the Host header may name besides the loopback network
  std::string dygraphs_directory{kDygraphsDirectory};
  KeyBytes key = {};
};

// Threads: the server's. Owns: the other threads.
class Site {
 public:
  Site(Loop& loop, const SiteSettings& settings);

  // For HttpServer. [owning thread]
  void Handle(const ExchangePtr& exchange);

  // A new token, printed by the caller. [owning thread]
  [[nodiscard]] std::string NewToken();

  // To be called about once a second. [owning thread]
  void Maintain();

 private:
  using Answer = std::function<HttpReply(const HttpRequest& request)>;

  [[nodiscard]] bool IsRefused(const ExchangePtr& exchange, bool is_page);
  void HandleApi(const ExchangePtr& exchange, const std::string& name);
  void OpenSession(const ExchangePtr& exchange);
  [[nodiscard]] bool HasSession(const HttpRequest& request) const;

  void Post(Worker& worker, const ExchangePtr& exchange, Answer answer);
  void ReplyLater(const ExchangePtr& exchange, HttpReply reply);
  void SendText(const ExchangePtr& exchange);
  void OpenEvents(const ExchangePtr& exchange);
  void SendChanges(const ExchangePtr& exchange);
  [[nodiscard]] Deliver ToHub();

  Loop& loop_;
  std::string directory_;
  Assets assets_;
  Sessions sessions_;
  OriginRules origins_;
  StreamHub hub_;

  Reading reading_;
  LiveReports live_;
  Survey survey_;

  // The last members: their threads use the others.
  Worker reading_worker_;
  Worker live_worker_;
  Worker survey_worker_;
};

}  // namespace qx::view
