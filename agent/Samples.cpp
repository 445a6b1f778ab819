#include "agent/Samples.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <optional>
#include <utility>

namespace qx::agent {

namespace {

constexpr std::size_t kNameBytesMax = 64;
constexpr double kSectorKilobytes = 0.5;  // a sector of /proc/diskstats has 512 bytes, whatever the disk
constexpr double kBytesOfKilobyte = 1024;

// "  a bb  c " => a, bb, c
std::vector<std::string_view> Words(std::string_view line) {
  std::vector<std::string_view> words;
  while (true) {
    const std::size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return words;
    const std::size_t end = std::min(line.find_first_of(" \t", begin), line.size());
    words.push_back(line.substr(begin, end - begin));
    line.remove_prefix(end);
  }
}

std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::optional<std::uint64_t> Number(std::string_view word) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  return number;
}

// The numbers of these words; empty if one of them is missing or not a number.
std::vector<std::uint64_t> Numbers(const std::vector<std::string_view>& words, const std::vector<std::size_t>& at) {
  std::vector<std::uint64_t> numbers;
  for (const std::size_t index : at) {
    const auto number = index < words.size() ? Number(words[index]) : std::nullopt;
    if (!number) return {};
    numbers.push_back(*number);
  }
  return numbers;
}

[[gnu::format(printf, 1, 2)]] std::string Formatted(const char* format, ...) {
  char text[256];
  va_list values;
  va_start(values, format);
  const int size = std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  return {text, std::min(sizeof text - 1, static_cast<std::size_t>(std::max(size, 0)))};
}

bool IsDecimal(std::string_view word) {
  return !word.empty() && word.find_first_not_of("0123456789.") == std::string_view::npos;
}

// "0.12 0.31 0.25 1/234 5678"
void AddLoad(std::string_view loadavg, std::vector<Sample>* samples) {
  const std::vector<std::string_view> words = Words(loadavg.substr(0, loadavg.find('\n')));
  if (words.size() < 4 || !std::all_of(words.begin(), words.begin() + 3, IsDecimal)) return;
  const std::size_t slash = words[3].find('/');
  if (slash == std::string_view::npos) return;
  std::string text = "load1=";
  text.append(words[0]).append(" load5=").append(words[1]).append(" load15=").append(words[2]);
  text.append(" running=").append(words[3].substr(0, slash)).append(" tasks=").append(words[3].substr(slash + 1));
  samples->push_back({"load", std::move(text)});
}

// "MemTotal:       16384 kB"
void AddMemory(const std::string& meminfo, std::vector<Sample>* samples) {
  std::map<std::string_view, std::uint64_t> values;
  for (const std::string_view line : Lines(meminfo)) {
    const std::vector<std::string_view> words = Words(line);
    const auto value = words.size() >= 2 ? Number(words[1]) : std::nullopt;
    if (value) values[words[0]] = *value;
  }
  if (!values.contains("MemTotal:") || !values.contains("MemAvailable:")) return;
  const auto used = [&values](const char* total, const char* free) {
    return values[total] - std::min(values[total], values[free]);
  };
  samples->push_back({"memory", "used_kB=" + std::to_string(used("MemTotal:", "MemAvailable:")) +
                                    " available_kB=" + std::to_string(values["MemAvailable:"]) +
                                    " swap_used_kB=" + std::to_string(used("SwapTotal:", "SwapFree:"))});
}

bool IsReportName(std::string_view name) {
  constexpr std::string_view kMarks = "-_.!@:";
  const bool is_plain = std::all_of(name.begin(), name.end(), [kMarks](char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || kMarks.find(character) != kMarks.npos;
  });
  return is_plain && !name.empty() && name.size() <= kNameBytesMax && name.front() != '.';
}

// True for the name of a bridge that Docker makes for a network: "br-" and twelve hexadecimal digits.
bool IsContainerBridge(std::string_view name) {
  constexpr std::size_t kBytes = 15;
  return name.starts_with("br-") && name.size() == kBytes &&
         name.find_first_not_of("0123456789abcdef", 3) == std::string_view::npos;
}

// The growth of each counter; empty if there were no counters before, or if one has become lower, because it was reset.
std::vector<double> Growth(const std::vector<std::uint64_t>& before, const std::vector<std::uint64_t>& now) {
  if (before.size() != now.size()) return {};
  std::vector<double> growth;
  for (std::size_t i = 0; i < now.size(); ++i) {
    if (now[i] < before[i]) return {};
    growth.push_back(static_cast<double>(now[i] - before[i]));
  }
  return growth;
}

// "   8       0 sda 100 0 2048 50 10 0 512 20 0 70 70": sectors read, sectors written, milliseconds in use
std::map<std::string, std::vector<std::uint64_t>> ReadDisks(const std::string& diskstats) {
  std::map<std::string, std::vector<std::uint64_t>> disks;
  for (const std::string_view line : Lines(diskstats)) {
    const std::vector<std::string_view> words = Words(line);
    std::vector<std::uint64_t> numbers = Numbers(words, {5, 9, 12});
    const bool is_used = !numbers.empty() && numbers[0] + numbers[1] > 0;
    if (is_used && IsSampledDisk(words[2]) && disks.size() < kDevicesMax) disks[std::string(words[2])] = numbers;
  }
  return disks;
}

// "  eth0: 1000 10 0 0 0 0 0 0 500 5 0 0 0 0 0 0": bytes received and sent, errors of both
std::map<std::string, std::vector<std::uint64_t>> ReadInterfaces(const std::string& net_dev) {
  std::map<std::string, std::vector<std::uint64_t>> interfaces;
  for (const std::string_view line : Lines(net_dev)) {
    const std::size_t colon = line.find(": ");
    if (colon == std::string_view::npos) continue;
    const std::vector<std::string_view> name = Words(line.substr(0, colon));
    std::vector<std::uint64_t> numbers = Numbers(Words(line.substr(colon + 1)), {0, 8, 2, 10});
    const bool is_sampled = name.size() == 1 && !numbers.empty() && IsSampledInterface(name[0]);
    if (is_sampled && interfaces.size() < kDevicesMax) interfaces[std::string(name[0])] = std::move(numbers);
  }
  return interfaces;
}

}  // namespace

