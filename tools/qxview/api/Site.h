// The web site: checks each request, and passes it to the thread that can answer it.
//
//   thread    does
//   server    connections, sessions, files of the pages, event streams
//   reading   requests about reports: charts, records, downloads; large reports in steps, so that others need not wait
//   LiveDesk  three threads: reports that pages show, the overview and doctor's findings, and traces
//
// Only the server's thread uses connections, and no thread uses data of another one.
#pragma once

#include <string>
#include <vector>

#include "tools/qxview/api/Failure.h"
#include "tools/qxview/api/LiveDesk.h"
#include "tools/qxview/api/Reading.h"
#include "tools/qxview/assets/Assets.h"
#include "tools/qxview/http/Exchange.h"
#include "tools/qxview/session/Origin.h"
#include "tools/qxview/session/Sessions.h"
#include "tools/qxview/tasks/Loop.h"
#include "tools/qxview/tasks/Worker.h"

namespace qx::view {

struct SiteSettings {
  SurveySettings survey;
  std::string trace_directory;
  std::vector<std::string> hosts;  // that the Host header may name, in addition to the loopback network
  std::string dygraphs_directory{kDygraphsDirectory};
  KeyBytes key = {};
};

// Threads: the server's. Owns: the other threads.
class Site {
 public:
  Site(Loop& loop, const SiteSettings& settings);

  // Handles a request; called by HttpServer. [owning thread]
  void Handle(const ExchangePtr& exchange);

  // A new token, which the caller prints. [owning thread]
  [[nodiscard]] std::string NewToken();

  // To be called about once a second. [owning thread]
  void Maintain() { live_.Maintain(); }

 private:
  [[nodiscard]] bool IsRefused(const ExchangePtr& exchange, bool is_page);
  void HandleApi(const ExchangePtr& exchange, const std::string& name);
  void OpenSession(const ExchangePtr& exchange);
  [[nodiscard]] bool HasSession(const HttpRequest& request) const;

  void Read(const ExchangePtr& exchange, HttpReply (Reading::*answer)(const HttpRequest& request));
  void ReadInSteps(const ExchangePtr& exchange, Reading::Steps (Reading::*begin)(const HttpRequest& request));
  void ReplyLater(const ExchangePtr& exchange, HttpReply reply);
  void SendText(const ExchangePtr& exchange);
  void BeginText(Exchange& exchange, const Reading::Download& text);

  Loop& loop_;
  Assets assets_;
  Sessions sessions_;
  OriginRules origins_;
  LiveDesk live_;
  Reading reading_;
  Worker reading_worker_;  // the last member: its thread uses reading_
};

}  // namespace qx::view
