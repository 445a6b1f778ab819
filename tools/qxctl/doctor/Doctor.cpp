#include "tools/qxctl/doctor/Doctor.h"

#include <sys/resource.h>

#include <algorithm>
#include <array>

namespace qx::ctl {

namespace {

constexpr std::array<std::string_view, 7> kErrors = {"QX101", "QX102", "QX103", "QX104", "QX203", "QX204", "QX301"};
constexpr std::array<std::string_view, 2> kMoreErrors = {"QX303", "QX305"};
constexpr std::array<std::string_view, 4> kInfos = {"QX106", "QX401", "QX406", "QX408"};

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

void CheckLimits(DoctorFindings& findings) {
  constexpr rlim_t kFilesMin = 256;
  const std::size_t before = findings.size();
  rlimit files{};
  rlimit bytes{};
  (void)getrlimit(RLIMIT_NOFILE, &files);  // these two always work
  (void)getrlimit(RLIMIT_FSIZE, &bytes);
  if (files.rlim_cur < kFilesMin) {
    findings.push_back({"QX501", "this process may open " + std::to_string(files.rlim_cur) + " files"});
  }
  if (bytes.rlim_cur != RLIM_INFINITY) {
    findings.push_back({"QX502", "files of this process may have " + std::to_string(bytes.rlim_cur) + " bytes"});
  }
  if (findings.size() == before) findings.push_back({"QX500", "open files and file sizes are not limited too far"});
}

}  // namespace qx::ctl
