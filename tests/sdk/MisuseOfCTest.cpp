// Tests every mistake that the C interface refuses: the code, the whole reason, and that nothing is written. The
// mistakes that Writer and Reader themselves refuse are in MisuseTest.cpp; this file has one of each kind, and the null
// pointers.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "sdk/qxreport.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

// A report with one record, open for writing and for reading.
struct OpenInC {
  TempDir directory;
  std::string base = directory.File("r");
  qxreport_writer* writer = nullptr;
  qxreport_reader* reader = nullptr;

  OpenInC() {
    EXPECT_EQ(qxreport_open(base.c_str(), 3, &writer, nullptr), QXREPORT_OK);
    EXPECT_EQ(qxreport_append(writer, "a", 1, nullptr), QXREPORT_OK);
    EXPECT_EQ(qxreport_open_reader(base.c_str(), nullptr, &reader, nullptr), QXREPORT_OK);
  }
  ~OpenInC() {
    qxreport_close(writer);
    qxreport_close_reader(reader);
  }
  OpenInC(const OpenInC&) = delete;
  OpenInC& operator=(const OpenInC&) = delete;

  std::string Files() const {
    std::string all;
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
      all += entry.path().string() + "\n" + ReadFile(entry.path().string()) + "\n";
    }
    return all;
  }
};

struct MistakeInC {
  const char* name;
  std::function<int(OpenInC&, qxreport_error*)> make;
  int code;
  const char* text;
  std::uint64_t record = 0;
};

// A pointer that is not null: a failed open must set it to null.
qxreport_writer* Unset() { return reinterpret_cast<qxreport_writer*>(1); }

int OpenWriter(const char* path, std::uint32_t ring_size, qxreport_error* error) {
  qxreport_writer* writer = Unset();
  const int code = qxreport_open(path, ring_size, &writer, error);
  EXPECT_EQ(writer, nullptr);
  return code;
}

int OpenTheReader(const char* path, const char* cursor, qxreport_error* error) {
  qxreport_reader* reader = reinterpret_cast<qxreport_reader*>(Unset());
  const int code = qxreport_open_reader(path, cursor, &reader, error);
  EXPECT_EQ(reader, nullptr);
  return code;
}

constexpr const char* kTexts[] = {"good", nullptr};
constexpr const char* kBadTexts[] = {"good", "b\nd"};
constexpr std::size_t kSizes[] = {4, 3};
char path_buffer[4];

