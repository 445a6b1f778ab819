// Creates, extends, prints and describes a report through its files, without the module.
#include "tools/qxctl/report/ReportCommand.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/File.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "sdk/Writer.h"
#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/LongStep.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/fetch/RecordPrint.h"
#include "tools/qxctl/report/RecordRun.h"
#include "tools/qxctl/slice/SliceOptions.h"
#include "tools/qxctl/store/ReportArguments.h"
#include "tools/qxctl/store/ReportDamage.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/store/StoreFiles.h"
#include "tools/qxctl/store/StoreInfo.h"
#include "tools/qxctl/store/StoredSlots.h"

namespace qx::ctl {

namespace {

using report::IndexHeader;

// --- create

Status Create(Context&, const Values& values) {
  std::string path;
  if (Status found = FindNewBasePath(values.Text("REPORT"), path); !found.IsOk()) return found;
  for (const std::string& file : {report::IndexFileName(path), report::DataFileName(path)}) {
    if (access(file.c_str(), F_OK) == 0) {
      return {ExitCode::kRefused, file + " exists already; remove both files of the report to start it over"};
    }
  }
  CReportFileBase store;
  const bool is_open = store.Open(path.c_str(), static_cast<std::uint32_t>(values.Integer("--slots", 0)));
  const int open_error = errno;
  if (!is_open) return StatusOfReportFile("cannot create " + path, open_error);
  // The ring size is part of the header. Without it in the file, the next writer would use its own default.
  const bool is_written = store.writePositionsToFile() == 0;
  const int write_error = errno;
  return is_written ? Status() : Status::Io("cannot write " + report::IndexFileName(path), write_error);
}

// --- append

// A reader ends a record at each of these bytes, so the text after one could never be read.
Status RefusedText(const Error& error, const std::string& what) {
  if (error.code == ErrorCode::kBadText) {
    return {ExitCode::kFinding, what + " has a line feed, a NUL or a byte 0xFF, which end a record when it is read; " +
                                    "neither it nor what follows it was appended"};
  }
  return {ExitCode::kFinding,
          what + " is longer than a reply of the module can hold; neither it nor what follows it was appended"};
}

bool IsRefusedText(const Error& error) {
  return error.code == ErrorCode::kBadText || error.code == ErrorCode::kTooLong;
}

Status AppendError(const Error& error, const std::string& what) {
  if (!error.Failed()) return {};
  if (IsRefusedText(error)) return RefusedText(error, what);
  if (error.system_error != 0) return Status::Io("cannot append " + what, error.system_error);
  return {ExitCode::kIo, "cannot append " + what + ": " + error.text};
}

// Appends the lines. `lines_before`: the number of lines that were appended before them.
Status AppendLines(Writer& report, std::span<const std::string_view> lines, std::uint64_t lines_before) {
  const Error error = report.Append(lines);
  if (!error.Failed()) return {};
  if (IsRefusedText(error)) {
    if (Status status = AppendLines(report, lines.first(error.record), lines_before); !status.IsOk()) return status;
  }
  return AppendError(error, "line " + std::to_string(lines_before + error.record + 1) + " of standard input");
}

// A line of text without its line end, "\n" or "\r\n".
std::string_view WithoutLineEnd(std::string_view line) {
  if (line.ends_with('\n')) line.remove_suffix(1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

// Takes the whole lines from the beginning of the text; the beginning of an incomplete line remains.
std::vector<std::string_view> TakeLines(std::string_view& text) {
  std::vector<std::string_view> lines;
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    lines.push_back(WithoutLineEnd(text.substr(0, end + 1)));
    text.remove_prefix(end + 1);
  }
  return lines;
}

// The lines of each read are appended together, so a line from a pipe is appended as soon as it arrives. A line that is
// too long for a record is refused before its end is read.
Status AppendStandardInput(Writer& report) {
  constexpr std::size_t kReadBytes = std::size_t{256} << 10;
  std::string text;
  for (std::uint64_t lines_before = 0;;) {
    const std::size_t begun = text.size();
    text.resize(begun + kReadBytes);
    const file::Progress read = file::ReadSome(STDIN_FILENO, text.data() + begun, kReadBytes);
    if (read.Failed()) return Status::Io("cannot read standard input", read.error);
    text.resize(begun + read.bytes);
    std::string_view left = text;
    std::vector<std::string_view> lines = TakeLines(left);
    const bool is_over = read.bytes == 0 || left.size() > kRecordTextMax + 1;
    if (is_over && !left.empty()) lines.push_back(WithoutLineEnd(left));
    if (Status status = AppendLines(report, lines, lines_before); !status.IsOk() || is_over) return status;
    lines_before += lines.size();
    text.erase(0, text.size() - left.size());
  }
}

Status AppendAll(Writer& report, const std::vector<std::string>& texts) {
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const std::string& text = texts[i];
    Status status =
        text == "-" ? AppendStandardInput(report) : AppendError(report.Append(text), "text " + std::to_string(i + 1));
    if (!status.IsOk()) return status;
  }
  return {};
}

Status OpenStatus(const Error& error, const std::string& path) {
  switch (error.code) {
    case ErrorCode::kNone:
      return {};
    case ErrorCode::kOtherWriter:
      return {ExitCode::kRefused, error.text};
    case ErrorCode::kDamaged:
      return {ExitCode::kFinding, error.text + "; \"qxctl report verify\" shows more"};
    default:
      return error.system_error != 0 ? StatusOfReportFile("cannot open " + path, error.system_error)
                                     : Status(ExitCode::kIo, error.text);
  }
}

Status AppendWithProgress(const Output& output, Writer& report, const std::string& path,
                          const std::vector<std::string>& texts) {
  const LongStep step(output, "appending to " + path);
  return AppendAll(report, texts);
}

Status Append(Context& context, const Values& values) {
  std::string path;
  if (Status found = BasePathOf(values, path); !found.IsOk()) return found;
  if (Status status = CheckStoreFiles(path, R_OK | W_OK); !status.IsOk()) return status;
  Writer report;
  if (Status status = OpenStatus(report.OpenExisting(path), path); !status.IsOk()) return status;
  const bool is_damaged = WarnOfDamage(context.output, path);
  return WithDamage(AppendWithProgress(context.output, report, path, values.Texts("TEXT")), is_damaged);
}

// --- cat

// The slots that the header counts, but no more than the index file has: a damaged count must not cost hours.
std::uint32_t ReadableSlots(const IndexHeader& header, const std::string& path) {
  const std::int64_t bytes = FileSize(report::IndexFileName(path)).value_or(0);
  const std::int64_t slots_in_file = std::max<std::int64_t>(bytes - report::SlotOffset(0), 0) / 4;
  return static_cast<std::uint32_t>(std::min<std::int64_t>(header.highestIndex, slots_in_file));
}

// The first record that may be in the slice. If the slice is the newest N records, those before them are not read.
std::uint32_t FirstInSlice(const Slice& slice, std::uint32_t slots) {
  if (!slice.last || slice.Filters() || *slice.last >= slots) return 0;
  return slots - static_cast<std::uint32_t>(*slice.last);
}

// Prints the slice of the records of a report through `printer`.
Status CatRecords(Output& output, const std::string& path, const Slice& slice, RecordPrinter& printer) {
  CReportFileBase store;
  if (Status status = OpenStoreForReading(path, store); !status.IsOk()) return status;
  const IndexHeader& header = store.header();
  const std::uint32_t slots = ReadableSlots(header, path);
  StoredSlots stored(report::IndexFileName(path));
  SlicedRecords records(slice, printer, [&](const std::string& text) {
    return printer.ReplacesRecords() ? Status() : output.Data(text);
  });
  std::uint32_t left_out = 0;
  RecordRun run(store, path, [&](const std::string& record) { return records.Add(record); });
  const std::uint32_t first = printer.DrawsChart() ? 0 : FirstInSlice(slice, slots);  // stamps count for what follows
  for (std::uint32_t i = 0; i < first; ++i) (void)printer.Number();
  for (std::uint32_t i = first; i < slots;) {
    const std::uint32_t slot = report::SlotOfLogical(header, i);
    const std::uint64_t rest_end = std::min<std::uint64_t>(std::uint64_t{slot} + (slots - i), header.highestIndex);
    const std::uint64_t run_end = std::max<std::uint64_t>(rest_end, std::uint64_t{slot} + 1);
    const std::uint32_t in_hole = stored.NextFrom(slot, static_cast<std::uint32_t>(run_end)) - slot;
    left_out += in_hole;
    i += in_hole;
    if (in_hole > 0) continue;
    const std::uint32_t stored_end = stored.EndFrom(slot, static_cast<std::uint32_t>(run_end));
    const std::uint32_t ring_end = header.maxRecord != 0 ? std::min(stored_end, header.maxRecord) : stored_end;
    if (Status status = run.Pass(slot, ring_end - slot, i); !status.IsOk()) return status;
  }
  if (Status status = records.Finish(); !status.IsOk()) return status;
  if (left_out > 0) {
    return {ExitCode::kFinding, std::to_string(left_out) + " slots of " + report::IndexFileName(path) +
                                    " are a hole in the file and were left out; \"qxctl report verify\" checks it"};
  }
  if (slots == header.highestIndex) return {};
  return {ExitCode::kFinding, "the header counts " + std::to_string(header.highestIndex) + " records, but " +
                                  report::IndexFileName(path) + " holds " + std::to_string(slots) + " slots"};
}

Status Cat(Context& context, const Values& values) {
  const RecordPrintOptions print = RecordPrintOptionsOf(values);
  if (Status status = CheckRecordPrintOptions(print); !status.IsOk()) return status;
  Slice slice;
  if (Status status = SliceOf(values, slice); !status.IsOk()) return status;
  ReportArguments arguments;
  if (Status status = ReportsOf(values, context.output, arguments); !status.IsOk()) return status;
  RecordPrinter printer(context.output, print);
  Status status = ForEachReport(context.output, arguments, [&](const ReportArgument& report) {
    Status printed = CatRecords(context.output, report.base_path, slice, printer);
    if (printed.Code() > ExitCode::kFinding) return printed;
    Status shown = printer.ShowFields(report.text, arguments.reports.size() > 1);
    return shown.IsOk() ? printed : shown;
  });
  if (status.Code() > ExitCode::kFinding) return status;
  Status drawn = printer.Finish(Joined(values.Texts("REPORT"), ", "));
  return drawn.IsOk() ? status : drawn;
}

// --- info

std::string PaintedRing(const Output& output, const StoreInfo& info) {
  const bool is_damaged = RingState(info) == std::string_view("damaged");
  return is_damaged ? output.Paint(Style::kBad, RingState(info)) : RingState(info);
}

std::string InfoToText(const Output& output, const StoreInfo& info) {
  const IndexHeader& header = info.header;
  const auto restart = RecordsUntilRestart(header);
  const std::array<std::pair<const char*, std::string>, 9> lines = {{
      {"ring", PaintedRing(output, info)},
      {"slots in use", std::to_string(header.highestIndex) + " of " + std::to_string(header.maxRecord)},
      {"oldest record", "slot " + std::to_string(header.oldestIndex)},
      {"records written", std::to_string(header.elementCount)},
      {"write position", std::to_string(header.writePosition)},
      {"file end", std::to_string(header.fileEnd)},
      {"data file restarts", restart.has_value() ? "in " + std::to_string(*restart) + " records" : "never"},
      {"index file", std::to_string(info.index_bytes) + " bytes"},
      {"data file", std::to_string(info.data_bytes) + " bytes"},
  }};
  std::string text;
  for (const auto& [label, value] : lines) {
    char padded[32];
    std::snprintf(padded, sizeof padded, "%-20s", label);
    text.append(padded).append(value).append("\n");
  }
  return text;
}

Status StatusOf(const StoreInfo& info) {
  if (RingState(info) != std::string_view("damaged")) return {};
  return {ExitCode::kFinding, "the header of " + report::IndexFileName(info.path) + " contradicts itself"};
}

Status InfoOfReport(Context& context, const Values& values, const std::string& path, bool is_alone) {
  CReportFileBase store;
  if (Status status = OpenStoreForReading(path, store); !status.IsOk()) return status;
  const StoreInfo info = InfoOf(path, store);
  return ShowResult(
      context, values, [&] { return ToJson(info); },
      [&] { return (is_alone ? "" : Visible(path) + ":\n") + InfoToText(context.output, info); }, StatusOf(info));
}

Status Info(Context& context, const Values& values) {
  ReportArguments arguments;
  if (Status status = ReportsOf(values, context.output, arguments); !status.IsOk()) return status;
  return ForEachReport(context.output, arguments, [&](const ReportArgument& report) {
    return InfoOfReport(context, values, report.base_path, arguments.reports.size() == 1);
  });
}

// --- the commands

constexpr Limits kSlots = {1, report::kMaxRecordUnlimited};

constexpr Parameter kCreateParameters[] = {
    {.name = "--slots",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Records that the ring keeps",
     .limits = kSlots,
     .is_required = true},
};

constexpr Parameter kAppendParameters[] = {
    {.name = "TEXT",
     .kind = ValueKind::kText,
     .help = "The text of a record; - appends each line of standard input",
     .is_required = true,
     .is_repeatable = true},
};

constexpr Parameter kInfoParameters[] = {{.name = "--json", .help = "Print the header and the sizes as JSON"}};

constexpr Example kReportCreateExamples[] = {
    {"qxctl report create load --slots 1000", "Make a report of the report directory"},
    {"qxctl report create ./load --slots 3", "Make one in the working directory"},
};

constexpr Example kReportAppendExamples[] = {
    {"qxctl report append load '09:00 load 0.12'", "Append a record"},
    {"vmstat 1 10 | qxctl report append load -", "Append each line of another program"},
};

constexpr Example kReportCatExamples[] = {
    {"qxctl report cat load", "Print all records"},
    {"qxctl report cat load --since yesterday --reverse", "Print those since yesterday, the newest first"},
    {"qxctl report cat load --fields", "Show which fields the records have"},
    {"qxctl report cat load --plot cpu,load --since today", "Draw two numbers of each record of today"},
};

constexpr Example kReportInfoExamples[] = {
    {"qxctl report info load", "Print the header and the sizes of a report"},
    {"qxctl report info --all --json", "Print those of all reports as JSON"},
};

}  // namespace

constinit const Command kReportCreateCommand = {.words = "report create",
                                                .help = "Make a new, empty report",
                                                .run = Create,
                                                .parameters = {kReportParameter, kCreateParameters},
                                                .examples = kReportCreateExamples};

constinit const Command kReportAppendCommand = {.words = "report append",
                                                .help = "Append records",
                                                .run = Append,
                                                .parameters = {kReportParameter, kAppendParameters},
                                                .examples = kReportAppendExamples};

constinit const Command kReportCatCommand = {
    .words = "report cat",
    .help = "Print the records, oldest first",
    .run = Cat,
    .parameters = {kReportsParameter, kRecordSliceParameters, kRecordPrintParameters},
    .examples = kReportCatExamples};

constinit const Command kReportInfoCommand = {.words = "report info",
                                              .help = "Print the header and the sizes",
                                              .run = Info,
                                              .parameters = {kReportsOrAllParameters, kInfoParameters},
                                              .examples = kReportInfoExamples};

}  // namespace qx::ctl
