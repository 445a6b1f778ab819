// Prints the records of a report as they appear, read through the module, until ^C.
#include "tools/qxctl/fetch/FollowCommand.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/fetch/PollEvents.h"
#include "tools/qxctl/fetch/RecordPrint.h"
#include "tools/qxctl/fetch/ReportSource.h"
#include "tools/qxctl/module/CallOptions.h"
#include "tools/qxctl/slice/SliceOptions.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportArguments.h"
#include "tools/qxctl/store/ReportDamage.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int kFailuresMax = 5;  // this number of failures in a row ends the command
constexpr double kSecondsMax = 1e6;
constexpr double kIntervalMin = 0.01;

struct Options {
  CallOptions call;
  std::string report;
  RecordPrintOptions print;
  Slice slice;
  double interval = 1;
  std::optional<std::uint64_t> count;
  std::optional<double> duration;
  bool wait = false;
  bool from_now = false;
  bool json = false;
};

class Follow {
 public:
  Follow(Context& context, const Options& options, WorkerThread& worker, bool is_damaged)
      : output_(context.output),
        options_(options),
        source_(worker, options.report, std::nullopt),
        follower_(source_),
        printer_(context.output, options.print),
        filter_(options.slice),
        held_(options.slice),
        skips_(options.from_now),
        holds_(options.slice.NeedsAllRecords()),
        is_damaged_(is_damaged),
        end_(Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(options.duration.value_or(0)))) {}

  Status Run() {
    Status status = Watch();
    if (InterruptSignal() == SIGPIPE) return status;
    if (Status closed = Close(status); !closed.IsOk()) return closed;
    return status;
  }

 private:
  struct Numbered {
    std::uint64_t index;
    std::optional<std::int64_t> time_ms;
    std::string record;
  };

  Status Watch() {
    for (;;) {
      bool is_at_end = true;
      if (Status status = Poll(is_at_end); !status.IsOk()) return status;
      if (Status status = output_.Show(); !status.IsOk()) return status;
      if (HasEnded()) return IsClean() ? Status() : Status(ExitCode::kFinding, "");
      if (!is_at_end) continue;
      const auto time = std::chrono::duration_cast<std::chrono::nanoseconds>(TimeToNextPoll());
      if (Status status = WaitWhileOutputIsRead(time); !status.IsOk()) return status;
    }
  }

  bool IsClean() const { return tally_.IsClean() && failures_in_all_ == 0 && !is_damaged_; }

  bool HasEnded() const {
    return InterruptSignal() != 0 || (options_.count && printed_ >= *options_.count) ||
           (options_.duration && Clock::now() >= end_);
  }

  Seconds TimeToNextPoll() const {
    const Seconds interval(options_.interval);
    return options_.duration ? std::min(interval, std::max(Seconds(0), Seconds(end_ - Clock::now()))) : interval;
  }

  Status Poll(bool& is_at_end) {
    report::ReportPoll poll;
    if (!follower_.Poll(RecordsToRequest(), poll)) return Retry(source_.Failure());
    if (poll.was_overrun) return Retry(OutrunStatus(options_.report));
    failures_ = 0;
    is_missing_ = false;
    was_seen_ = true;
    if (poll.is_blocked) return BlockedStatus(follower_.PositionAfter(0).next);
    if (Status status = ReportEvent(poll); !status.IsOk()) return status;
    if (Status status = Print(poll); !status.IsOk()) return status;
    follower_.Delivered(poll.records.size());
    if (poll.reached_end) skips_ = false;
    if (poll.reached_end && holds_) {
      if (Status status = PrintHeld(); !status.IsOk()) return status;
    }
    is_at_end = poll.reached_end;
    return {};
  }

  std::uint32_t RecordsToRequest() const {
    constexpr std::uint64_t kAll = std::numeric_limits<std::int32_t>::max();
    const bool prints_all = !skips_ && !holds_ && !options_.slice.Filters();
    const std::uint64_t records_max = options_.count && prints_all ? *options_.count - printed_ : kAll;
    return static_cast<std::uint32_t>(std::min(records_max, kAll));
  }

  // A report may be missing for a moment while its agent starts it over, and a call may fail once: both are reported,
  // and the next poll tries again.
  Status Retry(const Status& failure) {
    if (failure.Code() == ExitCode::kRefused) return failure;
    if (failure.Code() == ExitCode::kNotFound) {
      if (!was_seen_ && !options_.wait) return failure;
      if (!was_seen_) skips_ = holds_ = false;  // all its records will be new
      const bool is_news = !is_missing_;
      is_missing_ = true;
      return is_news ? ReportMissing() : Status();
    }
    ++failures_in_all_;
    ++failures_;
    // An unreadable report may become readable again, so it never ends the command; only the first failure is printed.
    const bool may_pass = failure.Code() == ExitCode::kIo;
    if (!may_pass && failures_ >= kFailuresMax) return failure;
    if (may_pass && failures_ > 1) return {};
    output_.Problem(failure.Message() + "; trying again");
    return Line({{"kind", "failure"}, {"message", failure.Message()}});
  }

  Status ReportMissing() {
    output_.Note("qxctl: " + NoSuchReport(options_.report).Message() + "; waiting for it");
    return Line({{"kind", "missing"}});
  }

  // If the records of a report repeat, every poll is ambiguous. Such a poll is counted if it is the first one, or if it
  // has records, because others may be lost; only the first one is printed.
  Status ReportEvent(const report::ReportPoll& poll) {
    const bool is_ambiguous = poll.event == report::PollEvent::kAmbiguous;
    const bool is_news =
        poll.event != report::PollEvent::kNone && (!is_ambiguous || !was_ambiguous_ || !poll.records.empty());
    const bool is_repeated = is_ambiguous && was_ambiguous_;
    was_ambiguous_ = is_ambiguous;
    if (!is_news) return {};
    tally_.Count(poll);
    if (!is_repeated) output_.Problem(EventText(options_.report, poll));
    Json line = {{"kind", EventName(poll)}};
    if (poll.event == report::PollEvent::kGap) {
      line["lost"] = nullptr;
      if (poll.lost) line["lost"] = *poll.lost;
    }
    return Line(line);
  }

  Status Print(const report::ReportPoll& poll) {
    std::uint64_t index = follower_.Position().delivered;
    for (const std::string& record : poll.records) {
      if (Status status = Take(index++, record); !status.IsOk()) return status;
    }
    return {};
  }

  // Skipped records are read for their time, too: a record without a stamp has the time of the record before it.
  Status Take(std::uint64_t index, const std::string& record) {
    const std::optional<std::int64_t> time_ms = printer_.TimeOf(record);
    const bool is_in_slice = filter_.Takes(TextOfRecord(record).text);
    if (skips_ || !is_in_slice) return {};
    if (!holds_) return PrintRecord({index, time_ms, record});
    held_.Add({index, time_ms, record});
    return {};
  }

  Status PrintHeld() {
    holds_ = false;
    for (const Numbered& each : held_.Take()) {
      if (Status status = PrintRecord(each); !status.IsOk()) return status;
    }
    return {};
  }

  Status PrintRecord(const Numbered& numbered) {
    const bool is_enough = options_.count && printed_ >= *options_.count;
    if (is_enough) return {};
    ++printed_;
    if (options_.json) {
      Json line = {{"kind", "record"}};
      line.Merge(RecordToJson(numbered.index, numbered.record, options_.print.format.Fields()));
      return Line(line);
    }
    const std::string text = printer_.Take(printer_.Number(), numbered.time_ms, numbered.record);
    return printer_.ReplacesRecords() ? Status() : output_.Data(text);
  }

  Status Line(const Json& line) { return options_.json ? output_.Data(JsonLineOf(line)) : Status(); }

  Status Close(const Status& status) {
    if (Status drawn = printer_.Finish(options_.report); !drawn.IsOk()) return drawn;
    if (!options_.json) {
      output_.Note(options_.report + ": " + std::to_string(printed_) + (printed_ == 1 ? " record" : " records") +
                   ", gaps " + std::to_string(tally_.gaps) + ", ambiguous " + std::to_string(tally_.ambiguous) +
                   ", started over " + std::to_string(tally_.started_over));
      return {};
    }
    Json line = {{"kind", "end"}, {"report", options_.report}, {"records", printed_}};
    line.Merge(ToJson(tally_));
    line["failedCalls"] = failures_in_all_;
    line["exitCode"] = static_cast<int>(status.Code());
    return Line(line);
  }

  Output& output_;
  const Options& options_;
  ReportSource source_;
  report::ReportFollower follower_;
  RecordPrinter printer_;
  PollTally tally_;
  std::uint64_t printed_ = 0;
  int failures_ = 0;
  std::uint64_t failures_in_all_ = 0;
  SliceFilter filter_;
  SliceBuffer<Numbered> held_;  // records of the first scan, printed at its end
  bool skips_;
  bool holds_;
  bool was_seen_ = false;
  bool is_missing_ = false;
  bool was_ambiguous_ = false;
  bool is_damaged_;
  Clock::time_point end_;
};

