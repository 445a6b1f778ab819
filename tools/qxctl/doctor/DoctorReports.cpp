// The report directory: its path, who may write there, and whether its reports are whole.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "provider/ServerControlPaths.h"
#include "registry/RegistryPaths.h"
#include "reportfile/StoreFormat.h"
#include "tools/qxctl/doctor/Doctor.h"

namespace qx::ctl {

namespace {

namespace fs = std::filesystem;

std::string DirectoryFromRegistry(const DoctorPlaces& places) {
  registry::StartAfresh(places.registry_directory.c_str());
  std::string directory;
  CServerControlPaths::GetServerControlReportPath(directory);
  registry::StartAfresh(nullptr);
  return directory;
}

// The same in another working directory: only the default differs then.
std::string DirectoryFromElsewhere(const DoctorPlaces& places) {
  std::error_code error;
  const fs::path here = fs::current_path(error);
  DoctorPlaces same = places;
  same.registry_directory = fs::absolute(places.registry_directory, error).string();
  fs::current_path("/", error);
  std::string directory = DirectoryFromRegistry(same);
  fs::current_path(here, error);  // later checks may use paths relative to it
  return directory;
}

// The directory that the module would use here and now.
std::string DirectoryOf(const DoctorPlaces& places, DoctorFindings& findings) {
  if (!places.report_directory.empty()) return places.report_directory;
  std::string directory = DirectoryFromRegistry(places);
  if (directory != DirectoryFromElsewhere(places)) {
    findings.push_back({"QX302", "no value of the registry names the report directory; here it would be " + directory});
  }
  return directory;
}

// What is wrong with the header of a report, or nothing.
std::string DamageOf(const std::string& base) {
  const std::string path = report::IndexFileName(base);
  std::ifstream file(path, std::ios::binary);
  report::IndexHeader header;
  if (!file.read(reinterpret_cast<char*>(&header), sizeof header)) {
    return file.gcount() == 0 ? "" : "its header is cut short";  // an empty file is a store that was never written
  }
  std::error_code error;
  const auto bytes = static_cast<std::int64_t>(fs::file_size(path, error));
  if (header.maxRecord == 0) return "its ring has no slots";
  if (header.highestIndex > header.maxRecord) return "more slots are in use than its ring has";
  if (header.oldestIndex >= header.maxRecord) return "its oldest record is in no slot";
  if (!error && header.highestIndex > 0 && report::SlotOffset(header.highestIndex) > bytes) {
    return "its index file is too short for its records";
  }
  return "";
}

void CheckReport(const std::string& base, DoctorFindings& findings) {
  const std::string index = report::IndexFileName(base);
  const std::string data = report::DataFileName(base);
  const bool has_index = access(index.c_str(), F_OK) == 0;
  const bool has_data = access(data.c_str(), F_OK) == 0;
  if (!has_index || !has_data) {
    findings.push_back({"QX304", (has_index ? index : data) + " is there, " + (has_index ? data : index) + " is not"});
    return;
  }
  for (const std::string& file : {index, data}) {
    if (std::ifstream(file, std::ios::binary).peek() == EOF && fs::is_directory(file)) {
      findings.push_back({"QX303", file + " is a directory"});
      return;
    }
    const bool is_readable = access(file.c_str(), R_OK) == 0;
    const int error = errno;
    if (!is_readable) {
      findings.push_back({"QX303", file + ": " + std::strerror(error)});
      return;
    }
  }
  if (const std::string damage = DamageOf(base); !damage.empty()) findings.push_back({"QX305", base + ": " + damage});
}

// Names without endings.
std::set<std::string> ReportsIn(const std::string& directory, std::error_code& error) {
  std::set<std::string> reports;
  for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
    const fs::path& path = at->path();
    if (path.extension() == ".ind" || path.extension() == ".dat") reports.insert(path.parent_path() / path.stem());
  }
  return reports;
}

}  // namespace

void CheckReports(const DoctorPlaces& places, DoctorFindings& findings) {
  const std::size_t before = findings.size();
  const std::string directory = DirectoryOf(places, findings);
  if (!directory.starts_with('/')) findings.push_back({"QX307", "the report directory is \"" + directory + "\""});
  std::error_code error;
  const std::set<std::string> reports = ReportsIn(directory, error);
  if (error == std::errc::no_such_file_or_directory) {
    findings.push_back({"QX301", "there is no " + directory});
    return;
  }
  if (error) {
    findings.push_back({"QX303", directory + ": " + error.message()});
    return;
  }
  if (const std::string open = WritableByOthers(directory); !open.empty()) {
    findings.push_back({"QX306", open + " can be written by everybody"});
  }
  for (const std::string& report : reports) CheckReport(report, findings);
  if (findings.size() == before) {
    findings.push_back({"QX300", directory + " holds " + std::to_string(reports.size()) + " reports"});
  }
}

}  // namespace qx::ctl
