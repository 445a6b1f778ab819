#include "tools/qxview/api/Site.h"

#include <ctime>
#include <memory>
#include <string_view>
#include <utility>

#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxview/api/Parameters.h"
#include "tools/qxview/http/Reply.h"
#include "tools/qxview/report/ReportPath.h"

namespace qx::view {

namespace {

constexpr std::string_view kApi = "/api/v1/";
constexpr std::string_view kTokenField = "token=";

std::int64_t SecondsOf(clockid_t clock) {
  timespec now{};
  (void)clock_gettime(clock, &now);  // these clocks always exist
  return now.tv_sec;
}

std::string CookieName(const HttpRequest& request) { return "qxview-" + PortOfHost(request.host); }

bool IsRead(const HttpRequest& request) { return request.method == "GET" || request.method == "HEAD"; }

// A page that lost its stream names the last event that it got.
std::string AfterOf(const HttpRequest& request) {
  return !request.last_event_id.empty() ? request.last_event_id : request.Value("after").value_or("");
}

}  // namespace

Site::Site(Loop& loop, const SiteSettings& settings)
    : loop_(loop),
      directory_(settings.survey.directory),
      assets_(settings.dygraphs_directory),
      sessions_(settings.key),
      origins_(settings.hosts),
      reading_(directory_),
      live_(ToHub()),
      survey_(settings.survey, ToHub()),
      reading_worker_([this] {
        reading_.Trim();
        return std::optional(std::chrono::milliseconds(60'000));
      }),
      live_worker_([this] { return live_.Tick(); }),
      survey_worker_([this] { return survey_.Tick(); }) {}

Deliver Site::ToHub() {
  return [this](std::vector<StreamId> streams, LiveEvent event) {
    loop_.Post([this, streams = std::move(streams), event = std::move(event)] { hub_.Send(streams, event); });
  };
}

std::string Site::NewToken() { return sessions_.NewToken(SecondsOf(CLOCK_BOOTTIME)); }

void Site::Maintain() { hub_.Maintain(StreamHub::Clock::now()); }

// --- what comes in

void Site::Handle(const ExchangePtr& exchange) {
  const HttpRequest& request = exchange->Request();
  const HttpReply* const file = assets_.Find(request.path);
  if (IsRefused(exchange, file != nullptr)) return;
  if (file != nullptr) {
    exchange->Reply(IsRead(request) ? Assets::ReplyOf(*file, request.if_none_match)
                                    : ReplyOf(Failure::kBadMethod, "only GET and HEAD are answered"));
    return;
  }
  if (!request.path.starts_with(kApi)) {
    exchange->Reply(ReplyOf(Failure::kNoSuchPath, "there is no such page"));
    return;
  }
  HandleApi(exchange, request.path.substr(kApi.size()));
}

bool Site::IsRefused(const ExchangePtr& exchange, bool is_page) {
  switch (origins_.Check(exchange->Request(), is_page)) {
    case OriginVerdict::kOurs:
      return false;
    case OriginVerdict::kForeignHost:
      exchange->Reply(ReplyOf(Failure::kForeignHost,
                              "the address of this request is not one of this server; \"--host "
                              "NAME\" allows another name"));
      return true;
    case OriginVerdict::kForeignOrigin:
      exchange->Reply(ReplyOf(Failure::kForeignOrigin, "only the server's own page may ask"));
      return true;
  }
  return true;
}

bool Site::HasSession(const HttpRequest& request) const {
  return sessions_.HasSession(request.cookie, CookieName(request), SecondsOf(CLOCK_REALTIME));
}

void Site::OpenSession(const ExchangePtr& exchange) {
  const HttpRequest& request = exchange->Request();
  const std::string_view body = request.body;
  const bool has_token =
      body.starts_with(kTokenField) && sessions_.TakeToken(body.substr(kTokenField.size()), SecondsOf(CLOCK_BOOTTIME));
  const std::string name = CookieName(request);
  const std::string value = has_token ? sessions_.NewCookie(name, SecondsOf(CLOCK_REALTIME)) : "";
  if (value.empty()) {
    exchange->Reply(ReplyOf(Failure::kBadToken, "the token is wrong, was used already or is older than five minutes"));
    return;
  }
  const bool is_secure = request.origin.starts_with("https://");
  HttpReply reply = {.status = 204, .type = "", .text = nullptr};
  reply.headers = {{"Cache-Control", "no-store"},
                   {"Set-Cookie", name + "=" + value + "; HttpOnly; SameSite=Strict; Path=/; Max-Age=" +
                                      std::to_string(Sessions::kSessionS) + (is_secure ? "; Secure" : "")}};
  exchange->Reply(std::move(reply));
}

void Site::HandleApi(const ExchangePtr& exchange, const std::string& name) {
  const HttpRequest& request = exchange->Request();
  if (name == "session" && request.method == "POST") return OpenSession(exchange);
  if (!IsRead(request)) return exchange->Reply(ReplyOf(Failure::kBadMethod, "only GET and HEAD are answered"));
  if (!HasSession(request)) {
    return exchange->Reply(
        ReplyOf(Failure::kNoSession, "open the address that qxview has printed: its token is missing"));
  }
  const auto read = [&](HttpReply (Reading::*answer)(const HttpRequest&)) {
    Post(reading_worker_, exchange, [this, answer](const HttpRequest& asked) { return (reading_.*answer)(asked); });
  };
  if (name == "report") return read(&Reading::Report);
  if (name == "names") return read(&Reading::Names);
  if (name == "fields") return read(&Reading::Fields);
  if (name == "chart") return read(&Reading::Chart);
  if (name == "records") return read(&Reading::Records);
  if (name == "text") return SendText(exchange);
  if (name == "overview")
    return Post(survey_worker_, exchange, [this](const HttpRequest&) { return survey_.Overview(); });
  if (name == "findings")
    return Post(survey_worker_, exchange, [this](const HttpRequest&) { return survey_.Findings(); });
  if (name == "events") return OpenEvents(exchange);
  if (name == "changes") return SendChanges(exchange);
  exchange->Reply(ReplyOf(Failure::kNoSuchPath, "the API has no such document"));
}

// --- what goes to other threads

// The exchange goes to the worker and back without being touched there; only the request, which nobody changes, is.
void Site::Post(Worker& worker, const ExchangePtr& exchange, Answer answer) {
  const bool is_posted =
      worker.Post([this, exchange, answer = std::move(answer)] { ReplyLater(exchange, answer(exchange->Request())); });
  if (!is_posted) exchange->Reply(ReplyOf(Failure::kBusy, "too many requests wait; ask again later"));
}

void Site::ReplyLater(const ExchangePtr& exchange, HttpReply reply) {
  loop_.Post([exchange, reply = std::move(reply)] { exchange->Reply(reply); });
}

void Site::SendText(const ExchangePtr& exchange) {
  const bool is_posted = reading_worker_.Post([this, exchange] {
    const Reading::Download text = reading_.Text(exchange->Request());
    if (text.source == nullptr) return ReplyLater(exchange, text.head);
    loop_.Post([exchange, text] { (void)exchange->Stream(text.head, text.source); });
  });
  if (!is_posted) exchange->Reply(ReplyOf(Failure::kBusy, "too many requests wait; ask again later"));
}

// --- what is live

namespace {

// Unset, and the exchange is answered, for a report that cannot be.
std::optional<ReportWatch> WatchOf(const std::string& directory, Exchange& exchange) {
  const HttpRequest& request = exchange.Request();
  Parameters parameters(request);
  ReportWatch watch = {.report = request.Value("report").value_or(""),
                       .base_path = {},
                       .filter = parameters.Text("filter"),
                       .after = CursorOf(AfterOf(request))};
  const auto base_path = BasePathOf(directory, watch.report);
  if (base_path.has_value() && parameters.Problem().empty()) {
    watch.base_path = *base_path;
    return watch;
  }
  exchange.Reply(base_path.has_value()
                     ? ReplyOf(Failure::kBadParameter, parameters.Problem())
                     : ReplyOf(Failure::kNoSuchReport, "there is no report \"" + ctl::Visible(watch.report) + "\""));
  return std::nullopt;
}

}  // namespace

void Site::OpenEvents(const ExchangePtr& exchange) {
  const std::string view = exchange->Request().Value("view").value_or("");
  const std::string after = AfterOf(exchange->Request());
  if (view == "overview") {
    const StreamId id = hub_.Open(
        *exchange, [this](StreamId stream) { survey_worker_.Add([this, stream] { survey_.Unsubscribe(stream); }); });
    survey_worker_.Add([this, id, after] { survey_.Subscribe(id, after); });
    return;
  }
  if (view != "report") return exchange->Reply(ReplyOf(Failure::kBadParameter, "the parameter view names no view"));
  const std::optional<ReportWatch> watch = WatchOf(directory_, *exchange);
  if (!watch.has_value()) return;
  const StreamId id = hub_.Open(
      *exchange, [this](StreamId stream) { live_worker_.Add([this, stream] { live_.Unsubscribe(stream); }); });
  live_worker_.Add([this, id, watch = *watch] { live_.Subscribe(id, watch); });
}

void Site::SendChanges(const ExchangePtr& exchange) {
  const std::string view = exchange->Request().Value("view").value_or("");
  if (view == "overview") {
    return Post(survey_worker_, exchange,
                [this](const HttpRequest& request) { return ChangesReply(survey_.Changes(AfterOf(request))); });
  }
  if (view != "report") return exchange->Reply(ReplyOf(Failure::kBadParameter, "the parameter view names no view"));
  const std::optional<ReportWatch> watch = WatchOf(directory_, *exchange);
  if (!watch.has_value()) return;
  Post(live_worker_, exchange,
       [watch = *watch](const HttpRequest&) { return ChangesReply(LiveReports::Changes(watch)); });
}

}  // namespace qx::view
