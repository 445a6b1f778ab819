// Finds the directory of the suite's reports.
//
// The registry names the directory. A pointer value of the product names the suite's root in the registry. The "Setup"
// key of this root has "ReportRoot", the report directory itself, or "FileRoot", the directory above "Reports". If the
// key has neither, the report directory is "Reports" in the working directory. Nothing is cached: every call reads the
// registry.
#pragma once

#include <string>

// A set of static operations; no object of it is ever made.
//
// Threads: every operation may run on any thread.
// Failure: not reported; after a failed step, the next source is tried.
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
