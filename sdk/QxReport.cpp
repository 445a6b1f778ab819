// Implements the C interface with Writer and Reader. No exception leaves a function.
#include "sdk/qxreport.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sdk/Errors.h"
#include "sdk/Reader.h"
#include "sdk/Writer.h"

struct qxreport_writer {
  qx::Writer writer;
};

struct qxreport_reader {
  qx::Reader reader;
  std::optional<qx::Record> record;
  std::string cursor;
};

namespace {

using qx::Error;
using qx::ErrorCode;
using qx::sdk::MakeError;
using qx::sdk::WithoutExceptions;

int Report(const Error& error, qxreport_error* to) {
  if (to == nullptr) return static_cast<int>(error.code);
  *to = {};
  to->code = static_cast<int>(error.code);
  to->system_error = error.system_error;
  to->record = error.record;
  error.text.copy(to->text, sizeof to->text - 1);
  return to->code;
}

Error Missing(const char* what) { return MakeError(ErrorCode::kBadArgument, std::string(what) + " is null"); }

Error CopyPath(const char* name, char* path, size_t path_size) {
  if (name == nullptr || path == nullptr) return Missing("the name or the path");
  const std::string found = qx::ReportPath(name);
  if (found.empty()) return MakeError(ErrorCode::kBadArgument, "no report has the name " + std::string(name));
  if (found.size() >= path_size) return MakeError(ErrorCode::kBadArgument, "the path does not fit");
  std::memcpy(path, found.c_str(), found.size() + 1);
  return {};
}

Error AppendMany(qxreport_writer* writer, const char* const* texts, const size_t* sizes, size_t count) {
  if (writer == nullptr) return MakeError(ErrorCode::kNotOpen, "no report is open");
  if (count > 0 && texts == nullptr) return Missing("the list of texts");
  if (count > 0 && sizes == nullptr) return Missing("the list of sizes");
  std::vector<std::string_view> views;
  views.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    if (texts[i] == nullptr) return {.code = ErrorCode::kBadArgument, .record = i, .text = "a text is null"};
    views.emplace_back(texts[i], sizes[i]);
  }
  return writer->writer.Append(std::span<const std::string_view>(views));
}

Error Read(qxreport_reader* reader, std::uint32_t timeout_ms, qxreport_record* record) {
  if (record == nullptr) return Missing("the record");
  *record = {};
  if (reader == nullptr) return MakeError(ErrorCode::kNotOpen, "no report is open");
  reader->record = reader->reader.Next(std::chrono::milliseconds(timeout_ms));
  if (!reader->record.has_value()) return reader->reader.LastError();
  record->text = reader->record->text.c_str();
  record->size = reader->record->text.size();
  record->state = static_cast<int>(reader->record->state);
  record->event = static_cast<int>(reader->record->event);
  return {};
}

}  // namespace

extern "C" {

int qxreport_path(const char* name, char* path, size_t path_size, qxreport_error* error) {
  return Report(WithoutExceptions([&] { return CopyPath(name, path, path_size); }), error);
}

int qxreport_open(const char* path, uint32_t ring_size, qxreport_writer** writer, qxreport_error* error) {
  if (writer != nullptr) *writer = nullptr;
  const auto open = [&]() -> Error {
    if (path == nullptr || writer == nullptr) return Missing("the path or the writer");
    auto opened = std::make_unique<qxreport_writer>();
    Error failure = opened->writer.Open(path, ring_size);
    if (!failure.Failed()) *writer = opened.release();
    return failure;
  };
  return Report(WithoutExceptions(open), error);
}

int qxreport_append(qxreport_writer* writer, const char* text, size_t size, qxreport_error* error) {
  return Report(WithoutExceptions([&] { return AppendMany(writer, &text, &size, 1); }), error);
}

int qxreport_append_many(qxreport_writer* writer, const char* const* texts, const size_t* sizes, size_t count,
                         qxreport_error* error) {
  return Report(WithoutExceptions([&] { return AppendMany(writer, texts, sizes, count); }), error);
}

void qxreport_close(qxreport_writer* writer) { delete writer; }

int qxreport_open_reader(const char* path, const char* cursor, qxreport_reader** reader, qxreport_error* error) {
  if (reader != nullptr) *reader = nullptr;
  const auto open = [&]() -> Error {
    if (path == nullptr || reader == nullptr) return Missing("the path or the reader");
    auto opened = std::make_unique<qxreport_reader>();
    Error failure = opened->reader.Open(path, cursor != nullptr ? std::string_view(cursor) : std::string_view());
    if (!failure.Failed()) *reader = opened.release();
    return failure;
  };
  return Report(WithoutExceptions(open), error);
}

int qxreport_read(qxreport_reader* reader, uint32_t timeout_ms, qxreport_record* record, qxreport_error* error) {
  return Report(WithoutExceptions([&] { return Read(reader, timeout_ms, record); }), error);
}

const char* qxreport_cursor(qxreport_reader* reader) {
  if (reader == nullptr) return nullptr;
  const auto save = [&]() -> Error {
    reader->cursor = reader->reader.Cursor();
    return {};
  };
  return WithoutExceptions(save).Failed() ? nullptr : reader->cursor.c_str();
}

void qxreport_close_reader(qxreport_reader* reader) { delete reader; }

}  // extern "C"
