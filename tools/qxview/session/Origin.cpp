#include "tools/qxview/session/Origin.h"

#include <algorithm>

namespace qx::view {

namespace {

constexpr std::string_view kLoopbackNames[] = {"127.0.0.1", "localhost", "[::1]"};

bool IsPort(std::string_view text) {
  constexpr std::size_t kDigitsMax = 5;
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  return !text.empty() && text.size() <= kDigitsMax && std::all_of(text.begin(), text.end(), is_digit);
}

bool IsLoopback(std::string_view host) {
  return std::any_of(std::begin(kLoopbackNames), std::end(kLoopbackNames), [&](std::string_view name) {
    if (!host.starts_with(name)) return false;
    const std::string_view rest = host.substr(name.size());
    return rest.empty() || (rest.front() == ':' && IsPort(rest.substr(1)));
  });
}

bool IsOfHost(std::string_view origin, const std::string& host) {
  return origin == "http://" + host || origin == "https://" + host;
}

}  // namespace

bool OriginRules::IsOurHost(std::string_view host) const {
  return IsLoopback(host) || std::find(hosts_.begin(), hosts_.end(), host) != hosts_.end();
}

OriginVerdict OriginRules::Check(const HttpRequest& request, bool is_page) const {
  if (!IsOurHost(request.host)) return OriginVerdict::kForeignHost;
  if (!request.origin.empty() && !IsOfHost(request.origin, request.host)) return OriginVerdict::kForeignOrigin;
  const std::string& site = request.fetch_site;
  const bool is_ours = site.empty() || site == "same-origin" || site == "none";
  return is_ours || is_page ? OriginVerdict::kOurs : OriginVerdict::kForeignOrigin;
}

std::string PortOfHost(std::string_view host) {
  const std::size_t colon = host.rfind(':');
  const bool has_port = colon != std::string_view::npos && IsPort(host.substr(colon + 1));
  return has_port ? std::string(host.substr(colon + 1)) : "80";
}

}  // namespace qx::view
