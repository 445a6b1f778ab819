#include "tools/qxrelay/config/RelayConfig.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <span>

#include "inifile/IniFile.h"
#include "tools/qxrelay/config/LoopbackAddress.h"
#include "tools/qxrelay/message/Subject.h"

namespace qx::relay {

namespace {

constexpr std::string_view kLabels = "labels";
constexpr std::size_t kLabelBytesMax = 256;
constexpr std::uint64_t kReportsMax = 1'000'000;

// Sets a value of the settings. Returns what is wrong with the value, or an empty text.
using SetValue = std::function<std::string(RelayConfig&, const std::string&)>;

struct KeyRow {
  std::string_view section;
  std::string_view key;
  SetValue set;
};

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// "a, b" => {"a", "b"}
std::vector<std::string> ListOf(std::string_view text) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(','), text.size());
    const std::string_view part = Trimmed(text.substr(0, end));
    if (!part.empty()) parts.emplace_back(part);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

struct UnitText {
  std::string_view name;
  std::uint64_t factor;
};

constexpr UnitText kTimes[] = {{"ms", 1}, {"s", 1000}, {"min", 60'000}, {"h", 3'600'000}, {"d", 86'400'000}};
constexpr std::uint64_t kMiB = 1'048'576;
constexpr UnitText kSizes[] = {{"", 1}, {"KiB", 1024}, {"MiB", kMiB}, {"GiB", 1024 * kMiB}};

// The number of a text with one of these units: "5 s" => 5000 with kTimes. Unset for another unit, and beyond 2^53.
std::optional<std::uint64_t> Measure(std::string_view text, std::span<const UnitText> units) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  const std::string_view unit = Trimmed(text.substr(static_cast<std::size_t>(end - text.data())));
  const auto found = std::find_if(units.begin(), units.end(), [&](const UnitText& one) { return one.name == unit; });
  constexpr std::uint64_t kMax = std::uint64_t{1} << 53U;
  if (found == units.end() || number > kMax / found->factor) return std::nullopt;
  return number * found->factor;
}

// The time in its largest whole unit: 5000 => "5 s", 100 => "100 ms"
std::string TimeText(std::chrono::milliseconds time) {
  const auto ms = static_cast<std::uint64_t>(time.count());
  const UnitText* unit = std::begin(kTimes);
  for (const UnitText& one : kTimes) {
    if (ms != 0 && ms % one.factor == 0) unit = &one;
  }
  return std::to_string(ms / unit->factor) + " " + std::string(unit->name);
}

// Makes the setter of a time. `member` returns the member that it sets; `min` and `max` are valid values, too.
template <typename Duration>
SetValue Time(std::function<Duration&(RelayConfig&)> member, Duration min, Duration max) {
  return [=](RelayConfig& config, const std::string& text) -> std::string {
    const std::optional<std::uint64_t> value = Measure(text, kTimes);
    if (!value.has_value()) return "is not a time such as \"100 ms\", \"5 s\" or \"7 d\"";
    const auto time = std::chrono::duration_cast<Duration>(std::chrono::milliseconds(*value));
    if (time < min || time > max) return "is not from " + TimeText(min) + " to " + TimeText(max);
    member(config) = time;
    return {};
  };
}

template <typename Integer>
SetValue Size(std::function<Integer&(RelayConfig&)> member, std::uint64_t min, std::uint64_t max) {
  return [=](RelayConfig& config, const std::string& text) -> std::string {
    const std::optional<std::uint64_t> value = Measure(text, kSizes);
    if (!value.has_value()) return "is not a number such as \"3\" or \"64 KiB\"";
    if (*value < min || *value > max) return "is not from " + std::to_string(min) + " to " + std::to_string(max);
    member(config) = static_cast<Integer>(*value);
    return {};
  };
}

// The check of a name, and the text for the operator that describes a valid name.
struct NameRule {
  bool (*is_name)(std::string_view) = nullptr;
  std::string_view allowed;
};

constexpr NameRule kAnyText;
constexpr NameRule kWord = {
    IsStreamName, R"(is not a name: use 1 to 64 letters, digits, "-" and "_", beginning with a letter or a digit)"};
constexpr NameRule kHostName = {IsHostName, kHostNameAllowed};
constexpr NameRule kPrefix = {IsPrefix,
                              R"(is not a prefix: use words of letters, digits, "-" and "_", with "." between them)"};

SetValue Text(const std::function<std::string&(RelayConfig&)>& member, NameRule rule = kAnyText) {
  return [=](RelayConfig& config, const std::string& text) -> std::string {
    if (rule.is_name != nullptr && !rule.is_name(text)) return std::string(rule.allowed);
    member(config) = text;
    return {};
  };
}

SetValue List(const std::function<std::vector<std::string>&(RelayConfig&)>& member) {
  return [=](RelayConfig& config, const std::string& text) -> std::string {
    std::vector<std::string> parts = ListOf(text);
    if (parts.empty()) return "is an empty list: use one value, or several with commas between them";
    member(config) = std::move(parts);
    return {};
  };
}

SetValue Listen(const std::function<std::string&(RelayConfig&)>& member) {
  return [=](RelayConfig& config, const std::string& text) -> std::string {
    if (!LoopbackAddressOf(text).has_value()) return "is not a loopback address such as \"127.0.0.1:9464\"";
    member(config) = text;
    return {};
  };
}

using std::chrono::milliseconds;
using std::chrono::seconds;

std::vector<KeyRow> StreamRows() {
  return {
      {"stream", "servers", List([](RelayConfig & c) -> auto& { return c.stream.servers; })},
      {"stream", "name",
       Text(
           [](RelayConfig & c) -> auto& { return c.stream.name; }, kWord)},
      {"stream", "prefix",
       Text(
           [](RelayConfig & c) -> auto& { return c.stream.prefix; }, kPrefix)},
      {"stream", "domain",
       Text(
           [](RelayConfig & c) -> auto& { return c.stream.domain; }, kWord)},
      {"stream", "user", Text([](RelayConfig & c) -> auto& { return c.stream.user; })},
      {"stream", "password_file", Text([](RelayConfig & c) -> auto& { return c.stream.password_file; })},
      {"stream", "credentials_file", Text([](RelayConfig & c) -> auto& { return c.stream.credentials_file; })},
      {"stream", "ca_file", Text([](RelayConfig & c) -> auto& { return c.stream.ca_file; })},
      {"stream", "certificate_file", Text([](RelayConfig & c) -> auto& { return c.stream.certificate_file; })},
      {"stream", "key_file", Text([](RelayConfig & c) -> auto& { return c.stream.key_file; })},
      {"stream", "age",
       Time<seconds>(
           [](RelayConfig & c) -> auto& { return c.stream.age; }, seconds(4), seconds(3650 * 86400))},
      {"stream", "bytes",
       Size<std::uint64_t>(
           [](RelayConfig & c) -> auto& { return c.stream.bytes; }, kMiB, std::uint64_t{1} << 50U)},
      {"stream", "replicas",
       Size<std::uint32_t>(
           [](RelayConfig & c) -> auto& { return c.stream.replicas; }, 1, 5)},
  };
}

std::vector<KeyRow> ServiceRows() {
  return {
      {"host", "name",
       Text(
           [](RelayConfig & c) -> auto& { return c.host.name; }, kHostName)},
      {"send", "reports", Text([](RelayConfig & c) -> auto& { return c.send.reports; })},
      {"send", "state", Text([](RelayConfig & c) -> auto& { return c.send.state; })},
      {"send", "include", List([](RelayConfig & c) -> auto& { return c.send.include; })},
      {"send", "exclude", List([](RelayConfig & c) -> auto& { return c.send.exclude; })},
      {"send", "linger",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.send.linger; }, milliseconds(0), seconds(60))},
      {"send", "batch_bytes",
       Size<std::size_t>(
           [](RelayConfig & c) -> auto& { return c.send.batch_bytes; }, 1, kMiB)},
      {"send", "poll",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.send.poll; }, milliseconds(1), seconds(10))},
      {"send", "poll_idle",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.send.poll_idle; }, milliseconds(1), seconds(60))},
      {"send", "spread",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.send.spread; }, milliseconds(0), seconds(600))},
      {"send", "timeout",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.send.timeout; }, milliseconds(100), seconds(60))},
      {"send", "rescan",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.send.rescan; }, milliseconds(10), seconds(3600))},
      {"send", "reports_max",
       Size<std::size_t>(
           [](RelayConfig & c) -> auto& { return c.send.reports_max; }, 1, kReportsMax)},
      {"receive", "name",
       Text(
           [](RelayConfig & c) -> auto& { return c.receive.name; }, kWord)},
      {"receive", "root", Text([](RelayConfig & c) -> auto& { return c.receive.root; })},
      {"receive", "slots",
       Size<std::uint32_t>(
           [](RelayConfig & c) -> auto& { return c.receive.slots; }, 1, kSlotsMax)},
      {"receive", "hosts_max",
       Size<std::size_t>(
           [](RelayConfig & c) -> auto& { return c.receive.hosts_max; }, 1, kReportsMax)},
      {"receive", "reports_max",
       Size<std::size_t>(
           [](RelayConfig & c) -> auto& { return c.receive.reports_max; }, 1, kReportsMax)},
      {"receive", "host_reports_max",
       Size<std::size_t>(
           [](RelayConfig & c) -> auto& { return c.receive.host_reports_max; }, 1, kReportsMax)},
      {"receive", "sync",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.receive.sync; }, milliseconds(10), seconds(60))},
      {"receive", "redeliver",
       Time<milliseconds>(
           [](RelayConfig & c) -> auto& { return c.receive.redeliver; }, seconds(1), seconds(3600))},
      {"metrics", "listen", Listen([](RelayConfig & c) -> auto& { return c.metrics.listen; })},
      {"metrics", "reports", List([](RelayConfig & c) -> auto& { return c.metrics.reports; })},
      {"metrics", "series_max",
       Size<std::size_t>(
           [](RelayConfig & c) -> auto& { return c.metrics.series_max; }, 0, 1'000'000)},
  };
}

