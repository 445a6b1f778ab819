#include "reportfile/tools/directory/ReportSurvey.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <utility>

#include "base/File.h"
#include "reportfile/DirectoryListing.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/WritingProcesses.h"
#include "reportfile/tools/directory/StoreBackup.h"

namespace qx::report {

namespace {

// The report that a file belongs to, or nothing.
//   "a/load.ind", "a/load.dat" => "a/load"    "a/load.names", "a/.ind" => ""
std::string ReportOf(const std::string& file) {
  constexpr std::size_t kEndingBytes = 4;
  const bool has_ending = file.ends_with(".ind") || file.ends_with(".dat");
  if (!has_ending || file::NameOf(file).size() == kEndingBytes) return "";
  return file.substr(0, file.size() - kEndingBytes);
}

void AddItem(const BackupItem& item, std::set<std::string>& names, std::vector<UnlistedDirectory>& unlisted) {
  const bool is_unlisted = item.kind == BackupItemKind::kSkipped && item.state == BackupItemState::kUnreadable;
  if (is_unlisted) {
    unlisted.push_back({item.name, item.error});
  } else if (item.kind == BackupItemKind::kStore) {
    names.insert(item.name);
  } else if (const std::string report = ReportOf(item.name); !report.empty()) {
    names.insert(report);
  }
}

void SetSizes(ReportStatus& status) {
  const StoreScan& scan = status.verdict.scan;
  const bool has_header = scan.index_bytes >= SlotOffset(0);
  status.records = scan.header.highestIndex;
  if (has_header) status.slots = scan.header.maxRecord;
  struct stat index = {};
  struct stat data = {};
  if (file::StatusOf(IndexFileName(status.base_path).c_str(), index) == 0) {
    status.bytes += index.st_size;
    if (status.records > 0) status.newest = index.st_mtim;
  }
  if (file::StatusOf(DataFileName(status.base_path).c_str(), data) == 0) status.bytes += data.st_size;
}

// The files of all reports, each with the index of its report in the list.
std::map<FileKey, std::size_t> FilesOf(const std::vector<ReportStatus>& reports) {
  std::map<FileKey, std::size_t> files;
  for (std::size_t i = 0; i < reports.size(); ++i) {
    for (const std::string& path : {IndexFileName(reports[i].base_path), DataFileName(reports[i].base_path)}) {
      if (const std::optional<FileKey> key = KeyOf(path)) files.emplace(*key, i);
    }
  }
  return files;
}

void AddWriters(const std::vector<WritingProcess>& writers, const std::map<FileKey, std::size_t>& files,
                std::vector<ReportStatus>& reports) {
  for (const WritingProcess& writer : writers) {
    ReportStatus& report = reports[files.at(writer.file)];
    report.is_written = true;
    report.processes.push_back(writer.process);
  }
}

void FindWriters(std::vector<ReportStatus>& reports) {
  const std::map<FileKey, std::size_t> files = FilesOf(reports);
  std::set<FileKey> keys;
  for (const auto& [key, report] : files) keys.insert(key);
  if (keys.empty()) return;
  AddWriters(FindWritingProcesses(keys), files, reports);
  AddWriters(FindLockingProcesses(keys), files, reports);
  for (ReportStatus& report : reports) {
    std::sort(report.processes.begin(), report.processes.end());
    report.processes.erase(std::unique(report.processes.begin(), report.processes.end()), report.processes.end());
  }
}

}  // namespace

FoundReports FindReports(const std::string& directory) {
  FoundReports found;
  const file::Descriptor top = OpenNamedDirectory(directory);
  if (!top.IsOpen()) {
    found.error = errno;
    return found;
  }
  const ReportTree tree = ListReports(top.Number(), Unlistable::kIsAnItem);
  found.error = tree.error;
  std::set<std::string> names;
  for (const BackupItem& item : tree.items) AddItem(item, names, found.unlisted);
  found.names.assign(names.begin(), names.end());
  return found;
}

FoundReports FindReportsIn(const std::string& directory) {
  FoundReports found;
  const Listing listing = ListDirectory(directory);
  found.error = listing.error;
  std::set<std::string> names;
  for (const std::string& file : listing.names) {
    if (const std::string report = ReportOf(file); !report.empty()) names.insert(report);
  }
  found.names.assign(names.begin(), names.end());
  return found;
}

std::vector<ReportStatus> StatusOfReports(const std::vector<std::string>& base_paths, ReportCheck check) {
  std::vector<ReportStatus> reports;
  for (const std::string& base_path : base_paths) {
    ReportStatus status;
    status.base_path = base_path;
    status.verdict = check == ReportCheck::kHeader ? VerifyHeader(base_path) : VerifyStore(base_path);
    SetSizes(status);
    reports.push_back(std::move(status));
  }
  FindWriters(reports);
  return reports;
}

}  // namespace qx::report
