// An agent that writes the report "example": each argument becomes one record.
//
//   agent "09:00 load 0.12" "09:01 load 0.31"
//
// The report directory is the one that the machine's registry names. On a machine without a registry it is "Reports" in
// the working directory, which is convenient for experiments.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "provider/ServerControlPaths.h"
#include "reportfile/ReportFileBase.h"

namespace {

constexpr char kReport[] = "example";

// The report is a ring: once it has this many records, each new one replaces the oldest. An existing report keeps its
// own number.
constexpr unsigned kRecordsKept = 100;

int Fail(const char* what, const std::string& path) {
  const int error = errno;  // at once: the next call may change it
  std::fprintf(stderr, "agent: cannot %s %s: %s\n", what, path.c_str(), std::strerror(error));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string directory;
  CServerControlPaths::GetServerControlReportPath(directory);
  std::error_code ignored;  // if the directory cannot be created, opening the report fails
  std::filesystem::create_directories(directory, ignored);

  // Opens example.dat and example.ind for writing, or creates them. Only one process may write a report; any number may
  // read it.
  const std::string path = directory + "/" + kReport;
  CReportFileBase report;
  if (!report.Open(path.c_str(), kRecordsKept)) return Fail("open", path);

  for (int i = 1; i < argc; ++i) {
    // If the result is true, the record is in both files. It needs no line end; readers end it at its first line feed.
    if (!report.writeLine(argv[i])) return Fail("write to", path);
  }
  return 0;  // the destructor closes the files
}