// The rows of all keys except those of [labels].
const std::vector<KeyRow>& Rows() {
  static const std::vector<KeyRow> kRows = [] {
    std::vector<KeyRow> rows = StreamRows();
    for (KeyRow& row : ServiceRows()) rows.push_back(std::move(row));
    return rows;
  }();
  return kRows;
}

std::string Place(std::string_view section, std::string_view key) {
  return "section [" + std::string(section) + "], key \"" + std::string(key) + "\": ";
}

std::string ValueOf(CIniFile& file, const std::string& section, const std::string& key) {
  std::string value;
  file.GetString(value, section.c_str(), key.c_str(), "");
  return std::string(Trimmed(value));
}

bool IsLabelName(std::string_view name) { return IsHostName(name) && name.find('.') == std::string_view::npos; }

bool IsLabelValue(std::string_view value) {
  return value.size() <= kLabelBytesMax && std::all_of(value.begin(), value.end(), [](char byte) {
           return static_cast<unsigned char>(byte) >= ' ' && byte != '\x7F';
         });
}

void ReadLabel(CIniFile& file, const std::string& key, RelayConfig& config, ConfigFindings& findings) {
  const std::string value = ValueOf(file, std::string(kLabels), key);
  if (!IsLabelName(key) || !IsLabelValue(value)) {
    findings.push_back(
        Place(kLabels, key) + "\"" + value +
        "\" is not a label: its key is 1 to 64 letters, digits, \"-\" and \"_\", and its value at most " +
        std::to_string(kLabelBytesMax) + " bytes without control characters");
    return;
  }
  config.host.labels.push_back(key + "=" + value);
}

