#include "tools/qxrelay/receive/ReportLimits.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "base/File.h"
#include "tools/qxrelay/message/Subject.h"

namespace qx::relay {

namespace {

constexpr std::size_t kFindingsMax = 100;
constexpr std::array<std::string_view, 4> kEndings = {".ind", ".dat", ".relay", ".names"};

// "load.relay" => "load", "load.csv" => "load.csv"
std::string WithoutEnding(const std::string& file) {
  for (const std::string_view ending : kEndings) {
    if (file.ends_with(ending)) return file.substr(0, file.size() - ending.size());
  }
  return file;
}

std::vector<std::string> NamesIn(const std::string& directory) {
  const file::Descriptor opened = file::OpenDirectory(directory.c_str());
  std::vector<std::string> names;
  if (opened.IsOpen()) (void)file::ListNames(opened.Number(), names);  // what cannot be listed is not counted
  return names;
}

// The names of the reports below a host's directory: of every file that a receiver writes for a report. Links are not
// followed.
std::set<std::string> ReportsBelow(const std::string& directory) {
  std::set<std::string> reports;
  std::vector<std::string> waiting = {""};
  while (!waiting.empty()) {
    const std::string below = std::exchange(waiting.back(), {});
    waiting.pop_back();
    std::string path = directory;
    path.append("/").append(below);
    const file::Descriptor opened = file::OpenDirectory(path.c_str(), O_NOFOLLOW);
    std::vector<std::string> names;
    if (!opened.IsOpen() || file::ListNames(opened.Number(), names) != 0) continue;
    for (const std::string& name : names) {
      if (name == "." || name == "..") continue;
      const bool is_directory = file::OpenDirectory(name.c_str(), O_NOFOLLOW, opened.Number()).IsOpen();
      is_directory ? waiting.push_back(below + name + "/") : void(reports.insert(WithoutEnding(below + name)));
    }
  }
  return reports;
}

std::string CountOf(std::uint64_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace

void ReportLimits::CountRoot(const CollectorRoot& root) {
  for (const std::string& name : NamesIn(root.AboutPath())) {
    if (IsHostName(name)) hosts_.try_emplace(name);
  }
  for (const std::string& name : NamesIn(root.Path())) {
    if (!IsHostName(name)) continue;
    HostLoad& host = hosts_[name];
    host.reports = ReportsBelow(root.Path() + "/" + name);
    reports_ += host.reports.size();
  }
}

HostLoad* ReportLimits::Host(const std::string& host) {
  const auto found = hosts_.find(host);
  if (found != hosts_.end()) return &found->second;
  if (hosts_.size() < settings_.hosts_max) return &hosts_[host];
  LeaveOut("", "host " + host + " and other new ones are left out: hosts_max is " + std::to_string(settings_.hosts_max),
           0);
  return nullptr;
}

HostLoad* ReportLimits::Report(const std::string& host, const std::string& report, std::uint64_t records) {
  HostLoad* const load = Host(host);
  if (load == nullptr) {
    LeaveOut("", "", records);
    return nullptr;
  }
  if (load->reports.contains(report)) return load;
  const bool is_host_full = load->reports.size() >= settings_.host_reports_max;
  if (!is_host_full && reports_ < settings_.reports_max) {
    load->reports.insert(report);
    ++reports_;
    return load;
  }
  const std::string limit = is_host_full ? "host_reports_max is " + std::to_string(settings_.host_reports_max)
                                         : "reports_max is " + std::to_string(settings_.reports_max);
  LeaveOut(host, "host " + host + ": report \"" + report + "\" and other new ones are left out: " + limit, records);
  return nullptr;
}

void ReportLimits::LeaveOut(const std::string& key, const std::string& finding, std::uint64_t records) {
  left_out_ += records;
  const bool is_known = costs_.contains(key);
  if (!is_known && !key.empty() && costs_.size() >= kFindingsMax) return;
  Cost& cost = costs_[key];
  cost.records += records;
  if (is_known) return;
  cost.finding = finding;
  log_(finding);
}

std::vector<std::string> ReportLimits::Findings() const {
  std::vector<std::string> findings;
  for (const auto& [key, cost] : costs_) {
    findings.push_back(cost.finding + "; " + CountOf(cost.records, "record") + " of them skipped");
  }
  return findings;
}

}  // namespace qx::relay