std::vector<MistakeInC> MistakesOfCallers() {
  return {
      {"path: no name", [](OpenInC&, qxreport_error* error) { return qxreport_path(nullptr, path_buffer, 4, error); },
       QXREPORT_BAD_ARGUMENT, "the name or the path is null"},
      {"path: no buffer", [](OpenInC&, qxreport_error* error) { return qxreport_path("r", nullptr, 4, error); },
       QXREPORT_BAD_ARGUMENT, "the name or the path is null"},
      {"path: buffer too small",
       [](OpenInC&, qxreport_error* error) { return qxreport_path("r", path_buffer, 4, error); }, QXREPORT_BAD_ARGUMENT,
       "the path does not fit"},
      {"path: name that leads out",
       [](OpenInC&, qxreport_error* error) { return qxreport_path("../r", path_buffer, 4, error); },
       QXREPORT_BAD_ARGUMENT, "no report has the name ../r"},
      {"open: no path", [](OpenInC&, qxreport_error* error) { return OpenWriter(nullptr, 3, error); },
       QXREPORT_BAD_ARGUMENT, "the path or the writer is null"},
      {"open: no writer",
       [](OpenInC& open, qxreport_error* error) { return qxreport_open(open.base.c_str(), 3, nullptr, error); },
       QXREPORT_BAD_ARGUMENT, "the path or the writer is null"},
      {"open: ring of 0",
       [](OpenInC& open, qxreport_error* error) { return OpenWriter((open.base + "new").c_str(), 0, error); },
       QXREPORT_BAD_ARGUMENT, "a ring of 0 records; 1 to 1073741823 are possible"},
      {"append: no writer", [](OpenInC&, qxreport_error* error) { return qxreport_append(nullptr, "x", 1, error); },
       QXREPORT_NOT_OPEN, "no report is open"},
      {"append: no text",
       [](OpenInC& open, qxreport_error* error) { return qxreport_append(open.writer, nullptr, 1, error); },
       QXREPORT_BAD_ARGUMENT, "a text is null"},
      {"append: no text of no bytes",
       [](OpenInC& open, qxreport_error* error) { return qxreport_append(open.writer, nullptr, 0, error); },
       QXREPORT_BAD_ARGUMENT, "a text is null"},
      {"append: line feed",
       [](OpenInC& open, qxreport_error* error) { return qxreport_append(open.writer, "a\nb", 3, error); },
       QXREPORT_BAD_TEXT, "a record contains a line feed at offset 1, at which readers would end it"},
      {"append: size with the NUL",
       [](OpenInC& open, qxreport_error* error) { return qxreport_append(open.writer, "ab", 3, error); },
       QXREPORT_BAD_TEXT, "a record contains a NUL at offset 2, at which readers would end it"},
      {"append many: no writer",
       [](OpenInC&, qxreport_error* error) { return qxreport_append_many(nullptr, kTexts, kSizes, 2, error); },
       QXREPORT_NOT_OPEN, "no report is open"},
      {"append many: no texts",
       [](OpenInC& open, qxreport_error* error) {
         return qxreport_append_many(open.writer, nullptr, kSizes, 2, error);
       },
       QXREPORT_BAD_ARGUMENT, "the list of texts is null"},
      {"append many: no sizes",
       [](OpenInC& open, qxreport_error* error) {
         return qxreport_append_many(open.writer, kTexts, nullptr, 2, error);
       },
       QXREPORT_BAD_ARGUMENT, "the list of sizes is null"},
      {"append many: a text is missing",
       [](OpenInC& open, qxreport_error* error) { return qxreport_append_many(open.writer, kTexts, kSizes, 2, error); },
       QXREPORT_BAD_ARGUMENT, "a text is null", 1},
      {"append many: line feed",
       [](OpenInC& open, qxreport_error* error) {
         return qxreport_append_many(open.writer, kBadTexts, kSizes, 2, error);
       },
       QXREPORT_BAD_TEXT, "a record contains a line feed at offset 1, at which readers would end it", 1},
      {"open reader: no path", [](OpenInC&, qxreport_error* error) { return OpenTheReader(nullptr, nullptr, error); },
       QXREPORT_BAD_ARGUMENT, "the path or the reader is null"},
      {"open reader: no reader",
       [](OpenInC& open, qxreport_error* error) {
         return qxreport_open_reader(open.base.c_str(), nullptr, nullptr, error);
       },
       QXREPORT_BAD_ARGUMENT, "the path or the reader is null"},
      {"open reader: not a cursor",
       [](OpenInC& open, qxreport_error* error) { return OpenTheReader(open.base.c_str(), "x", error); },
       QXREPORT_BAD_ARGUMENT, "the text is not the cursor of a report"},
      {"open reader: no report", [](OpenInC&, qxreport_error* error) { return OpenTheReader("/none", nullptr, error); },
       QXREPORT_NOT_FOUND, "there is no report /none"},
      {"read: no reader",
       [](OpenInC&, qxreport_error* error) {
         qxreport_record record = {"left over", 9, 1, 1};
         const int code = qxreport_read(nullptr, 0, &record, error);
         EXPECT_EQ(record.text, nullptr);
         return code;
       },
       QXREPORT_NOT_OPEN, "no report is open"},
      {"read: no record",
       [](OpenInC& open, qxreport_error* error) { return qxreport_read(open.reader, 0, nullptr, error); },
       QXREPORT_BAD_ARGUMENT, "the record is null"},
  };
}

TEST(QxReportMisuse, MistakesOfCallersAreRefused) {
  for (const MistakeInC& mistake : MistakesOfCallers()) {
    SCOPED_TRACE(mistake.name);
    OpenInC open;
    const std::string before = open.Files();
    qxreport_error error = {};
    EXPECT_EQ(mistake.make(open, &error), mistake.code);
    EXPECT_EQ(error.code, mistake.code);
    EXPECT_STREQ(error.text, mistake.text);
    EXPECT_EQ(error.record, mistake.record);
    EXPECT_EQ(mistake.make(open, nullptr), mistake.code) << "without an error to fill";
    EXPECT_EQ(open.Files(), before) << "something was written";
  }
}

TEST(QxReportMisuse, NothingIsClosedAndHasNoCursor) {
  qxreport_close(nullptr);
  qxreport_close_reader(nullptr);
  EXPECT_EQ(qxreport_cursor(nullptr), nullptr);
}

TEST(QxReportMisuse, EmptyListNeedsNoPointers) {
  const OpenInC open;
  EXPECT_EQ(qxreport_append_many(open.writer, nullptr, nullptr, 0, nullptr), QXREPORT_OK);
}

}  // namespace
}  // namespace qx::test
