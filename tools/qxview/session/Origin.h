// Checks whether a request comes from a page of this server, at an address of this server.
//
// Another site can make its name lead to this machine (DNS rebinding). So the name in the Host header is compared with
// a list: the names of the loopback network with any port, because ssh -L changes the port, and the names that the
// operator gives for a proxy. Browsers say which page sends a request (Origin, Sec-Fetch-Site); only a page of this
// server may request data.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

enum class OriginVerdict {
  kOurs,
  kForeignHost,    // the Host header names another machine, or is missing
  kForeignOrigin,  // a page of another origin sent the request
};

// Threads: any number. It never changes.
class OriginRules {
 public:
  // `hosts`: the other values that Host may have, each with the port unless it is the usual port of the scheme:
  // "reports.example.org", "reports.example.org:8443".
  explicit OriginRules(std::vector<std::string> hosts) : hosts_(std::move(hosts)) {}

  // `is_page`: the request is for a page, which may be opened from anywhere, because it has no data. [any thread]
  [[nodiscard]] OriginVerdict Check(const HttpRequest& request, bool is_page) const;

 private:
  [[nodiscard]] bool IsOurHost(std::string_view host) const;

  std::vector<std::string> hosts_;
};

// The port of a Host header; "80" if it has no port.
//   "localhost:9000" => "9000"    "[::1]" => "80"
[[nodiscard]] std::string PortOfHost(std::string_view host);

}  // namespace qx::view
