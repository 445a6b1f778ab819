// This agent appends each argument as one record to the report "example".
//
//   agent TEXT...
#include <sdk/Writer.h>

#include <cstdio>
#include <filesystem>

int main(int argc, char** argv) {
  const std::string path = qx::ReportPath("example");
  std::error_code ignored;  // if the directory cannot be created, opening the report fails
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);

  // Opens example.ind and example.dat, or creates them with space for 100 records. After 100 records, each new record
  // replaces the oldest one.
  qx::Writer report;
  qx::Error error = report.Open(path, 100);
  for (int i = 1; i < argc && !error.Failed(); ++i) error = report.Append(argv[i]);
  if (error.Failed()) std::fprintf(stderr, "agent: %s\n", error.text.c_str());
  return error.Failed() ? 1 : 0;
}
