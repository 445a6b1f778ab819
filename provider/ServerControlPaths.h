// Finds the directory of the suite's reports.
//
// The registry names the directory. A per-product pointer value names the suite's registry root; the root's "Setup" key
// holds "ReportRoot", the report directory itself, or "FileRoot", the directory above "Reports". Without either it is
// "Reports" below the working directory. Nothing is cached: every call reads the registry.
#pragma once

#include <string>

// A set of static operations; no object of it is ever made.
//
// Threads: every operation may run on any thread.
// Failure: none is reported; each failed step falls through to the next source.
class CServerControlPaths {
 public:
  CServerControlPaths() = delete;

  // Sets `path` to the report directory and returns its text, which is valid until `path` changes.
  //   ReportRoot /srv/reports/     => /srv/reports
  //   ReportRoot (empty)           => (empty)
  //   FileRoot /opt/x/             => /opt/x/Reports
  //   FileRoot (empty)             => /Reports
  //   neither, working in /home/a  => /home/a/Reports
  //   neither, and no working directory: "/Reports" after the earlier text of `path`
  // One trailing "/" is removed, but only from index 3 on: /a/ and / stay unchanged. [any thread]
  static const char* GetServerControlReportPath(std::string& path);
};
