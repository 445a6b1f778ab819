#include "tools/qxview/api/Reading.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

#include "base/File.h"
#include "provider/NamesFile.h"
#include "reportfile/ReportFileBase.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/store/StoreInfo.h"
#include "tools/qxview/api/Failure.h"
#include "tools/qxview/api/Parameters.h"
#include "tools/qxview/http/Reply.h"
#include "tools/qxview/report/Documents.h"
#include "tools/qxview/report/ReportPath.h"

namespace qx::view {

namespace {

using ctl::Json;

constexpr std::int64_t kRecordsDefault = 500;
constexpr std::int64_t kRecordsMax = 5000;
constexpr std::int64_t kColumnsDefault = 800;
constexpr std::int64_t kColumnsMax = 4000;
constexpr std::size_t kChartFieldsMax = 8;
constexpr std::uint32_t kFieldRecords = 24;  // records that are searched for fields
constexpr std::size_t kPageBytesMax = std::size_t{2} << 20;

std::string NameOf(const HttpRequest& request) { return request.Value("report").value_or(""); }

HttpReply NoReport(const HttpRequest& request) {
  return ReplyOf(Failure::kNoSuchReport, "there is no report \"" + ctl::Visible(NameOf(request)) + "\"");
}

HttpReply Unreadable(const HttpRequest& request, const std::string& why) {
  return ReplyOf(Failure::kUnreadable, "the report \"" + ctl::Visible(NameOf(request)) + "\" cannot be read: " + why);
}

HttpReply ErrorReply(const HttpRequest& request, int error) {
  if (error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG) return NoReport(request);
  return Unreadable(request, error == EBADMSG ? "its header contradicts itself" : std::strerror(error));
}

HttpReply ErrorReply(const HttpRequest& request, const Error& error) {
  if (error.code == ErrorCode::kNotFound) return NoReport(request);
  if (error.system_error != 0) return ErrorReply(request, error.system_error);
  return Unreadable(request, "its header contradicts itself");
}

// Keeps the newest of the records that are added, within limits.
class NewestRecords {
 public:
  NewestRecords(std::size_t count_max, std::string filter) : count_max_(count_max), filter_(std::move(filter)) {}

  void Add(const PassedRecord& record) {
    if (!Shows(filter_, record.text)) return;
    records_.push_back({record.number, std::string(record.text) + (record.is_whole ? "\r\n" : "")});
    bytes_ += records_.back().text.size();
    while (records_.size() > count_max_ || (bytes_ > kPageBytesMax && records_.size() > 1)) {
      bytes_ -= records_.front().text.size();
      records_.pop_front();
      ++omitted_;
    }
  }

  void TakeInto(RecordPage& page) {
    page.records.assign(std::make_move_iterator(records_.begin()), std::make_move_iterator(records_.end()));
    page.omitted = omitted_;
  }

 private:
  std::size_t count_max_;
  std::string filter_;
  std::deque<NumberedRecord> records_;
  std::size_t bytes_ = 0;
  std::uint64_t omitted_ = 0;
};

Reading::Steps AtOnce(HttpReply reply) {
  return [reply = std::move(reply)](bool) { return reply; };
}

// A name for a file: letters, digits and "-", "_", "." of the report's name.
std::string FileNameOf(std::string name) {
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.';
  };
  std::replace_if(
      name.begin(), name.end(), [&](char c) { return !is_plain(c); }, '_');
  return name + ".txt";
}

}  // namespace

HttpReply Reading::Report(const HttpRequest& request) {
  const auto base_path = BasePathOf(directory_, NameOf(request));
  if (!base_path.has_value()) return NoReport(request);
  CReportFileBase store;
  errno = 0;
  const bool is_open = store.OpenRead(base_path->c_str());
  const int error = errno;
  if (!is_open) return ErrorReply(request, error != 0 ? error : EIO);
  return ReplyOf(ToJson(ctl::InfoOf(*base_path, store)));
}

HttpReply Reading::Names(const HttpRequest& request) {
  const std::string name = NameOf(request);
  const auto base_path = BasePathOf(directory_, name);
  if (!base_path.has_value()) return NoReport(request);
  provider::NamesFile file;
  (void)file.Read(directory_, name);  // most reports have no such file
  Json list = Json::Array();
  for (const provider::NamesFile::Instance* instance : file.Instances()) {
    Json entry;
    ctl::SetText(entry, "number", instance->first);
    ctl::SetText(entry, "name", instance->second);
    list.Append(std::move(entry));
  }
  Json document;
  ctl::SetText(document, "report", name);
  document["instances"] = std::move(list);
  return ReplyOf(document);
}

HttpReply Reading::Fields(const HttpRequest& request) {
  const auto base_path = BasePathOf(directory_, NameOf(request));
  if (!base_path.has_value()) return NoReport(request);
  const RecordPage page = RecordTail(*base_path).Read(std::nullopt, kFieldRecords);
  if (page.error != 0) return ErrorReply(request, page.error);
  return ReplyOf(FieldsDocument(NameOf(request), page));
}