void ReadKey(CIniFile& file, const std::string& section, const std::string& key, RelayConfig& config,
             ConfigFindings& findings) {
  const auto& rows = Rows();
  const auto row = std::find_if(rows.begin(), rows.end(),
                                [&](const KeyRow& one) { return one.section == section && one.key == key; });
  if (row == rows.end()) {
    findings.push_back(Place(section, key) + "there is no such key");
    return;
  }
  const std::string value = ValueOf(file, section, key);
  if (value.empty()) return;  // as if the line were not there
  const std::string wrong = row->set(config, value);
  if (!wrong.empty()) findings.push_back(Place(section, key) + "\"" + value + "\" " + wrong);
}

void ReadSection(CIniFile& file, const std::string& section, RelayConfig& config, ConfigFindings& findings) {
  const auto& rows = Rows();
  const bool is_known = section == kLabels || std::any_of(rows.begin(), rows.end(),
                                                          [&](const KeyRow& row) { return row.section == section; });
  if (!is_known) {
    findings.push_back("section [" + section + "]: there is no such section");
    return;
  }
  std::vector<std::string> keys;
  (void)file.GetEnums(keys, section.c_str());  // false only for an empty list
  for (auto key = keys.begin(); key != keys.end(); ++key) {
    if (std::find(keys.begin(), key, *key) != key) {
      findings.push_back(Place(section, *key) + "the key occurs twice");
    } else if (section == kLabels) {
      ReadLabel(file, *key, config, findings);
    } else {
      ReadKey(file, section, *key, config, findings);
    }
  }
}

}  // namespace

