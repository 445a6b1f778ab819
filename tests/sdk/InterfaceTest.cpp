// Tests the C interface: exported symbols, a C99 program, the Python module.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

#include "tests/support/Support.h"

namespace qx::test {
namespace {

std::string OutputOf(const std::string& command) {
  std::FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  if (pipe == nullptr) return "popen failed";
  std::array<char, 4096> buffer;
  while (const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe)) text.append(buffer.data(), size);
  const int status = pclose(pipe);
  return status == 0 ? text : text + "status " + std::to_string(status);
}

TEST(QxReportLibrary, ExportsExactlyItsFunctions) {
  EXPECT_EQ(OutputOf("nm -D --defined-only " QX_REPORT_LIBRARY " | cut -d' ' -f3 | grep -v '^QXREPORT_0$' | sort"),
            "qxreport_append@@QXREPORT_0\nqxreport_append_many@@QXREPORT_0\nqxreport_close@@QXREPORT_0\n"
            "qxreport_close_reader@@QXREPORT_0\nqxreport_cursor@@QXREPORT_0\nqxreport_open@@QXREPORT_0\n"
            "qxreport_open_reader@@QXREPORT_0\nqxreport_path@@QXREPORT_0\nqxreport_read@@QXREPORT_0\n");
  EXPECT_NE(OutputOf("readelf -dW " QX_REPORT_LIBRARY).find("soname: [libqxreport.so.0]"), std::string::npos);
}

TEST(QxReportLibrary, ProgramInC99UsesEveryFunction) {
  const TempDir directory;
  EXPECT_EQ(OutputOf(QX_C_PROGRAM " " + directory.File("r")),
            "ring of 0: 1 a ring of 0 records; 1 to 1073741823 are possible\n"
            "open: 0 \nsecond: 0 \nappend: 0 \nmany: 0 \n"
            "bad: 2 a record contains a line feed at offset 2, at which readers would end it\n"
            "record 1\n"
            "null: 1 a text is null\n"
            "closed: 4 no report is open\n"
            "reader: 0 \nread: 0 \none 3 0 0\n"
            "reader: 0 \nread: 0 \ntwo 3 0 0\n"
            "end: 0 \nno record\n"
            "bad cursor: 1 the text is not the cursor of a report\n");
}

TEST(QxReportLibrary, PythonModuleWritesAndReads) {
  if (QX_SANITIZED) GTEST_SKIP() << "the interpreter is built without the sanitizer";
  const TempDir directory;
  EXPECT_EQ(OutputOf(QX_PYTHON " " QX_SDK_TESTS "/python_program.py " QX_REPORT_LIBRARY " " + directory.File("r")),
            "BAD_TEXT 1 a record contains a line feed at offset 1, at which readers would end it\n"
            "TOO_LONG 0 a record of 2000000 bytes is too long; at most 1048573 bytes fit into a reply\n"
            "OTHER_WRITER 0 PATH is written by this process, or by one that cannot be seen; two writers overwrite each "
            "other's records\n"
            "NOT_OPEN 0 no report is open\n"
            "SYSTEM 0 cannot create PATH/none/r.ind: No such file or directory\n"
            "NOT_FOUND 0 there is no report PATHnone\n"
            "one\n"
            "b'zw\\xc3\\xb6lf' WHOLE NONE\nb'\\xe4' WHOLE NONE\nb'' WHOLE NONE\n"
            "None\n");
}

TEST(QxReportLibrary, PythonModuleRefusesMistakesAndWritesNothing) {
  if (QX_SANITIZED) GTEST_SKIP() << "the interpreter is built without the sanitizer";
  const TempDir directory;
  EXPECT_EQ(
      OutputOf(QX_PYTHON " " QX_SDK_TESTS "/python_misuse.py " QX_REPORT_LIBRARY " " + directory.File("r")),
      "line feed: BAD_TEXT 0 a record contains a line feed at offset 1, at which readers would end it\n"
      "NUL: BAD_TEXT 0 a record contains a NUL at offset 1, at which readers would end it\n"
      "byte 0xFF: BAD_TEXT 0 a record contains a byte 0xFF at offset 0, at which readers would end it\n"
      "too long: TOO_LONG 0 a record of 1048574 bytes is too long; at most 1048573 bytes fit into a reply\n"
      "line feed in a batch: BAD_TEXT 1 a record contains a line feed at offset 1, at which readers would end it\n"
      "text is a number: TypeError a text is a str or bytes, not int\n"
      "None as a text: TypeError a text is a str or bytes, not NoneType\n"
      "number in a batch: TypeError a text is a str or bytes, not int\n"
      "batch is a str: TypeError append_many appends a list of texts; append appends one text\n"
      "batch is bytes: TypeError append_many appends a list of texts; append appends one text\n"
      "second writer: OTHER_WRITER 0 PATH is written by this process, or by one that cannot be seen; two writers "
      "overwrite each other's records\n"
      "closed writer: NOT_OPEN 0 no report is open\n"
      "batch to a closed writer: NOT_OPEN 0 no report is open\n"
      "ring of 0: BAD_ARGUMENT 0 a ring of 0 records; 1 to 1073741823 are possible\n"
      "ring of -1: BAD_ARGUMENT 0 a ring of -1 records; 1 to 1073741823 are possible\n"
      "ring of 2^32: BAD_ARGUMENT 0 a ring of 4294967296 records; 1 to 1073741823 are possible\n"
      "ring size is a str: TypeError a ring size is an int, not str\n"
      "ring size is a float: TypeError a ring size is an int, not float\n"
      "NUL in the path: BAD_ARGUMENT 0 a path contains a NUL\n"
      "empty path: BAD_ARGUMENT 0 the path of a report is empty\n"
      "None as a path: TypeError a path is a str or bytes, not NoneType\n"
      "name that leads out: BAD_ARGUMENT 0 no report has the name ../x\n"
      "NUL in the name: BAD_ARGUMENT 0 a path contains a NUL\n"
      "no report: NOT_FOUND 0 there is no report PATHnone\n"
      "not a cursor: BAD_ARGUMENT 0 the text is not the cursor of a report\n"
      "cursor beyond ASCII: BAD_ARGUMENT 0 the text is not the cursor of a report\n"
      "NUL in the cursor: BAD_ARGUMENT 0 a cursor contains a NUL\n"
      "closed reader: NOT_OPEN 0 no report is open\n"
      "loop over a closed reader: NOT_OPEN 0 no report is open\n"
      "cursor of a closed reader: NOT_OPEN 0 no report is open\n");
}

}  // namespace
}  // namespace qx::test