Reading::Steps Reading::Chart(const HttpRequest& request) {
  const auto base_path = BasePathOf(directory_, NameOf(request));
  if (!base_path.has_value()) return AtOnce(NoReport(request));
  Parameters parameters(request);
  ChartRequest wanted;
  wanted.fields = parameters.Texts("field", kChartFieldsMax);
  wanted.from = parameters.Number("from");
  wanted.to = parameters.Number("to");
  wanted.columns = static_cast<std::size_t>(parameters.Number("columns", 1, kColumnsMax, kColumnsDefault));
  if (!parameters.Problem().empty()) return AtOnce(ReplyOf(Failure::kBadParameter, parameters.Problem()));
  return [this, request, base_path = *base_path,
          drawing = Drawing{.request = std::move(wanted)}](bool is_last_of_turn) mutable {
    const Error error = indexes_.IndexOf(base_path).Step(drawing, is_last_of_turn);
    return StepOf(request, drawing.work, error,
                  [&] { return ChartDocument(NameOf(request), drawing.request.fields, drawing.chart); });
  };
}

std::optional<HttpReply> Reading::StepOf(const HttpRequest& request, const IndexWork& work, const Error& error,
                                         const std::function<Json()>& document) {
  if (!error.Failed() && !work.is_done) return std::nullopt;
  Trim();
  return error.Failed() ? ErrorReply(request, error) : ReplyOf(document());
}

Reading::Steps Reading::Records(const HttpRequest& request) {
  const auto base_path = BasePathOf(directory_, NameOf(request));
  if (!base_path.has_value()) return AtOnce(NoReport(request));
  Parameters parameters(request);
  const std::string filter = parameters.Text("filter");
  const bool has_times = request.Value("from").has_value() || request.Value("to").has_value();
  const bool is_search = !filter.empty() && !request.Value("after").has_value();
  if (has_times || is_search) return RecordsBetween(request, *base_path);
  const auto newest = static_cast<std::uint32_t>(parameters.Number("newest", 1, kRecordsMax, kRecordsDefault));
  if (!parameters.Problem().empty()) return AtOnce(ReplyOf(Failure::kBadParameter, parameters.Problem()));
  const std::string after = request.Value("after").value_or("");
  const RecordPage page = RecordTail(*base_path).Read(CursorOf(after), newest);
  return AtOnce(page.error != 0 ? ErrorReply(request, page.error)
                                : ReplyOf(RecordsDocument(NameOf(request), page, filter)));
}

Reading::Steps Reading::RecordsBetween(const HttpRequest& request, const std::string& base_path) {
  Parameters parameters(request);
  const auto from = parameters.Number("from");
  const auto to = parameters.Number("to");
  const std::string filter = parameters.Text("filter");
  const std::int64_t newest_max = parameters.Number("newest", 1, kRecordsMax, kRecordsDefault);
  const auto count_max = static_cast<std::size_t>(parameters.Number("max", 1, kRecordsMax, newest_max));
  if (!parameters.Problem().empty()) return AtOnce(ReplyOf(Failure::kBadParameter, parameters.Problem()));
  const auto newest = std::make_shared<NewestRecords>(count_max, filter);
  const PlaceRange every;
  RangeReading reading = {.range = {.from = from.value_or(every.from), .to = to.value_or(every.to)},
                          .begin = [newest, count_max, filter] { *newest = NewestRecords(count_max, filter); },
                          .take = [newest](const PassedRecord& record) { newest->Add(record); }};
  return [this, request, base_path, newest, reading = std::move(reading)](bool is_last_of_turn) mutable {
    const Error error = indexes_.IndexOf(base_path).Step(reading, is_last_of_turn);
    return StepOf(request, reading.work, error, [&] {
      RecordPage page;
      page.is_reset = true;
      page.cursor = reading.cursor;
      newest->TakeInto(page);
      return RecordsDocument(NameOf(request), page, "");
    });
  };
}

Reading::Download Reading::Text(const HttpRequest& request) const {
  const auto base_path = BasePathOf(directory_, NameOf(request));
  if (!base_path.has_value()) return {.head = NoReport(request), .text = nullptr};
  Parameters parameters(request);
  TextWish wish = {
      .filter = parameters.Text("filter"), .from = parameters.Number("from"), .to = parameters.Number("to")};
  if (!parameters.Problem().empty()) {
    return {.head = ReplyOf(Failure::kBadParameter, parameters.Problem()), .text = nullptr};
  }
  auto text = std::make_shared<RecordText>(*base_path, std::move(wish));
  if (const Error error = text->Open(); error.Failed()) return {.head = ErrorReply(request, error), .text = nullptr};
  HttpReply head;
  head.type = "text/plain; charset=utf-8";
  head.headers = {{"Cache-Control", "no-store"},
                  {"Content-Disposition", "attachment; filename=\"" + FileNameOf(NameOf(request)) + "\""}};
  return {.head = std::move(head), .text = std::move(text)};
}

}  // namespace qx::view
