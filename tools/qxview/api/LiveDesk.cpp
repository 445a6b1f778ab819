#include "tools/qxview/api/LiveDesk.h"

#include <utility>

#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxview/api/Failure.h"
#include "tools/qxview/api/Parameters.h"
#include "tools/qxview/http/Reply.h"

namespace qx::view {

namespace {

constexpr std::int64_t kEntriesDefault = 200;
constexpr std::int64_t kEntriesMax = 1000;

void ReplyBusy(Exchange& exchange) {
  exchange.Reply(ReplyOf(Failure::kBusy, "too many requests wait; ask again later"));
}

}  // namespace

LiveDesk::LiveDesk(Loop& loop, const SurveySettings& settings, const std::string& trace_directory)
    : loop_(loop),
      directory_(settings.directory),
      reports_(ToHub()),
      survey_(settings, ToHub()),
      traces_(trace_directory, ToHub()),
      report_worker_([this] { return reports_.Tick(); }),
      survey_worker_([this] { return survey_.Tick(); }),
      trace_worker_([this] { return traces_.Tick(); }) {}

Deliver LiveDesk::ToHub() {
  return [this](std::vector<StreamId> streams, LiveEvent event) {
    loop_.Post([this, streams = std::move(streams), event = std::move(event)] { hub_.Send(streams, event); });
  };
}

// --- documents

void LiveDesk::Answer(Worker& worker, const ExchangePtr& exchange, std::function<HttpReply()> answer) {
  const bool is_posted = worker.Post([this, exchange, answer = std::move(answer)] {
    loop_.Post([exchange, reply = answer()] { exchange->Reply(reply); });
  });
  if (!is_posted) ReplyBusy(*exchange);
}

void LiveDesk::Overview(const ExchangePtr& exchange) {
  Answer(survey_worker_, exchange,
         [this, exchange] { return survey_.Overview(exchange->Request().Value("report").value_or("")); });
}

void LiveDesk::Findings(const ExchangePtr& exchange) {
  Answer(survey_worker_, exchange, [this] { return survey_.Findings(); });
}

void LiveDesk::Traces(const ExchangePtr& exchange) {
  Answer(trace_worker_, exchange, [this, exchange] { return TracesReply(exchange->Request()); });
}

HttpReply LiveDesk::TracesReply(const HttpRequest& request) {
  Parameters parameters(request);
  TraceWatch watch = {.wish = TraceWishOf(parameters), .after = parameters.Text("after")};
  watch.wish.from = parameters.Number("from");
  watch.wish.to = parameters.Number("to");
  const std::int64_t newest = parameters.Number("newest", 1, kEntriesMax, kEntriesDefault);
  const auto count_max = static_cast<std::size_t>(parameters.Number("max", 1, kEntriesMax, newest));
  const std::string before = parameters.Text("before");
  const std::optional<TracePlace> place = TracePlaceOf(before);
  if (!before.empty() && !place.has_value()) parameters.Refuse("before", "is not a value from a document of traces");
  if (!parameters.Problem().empty()) return ReplyOf(Failure::kBadParameter, parameters.Problem());
  if (!watch.after.empty()) return ReplyOf(TracesDocument(traces_.ReadAfter(watch)));
  TracePage page;
  const bool is_read = place.has_value() ? traces_.ReadBefore(*place, watch.wish, count_max, page)
                                         : traces_.Read(watch.wish, count_max, page);
  return is_read ? ReplyOf(TracesDocument(page)) : ReplyOf(Failure::kNoTraces, "the traces cannot be read");
}

// --- streams

void LiveDesk::Events(const ExchangePtr& exchange) {
  const ReadView read = ViewOf(exchange->Request(), directory_);
  if (read.failure.has_value()) return exchange->Reply(*read.failure);
  if (hub_.Count() >= kStreamsMax) return ReplyBusy(*exchange);
  const StreamId stream = hub_.Open(*exchange, read.view.after, [this](StreamId gone) { Leave(gone); });
  Subscribe(stream, read.view);
}

// The stream begins when each worker knows it. Otherwise a page could miss an event directly after the beginning.
void LiveDesk::Subscribe(StreamId stream, const ViewRequest& view) {
  std::vector<std::pair<Worker*, Worker::Task>> tasks;
  if (view.records.has_value()) {
    tasks.emplace_back(&report_worker_, [this, stream, watch = *view.records] { reports_.Subscribe(stream, watch); });
  }
  if (view.overview.has_value()) {
    tasks.emplace_back(&survey_worker_, [this, stream, only = *view.overview, after = view.After("overview")] {
      survey_.SubscribeOverview(stream, only, after);
    });
  }
  if (view.has_findings) {
    tasks.emplace_back(&survey_worker_,
                       [this, stream, after = view.After("findings")] { survey_.SubscribeFindings(stream, after); });
  }
  if (view.traces.has_value()) {
    tasks.emplace_back(&trace_worker_, [this, stream, watch = *view.traces] { traces_.Subscribe(stream, watch); });
  }
  if (tasks.empty()) return hub_.Begin(stream);
  const auto left = std::make_shared<std::size_t>(tasks.size());  // of the server's thread
  for (auto& [worker, task] : tasks) {
    worker->Add([this, stream, left, subscribe = std::move(task)] {
      subscribe();
      loop_.Post([this, stream, left] {
        if (--*left == 0) hub_.Begin(stream);
      });
    });
  }
}

void LiveDesk::Leave(StreamId stream) {
  report_worker_.Add([this, stream] { reports_.Unsubscribe(stream); });
  survey_worker_.Add([this, stream] { survey_.Unsubscribe(stream); });
  trace_worker_.Add([this, stream] { traces_.Unsubscribe(stream); });
}

// --- changes: the events that a stream would send, as the reply to one request

std::vector<LiveDesk::Step> LiveDesk::StepsOf(const ViewRequest& view) {
  std::vector<Step> steps;
  if (view.records.has_value()) {
    steps.push_back({&report_worker_, [watch = *view.records] { return LiveReports::Changes(watch); }});
  }
  if (view.overview.has_value()) {
    steps.push_back({&survey_worker_, [this, only = *view.overview, after = view.After("overview")] {
                       return survey_.OverviewChanges(only, after);
                     }});
  }
  if (view.has_findings) {
    steps.push_back(
        {&survey_worker_, [this, after = view.After("findings")] { return survey_.FindingsChanges(after); }});
  }
  if (view.traces.has_value()) {
    steps.push_back({&trace_worker_, [this, watch = *view.traces] { return traces_.Changes(watch); }});
  }
  return steps;
}

void LiveDesk::Changes(const ExchangePtr& exchange) {
  const ReadView read = ViewOf(exchange->Request(), directory_);
  if (read.failure.has_value()) return exchange->Reply(*read.failure);
  Continue(std::make_shared<Walk>(Walk{exchange, StepsOf(read.view), {}}));
}

// Asks the next source, one after the other; after the last one it answers.
void LiveDesk::Continue(const std::shared_ptr<Walk>& walk) {
  const std::size_t asked = walk->news.size();
  if (asked == walk->steps.size()) return walk->exchange->Reply(ChangesReply(walk->news));
  const Step& step = walk->steps[asked];
  const bool is_posted = step.worker->Post([this, walk, &step] {
    walk->news.push_back(step.ask());
    loop_.Post([this, walk] { Continue(walk); });
  });
  if (!is_posted) ReplyBusy(*walk->exchange);
}

}  // namespace qx::view