Options OptionsOf(const Values& values) {
  Options options;
  options.call = CallOptionsOf(values);
  options.print = RecordPrintOptionsOf(values);
  options.interval = values.Number("--interval", options.interval);
  if (values.Has("--count")) options.count = static_cast<std::uint64_t>(values.Integer("--count", 0));
  if (values.Has("--for")) options.duration = values.Number("--for", 0);
  options.wait = values.Flag("--wait");
  options.from_now = values.Flag("--from-now");
  options.json = values.Flag("--json");
  return options;
}

Status RunFollow(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  if (Status status = FindReportName(values.Text("REPORT"), options.report); !status.IsOk()) return status;
  if (Status status = CheckRecordPrintOptions(options.print, options.json); !status.IsOk()) return status;
  if (Status status = SliceOf(values, options.slice); !status.IsOk()) return status;
  const InterruptGuard guard;
  std::unique_ptr<ModuleHost> module;
  if (Status status = LoadModule(options.call, context.traces, module); !status.IsOk()) return status;
  WorkerThread worker(*module, options.call.block);
  const bool is_damaged = WarnOfDamage(context.output, BasePathOfReport(options.report));
  return Follow(context, options, worker, is_damaged).Run();
}

constexpr Parameter kParameters[] = {
    {.name = "--interval",
     .kind = ValueKind::kNumber,
     .value = "SECONDS",
     .help = "Seconds between two polls",
     .limits = {kIntervalMin, kSecondsMax},
     .default_value = "1"},
    {.name = "--count",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "End after this number of records",
     .limits = kPositive},
    {.name = "--for",
     .kind = ValueKind::kNumber,
     .value = "SECONDS",
     .help = "End after this number of seconds",
     .limits = {0, kSecondsMax}},
    {.name = "--wait", .help = "Wait for a report that does not exist yet"},
    {.name = "--from-now", .help = "Leave out the records that the report already has", .excludes = {"--last"}},
};

constexpr Parameter kJsonParameters[] = {
    {.name = "--json",
     .help = "Print records and events as lines of JSON",
     .excludes = {"--plot", "--fields", "--format"}},
};

constexpr Example kFollowExamples[] = {
    {"qxctl follow load --last 10", "Print the newest ten records, then every new one"},
    {"qxctl follow load --from-now --grep error --wait",
     "Print new records that contain a word, also of a report that does not exist yet"},
};

}  // namespace

constinit const Command kFollowCommand = {
    .words = "follow",
    .help = "Print the records of a report as they appear, until ^C",
    .group = kReportsHeading,
    .run = RunFollow,
    .parameters = {kReportParameter, kParameters, kFollowSliceParameters, kRecordPrintParameters, kJsonParameters,
                   kModuleParameters, kBlockParameters},
    .examples = kFollowExamples};

}  // namespace qx::ctl
