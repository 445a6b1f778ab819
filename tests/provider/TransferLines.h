// The trace lines of a report transfer, in the groups in which calls write them. A test makes a whole trace from these
// groups and from the lines of its own case.
#pragma once

#include <cstddef>
#include <string>

#include "tests/provider/TraceLines.h"

namespace qx::test::transfer {

// The lines of a request that names a report; `dump` is the name in hexadecimal digits. A call from the first record on
// starts a new transfer.
inline TraceLines RequestOf(const std::string& name, const std::string& dump, int start) {
  TraceLines lines = {{4, dump}};
  if (start == 0) lines.push_back({3, "WCSP_QX GetReports  : New call (StartIndex=0) ==> reset class"});
  lines.push_back({4, "WCSP_QX GetReports  :   report name: \"" + name + "\", start index: " + std::to_string(start)});
  return lines;
}

inline TraceLines RecordLimit(int limit) {
  return {{4, "WCSP_QX GetReports  :   nr of records to read: " + std::to_string(limit)}};
}

inline TraceLines PathOfReport(const std::string& path) {
  return {{4, "WCSP_QX GetReports  :   report file path: " + path}};
}

inline TraceLines NotReadableLine(const std::string& name) {
  return {{1, "WCSP_QX GetReports  : ## ERROR! Could not read data file for report \"" + name + "\" (0x00000002)"}};
}

// The line of the first call of a transfer, which opens the report; `size` is the size of its data file ("18 Bytes").
inline TraceLines OpenedReport(const std::string& name, const std::string& size) {
  return {{2, "WCSP_QX GetReports  : Get report file \"" + name + "\", total size: " + size + ", chunk size: 1024 kB"}};
}

inline TraceLines RingIndices(int oldest, int highest) {
  return {{3, "WCSP_QX GetReports  :   oldest index:  " + std::to_string(oldest)},
          {3, "WCSP_QX GetReports  :   highest index: " + std::to_string(highest)}};
}

inline TraceLines ReadEntry(int number, int slot) {
  return {{5, "WCSP_QX GetReports  :   read entry #" + std::to_string(number) + ", index=" + std::to_string(slot)}};
}

// The line after the first read of a transfer.
inline TraceLines CompareOldest(int oldest) {
  return {{4, "WCSP_QX GetReports  :     compare oldest index=" + std::to_string(oldest) + " whether changed"}};
}

// The line of a record that the reply gets. The trace cuts an entry at 1024 characters.
inline TraceLines TakenEntry(const std::string& text) {
  const std::string line = "WCSP_QX GetReports  :   --> entry: " + text;
  return {{5, line.substr(0, 1024)}};
}

inline TraceLines ChunkIsFull() {
  return {{4, "WCSP_QX GetReports  :   --> chunk size limit (1048576) reached, return now"}};
}

inline TraceLines EndOfRing() {
  return {{3, "WCSP_QX GetReports  :   index higher that highest index - exit reading"}};
}

inline TraceLines RecordsRead(int count, std::size_t bytes) {
  return {
      {3, "WCSP_QX GetReports  : " + std::to_string(count) + " records read (" + std::to_string(bytes) + " bytes)"}};
}

// The line of a reply with `text`, of which the first 256 characters are traced; `before` is the text before the root
// element.
inline TraceLines RepliedRecords(const std::string& name, int start, int next, const std::string& text,
                                 const std::string& before = {}) {
  return {{4, "WCSP_QX GetReports  :   XML reply: \"" + before + "<ReportData Name=\"" + name + "\" StartIndex=\"" +
                  std::to_string(start) + "\" NextIndex=\"" + std::to_string(next) + "\"/>\n\""},
          {4, "WCSP_QX GetReports  :   data length = " + std::to_string(text.size()) + " bytes"},
          {4, "WCSP_QX GetReports  :   data:   \"" + text.substr(0, 256) + "...\""}};
}

}  // namespace qx::test::transfer
