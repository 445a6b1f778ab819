#include "tools/qxctl/doctor/Doctor.h"

#include <sys/resource.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>

#include "tools/qxctl/cli/text/Quote.h"

namespace qx::ctl {

namespace {

constexpr std::array<std::string_view, 7> kErrors = {"QX101", "QX102", "QX103", "QX104", "QX203", "QX204", "QX301"};
constexpr std::array<std::string_view, 6> kMoreErrors = {"QX210", "QX211", "QX212", "QX303", "QX305", "QX310"};
constexpr std::array<std::string_view, 5> kInfos = {"QX106", "QX213", "QX401", "QX406", "QX408"};

template <typename Codes>
bool Holds(const Codes& codes, std::string_view code) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

}  // namespace

Severity SeverityOf(std::string_view code) {
  if (code.ends_with("00")) return Severity::kOk;
  if (Holds(kErrors, code) || Holds(kMoreErrors, code)) return Severity::kError;
  return Holds(kInfos, code) ? Severity::kInfo : Severity::kWarning;
}

const char* SectionOf(std::string_view code) {
  constexpr std::array<const char*, 5> kSections = {"module", "registry", "reports", "traces", "limits"};
  constexpr std::size_t kDigit = 2;
  return kSections[static_cast<std::size_t>(code[kDigit] - '1')];
}

Space SpaceFor(const std::string& directory) {
  constexpr std::uint64_t kBytesLow = std::uint64_t{64} << 20;
  constexpr std::uint64_t kBytesFull = std::uint64_t{1} << 20;
  constexpr std::uint64_t kFilesLow = 100;
  struct statvfs found;
  if (statvfs(directory.c_str(), &found) != 0) return {};
  const std::uint64_t bytes = std::uint64_t{found.f_bavail} * found.f_frsize;
  const bool counts_files = found.f_files > 0;
  if (bytes < kBytesLow) {
    return {bytes < kBytesFull ? SpaceState::kFull : SpaceState::kLow,
            "the file system of " + InQuotes(directory) + " has " + std::to_string(bytes >> 10) + " KiB left",
            "df -h " + ShellWord(directory)};
  }
  if (counts_files && found.f_favail < kFilesLow) {
    return {found.f_favail == 0 ? SpaceState::kFull : SpaceState::kLow,
            "the file system of " + InQuotes(directory) + " can take " + std::to_string(found.f_favail) + " more files",
            "df -i " + ShellWord(directory)};
  }
  return {};
}

void CheckLimits(DoctorFindings& findings) {
  constexpr rlim_t kFilesMin = 256;
  const std::size_t before = findings.size();
  rlimit files{};
  rlimit bytes{};
  (void)getrlimit(RLIMIT_NOFILE, &files);  // these two always work
  (void)getrlimit(RLIMIT_FSIZE, &bytes);
  if (files.rlim_cur < kFilesMin) {
    findings.push_back(
        {"QX501", "this process may open at most " + std::to_string(files.rlim_cur) + " files", "ulimit -n 1024"});
  }
  if (bytes.rlim_cur != RLIM_INFINITY) {
    findings.push_back({"QX502", "a file of this process may have at most " + std::to_string(bytes.rlim_cur) + " bytes",
                        "ulimit -f unlimited"});
  }
  if (findings.size() == before)
    findings.push_back({"QX500", "the limits of open files and of file sizes are high enough", ""});
}

}  // namespace qx::ctl
