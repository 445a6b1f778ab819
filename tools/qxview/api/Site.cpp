#include "tools/qxview/api/Site.h"

#include <ctime>
#include <memory>
#include <string_view>
#include <utility>

#include "tools/qxview/http/Reply.h"

namespace qx::view {

namespace {

constexpr std::string_view kApi = "/api/v1/";
constexpr std::chrono::milliseconds kTrim{60'000};  // between two checks for memory that nobody uses
constexpr std::string_view kTokenField = "token=";

std::int64_t SecondsOf(clockid_t clock) {
  timespec now{};
  (void)clock_gettime(clock, &now);  // these clocks always exist
  return now.tv_sec;
}

std::string CookieName(const HttpRequest& request) { return "qxview-" + PortOfHost(request.host); }

bool IsRead(const HttpRequest& request) { return request.method == "GET" || request.method == "HEAD"; }

}  // namespace

Site::Site(Loop& loop, const SiteSettings& settings)
    : loop_(loop),
      assets_(settings.dygraphs_directory),
      sessions_(settings.key),
      origins_(settings.hosts),
      live_(loop, settings.survey, settings.trace_directory),
      reading_(settings.survey.directory),
      reading_worker_([this] {
        reading_.Trim();
        return std::optional(kTrim);
      }) {}

std::string Site::NewToken() { return sessions_.NewToken(SecondsOf(CLOCK_BOOTTIME)); }

// --- requests

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
      exchange->Reply(ReplyOf(Failure::kForeignOrigin, "only a page of this server may send this request"));
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
  if (name == "report") return Read(exchange, &Reading::Report);
  if (name == "names") return Read(exchange, &Reading::Names);
  if (name == "fields") return Read(exchange, &Reading::Fields);
  if (name == "chart") return ReadInSteps(exchange, &Reading::Chart);
  if (name == "records") return ReadInSteps(exchange, &Reading::Records);
  if (name == "text") return SendText(exchange);
  if (name == "overview") return live_.Overview(exchange);
  if (name == "findings") return live_.Findings(exchange);
  if (name == "traces") return live_.Traces(exchange);
  if (name == "events") return live_.Events(exchange);
  if (name == "changes") return live_.Changes(exchange);
  exchange->Reply(ReplyOf(Failure::kNoSuchPath, "the API has no such document"));
}

// --- answers of another thread

// The reading thread gets the exchange, but uses only its request, which does not change.
void Site::Read(const ExchangePtr& exchange, HttpReply (Reading::*answer)(const HttpRequest& request)) {
  const bool is_posted =
      reading_worker_.Post([this, exchange, answer] { ReplyLater(exchange, (reading_.*answer)(exchange->Request())); });
  if (!is_posted) exchange->Reply(ReplyOf(Failure::kBusy, "too many requests wait; ask again later"));
}

void Site::ReadInSteps(const ExchangePtr& exchange, Reading::Steps (Reading::*begin)(const HttpRequest& request)) {
  const bool is_posted =
      reading_worker_.PostSteps([this, exchange, begin, steps = Reading::Steps()](bool is_last) mutable {
        if (steps == nullptr) steps = (reading_.*begin)(exchange->Request());
        std::optional<HttpReply> reply = steps(is_last);
        if (reply.has_value()) ReplyLater(exchange, std::move(*reply));
        return reply.has_value();
      });
  if (!is_posted) exchange->Reply(ReplyOf(Failure::kBusy, "too many requests wait; ask again later"));
}

void Site::ReplyLater(const ExchangePtr& exchange, HttpReply reply) {
  loop_.Post([exchange, reply = std::move(reply)] { exchange->Reply(reply); });
}

void Site::SendText(const ExchangePtr& exchange) {
  const bool is_posted = reading_worker_.Post([this, exchange] {
    const Reading::Download text = reading_.Text(exchange->Request());
    if (text.text == nullptr) return ReplyLater(exchange, text.head);
    loop_.Post([this, exchange, text] { BeginText(*exchange, text); });
  });
  if (!is_posted) exchange->Reply(ReplyOf(Failure::kBusy, "too many requests wait; ask again later"));
}

// The next piece is read each time a piece was sent.
void Site::BeginText(Exchange& exchange, const Reading::Download& text) {
  auto stream = std::make_shared<std::weak_ptr<ReplyStream>>();
  *stream = exchange.Stream(text.head, [this, stream, records = text.text] {
    reading_worker_.Add([this, stream, records] {
      loop_.Post([stream, piece = records->Next()] {
        const std::shared_ptr<ReplyStream> open = stream->lock();
        if (open == nullptr) return;
        if (piece != nullptr) {
          open->Send(piece);
        } else {
          open->End();
        }
      });
    });
  });
}

}  // namespace qx::view