bool IsSampledDisk(std::string_view name) {
  return IsReportName(name) && !name.starts_with("loop") && !name.starts_with("ram");
}

bool IsSampledInterface(std::string_view name) {
  constexpr std::string_view kOfGuests[] = {"veth", "vnet", "tap", "cali"};
  const auto begins_name = [name](std::string_view prefix) { return name.starts_with(prefix); };
  return IsReportName(name) && name != "lo" && !IsContainerBridge(name) &&
         std::none_of(std::begin(kOfGuests), std::end(kOfGuests), begins_name);
}

std::vector<Sample> Samples::Take(const ProcTexts& texts, double seconds) {
  std::vector<Sample> samples;
  AddLoad(texts.loadavg, &samples);
  AddMemory(texts.meminfo, &samples);
  Counters disks = ReadDisks(texts.diskstats);
  Counters interfaces = ReadInterfaces(texts.net_dev);
  for (const auto& [name, now] : disks) {
    const std::vector<double> grown = seconds > 0 ? Growth(disks_[name], now) : std::vector<double>();
    if (grown.empty()) continue;
    const double busy = std::min(100.0, grown[2] / 10 / seconds);  // milliseconds of a thousand
    samples.push_back({"disk/" + name,
                       Formatted("read_kB_s=%.1f written_kB_s=%.1f busy_percent=%.1f",
                                 grown[0] * kSectorKilobytes / seconds, grown[1] * kSectorKilobytes / seconds, busy)});
  }
  for (const auto& [name, now] : interfaces) {
    const std::vector<double> grown = seconds > 0 ? Growth(interfaces_[name], now) : std::vector<double>();
    if (grown.empty()) continue;
    samples.push_back({"network/" + name,
                       Formatted("received_kB_s=%.1f sent_kB_s=%.1f errors=%.0f", grown[0] / kBytesOfKilobyte / seconds,
                                 grown[1] / kBytesOfKilobyte / seconds, grown[2] + grown[3])});
  }
  disks_ = std::move(disks);
  interfaces_ = std::move(interfaces);
  return samples;
}

}  // namespace qx::agent