ConfigFindings ReadConfig(const std::string& path, RelayConfig& config) {
  CIniFile file;
  errno = 0;
  if (!file.Open(path.c_str(), true)) {
    const int error = errno;
    return {"cannot open " + path + ": " + std::strerror(error)};
  }
  ConfigFindings findings;
  std::vector<std::string> sections;
  (void)file.GetSections(sections);  // false only for an empty list
  for (const std::string& section : sections) ReadSection(file, section, config, findings);
  return findings;
}

std::vector<std::pair<std::string_view, std::string_view>> ConfigKeys() {
  std::vector<std::pair<std::string_view, std::string_view>> keys;
  for (const KeyRow& row : Rows()) keys.emplace_back(row.section, row.key);
  return keys;
}

std::string ApiPrefix(const StreamSettings& stream) {
  return stream.domain.empty() ? "$JS.API" : "$JS." + stream.domain + ".API";
}

bool IsStreamName(std::string_view name) { return IsHostName(name) && name.find('.') == std::string_view::npos; }

// After a mismatch, the last "*" matches one more byte. It is enough to remember this "*", not the earlier ones.
bool MatchesPattern(std::string_view pattern, std::string_view name) {
  std::size_t at = 0;
  std::size_t in_name = 0;
  std::optional<std::size_t> star;
  std::size_t star_end = 0;
  while (in_name < name.size()) {
    if (at < pattern.size() && pattern[at] == '*') {
      star = at++;
      star_end = in_name;
    } else if (at < pattern.size() && (pattern[at] == '?' || pattern[at] == name[in_name])) {
      ++at;
      ++in_name;
    } else if (star.has_value()) {
      at = *star + 1;
      in_name = ++star_end;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', at) == std::string_view::npos;
}

bool IsSelected(const SendSettings& send, std::string_view report) {
  const auto matches = [&](const std::string& pattern) { return MatchesPattern(pattern, report); };
  return std::any_of(send.include.begin(), send.include.end(), matches) &&
         std::none_of(send.exclude.begin(), send.exclude.end(), matches);
}

}  // namespace qx::relay
