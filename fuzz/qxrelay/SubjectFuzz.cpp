// Reads any bytes as a name and as a subject. The token of a name must give the name back, and only legal subjects of
// the relay are accepted.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "tools/qxrelay/message/Subject.h"

namespace {

constexpr std::string_view kPrefix = "qx";

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string token = qx::relay::TokenOf(bytes);
  Require(qx::relay::NameOfToken(token) == bytes);
  Require(token.find_first_of(std::string_view(". *>\t\r\n\0", 8)) == std::string::npos);
  if (const auto name = qx::relay::NameOfToken(bytes)) Require(qx::relay::TokenOf(*name) == bytes);

  const std::optional<qx::relay::Subject> subject = qx::relay::SubjectOfText(kPrefix, bytes);
  if (!subject.has_value()) return 0;
  Require(qx::relay::IsHostName(subject->host) && qx::relay::IsReportName(subject->report));
  Require(("/" + subject->report + "/").find("/../") == std::string::npos);
  Require(qx::relay::TextOfSubject(kPrefix, *subject) == bytes);
  return 0;
}
