// A request and a reply, in the form in which the areas above http/ use them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx::view {

// A request. The client has written everything in it, so it is hostile text.
struct HttpRequest {
  using Parameter = std::pair<std::string, std::string>;

  std::string method;  // "GET", "HEAD", "POST"
  std::string path;    // decoded, without the query
  std::vector<Parameter> query;
  std::string body;  // of a POST

  // Headers; empty if the request does not have them.
  std::string host;
  std::string origin;
  std::string cookie;
  std::string fetch_site;
  std::string if_none_match;
  std::string last_event_id;

  // The first value of a parameter; unset if there is no such parameter.
  [[nodiscard]] std::optional<std::string> Value(std::string_view name) const;
  [[nodiscard]] std::vector<std::string> Values(std::string_view name) const;
};

struct HttpReply {
  using Text = std::shared_ptr<const std::string>;
  using Header = std::pair<std::string, std::string>;

  unsigned status = 200;
  std::string type = "application/json";
  Text text;  // null: no content
  std::vector<Header> headers = {};
};

}  // namespace qx::view
