#include "tools/qxrelay/status/FlowDocument.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/File.h"
#include "base/tools/FileText.h"
#include "markup/Markup.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::relay {

namespace {

using ctl::Json;
using Library = nlohmann::ordered_json;

constexpr mode_t kFileMode = 0600;
constexpr double kMsInSecond = 1000;

template <typename Number>
Json OrNull(const std::optional<Number>& number) {
  return number.has_value() ? Json(*number) : Json();
}

Json SecondsOrNull(const std::optional<std::int64_t>& ms) {
  return ms.has_value() ? Json(static_cast<double>(*ms) / kMsInSecond) : Json();
}

Json DocumentOf(const ReportFlow& flow) {
  Json object;
  object["host"] = flow.host;
  ctl::SetText(object, "report", flow.report);
  ctl::SetText(object, "trouble", flow.trouble);
  object["lagRecords"] = OrNull(flow.lag_records);
  object["lagSeconds"] = SecondsOrNull(flow.lag_ms);
  object["recordsPerSecond"] = OrNull(flow.records_per_second);
  object["overtakenInSeconds"] = OrNull(flow.overtaken_in_s);
  object["ringSlots"] = OrNull(flow.ring_slots);
  object["records"] = flow.records;
  object["gapRecords"] = flow.gap_records;
  object["holes"] = flow.holes;
  object["repeats"] = flow.repeats;
  return object;
}

template <typename Number>
std::optional<Number> NumberOf(const Library& object, const char* key) {
  const Library& value = object.at(key);
  return value.is_null() ? std::nullopt : std::optional(value.get<Number>());
}

std::string TextOf(const Library& object, const std::string& key) {
  const Library& value = object.at(key);
  if (value.is_string()) return value.get<std::string>();
  const std::string base64 = object.at(key + "Base64").get<std::string>();
  std::string bytes(base64.size(), '\0');
  const int size = CMarkup::DecodeBase64(base64.c_str(), reinterpret_cast<unsigned char*>(bytes.data()),
                                         static_cast<int>(bytes.size()));
  bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return bytes;
}

ReportFlow ReportOf(const Library& object) {
  ReportFlow flow;
  flow.host = object.at("host").get<std::string>();
  flow.report = TextOf(object, "report");
  flow.trouble = TextOf(object, "trouble");
  flow.lag_records = NumberOf<std::uint64_t>(object, "lagRecords");
  const std::optional<double> lag_s = NumberOf<double>(object, "lagSeconds");
  if (lag_s.has_value()) flow.lag_ms = std::llround(*lag_s * kMsInSecond);
  flow.records_per_second = NumberOf<double>(object, "recordsPerSecond");
  flow.overtaken_in_s = NumberOf<double>(object, "overtakenInSeconds");
  flow.ring_slots = NumberOf<std::uint64_t>(object, "ringSlots");
  flow.records = object.at("records").get<std::uint64_t>();
  flow.gap_records = object.at("gapRecords").get<std::uint64_t>();
  flow.holes = object.at("holes").get<std::uint64_t>();
  flow.repeats = object.at("repeats").get<std::uint64_t>();
  return flow;
}

ServiceFlow ServiceOf(const Library& object) {
  ServiceFlow flow;
  const bool is_receiver = object.at("service").get<std::string>() == NameOf(ServiceKind::kReceiver);
  flow.kind = is_receiver ? ServiceKind::kReceiver : ServiceKind::kSender;
  flow.name = object.at("name").get<std::string>();
  flow.time_ms = object.at("timeMs").get<std::int64_t>();
  flow.started_ms = NumberOf<std::int64_t>(object, "startedMs").value_or(0);
  flow.is_connected = object.at("isConnected").get<bool>();
  flow.problem = TextOf(object, "problem");
  const Library findings = object.value("findings", Library::array());  // earlier versions have no findings
  for (const Library& finding : findings) flow.findings.push_back(finding.get<std::string>());
  for (const auto& [name, value] : object.at("counters").items()) {
    flow.counters.emplace_back(name, value.get<std::uint64_t>());
  }
  for (const Library& report : object.at("reports")) flow.reports.push_back(ReportOf(report));
  return flow;
}

}  // namespace

Json DocumentOf(const ServiceFlow& flow) {
  Json object;
  object["service"] = NameOf(flow.kind);
  object["name"] = flow.name;
  object["timeMs"] = flow.time_ms;
  object["startedMs"] = flow.started_ms != 0 ? Json(flow.started_ms) : Json();
  object["isConnected"] = flow.is_connected;
  ctl::SetText(object, "problem", flow.problem);
  object["findings"] = Json::Array();
  for (const std::string& finding : flow.findings) object["findings"].Append(ctl::Visible(finding));
  Json counters;
  for (const auto& [name, value] : flow.counters) counters[name] = value;
  object["counters"] = counters;
  object["reports"] = Json::Array();
  for (const ReportFlow& report : flow.reports) object["reports"].Append(DocumentOf(report));
  return object;
}

std::string TextOfFlow(const ServiceFlow& flow) { return ctl::JsonLine(DocumentOf(flow)) + "\n"; }

std::optional<ServiceFlow> FlowOfText(std::string_view text) {
  const Library document = Library::parse(text, nullptr, false);
  if (!document.is_object()) return std::nullopt;
  try {
    return ServiceOf(document);
  } catch (const Library::exception&) {  // of another version: a member is missing or has another type
    return std::nullopt;
  }
}

std::optional<std::string> WriteFlowFile(const std::string& path, const ServiceFlow& flow) {
  const std::string copy = path + ".new";
  (void)file::Remove(copy.c_str());  // left by a service that was killed
  file::Descriptor file = file::OpenRegular(copy.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kFileMode);
  int error = file.IsOpen() ? 0 : errno;
  if (error == 0) error = file::Write(file.Number(), TextOfFlow(flow)).error;
  const int close_error = file.Close();
  if (error == 0) error = close_error;
  if (error == 0) error = file::Rename(copy.c_str(), path.c_str());
  if (error == 0) return std::nullopt;
  return "cannot write " + path + ": " + std::strerror(error);
}

std::optional<ServiceFlow> ReadFlowFile(const std::string& path) { return FlowOfText(file::TextOf(path)); }

}  // namespace qx::relay
