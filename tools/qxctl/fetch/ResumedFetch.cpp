// Fetches a report in several runs that together deliver each record once. Before a chunk is written, the state records
// it (inFlight); afterwards the state records how much was written. If a run is killed in between, inFlight stays set.
// The next run then cuts the output file to the size in the state, or, if it cannot be cut, reports that records may be
// printed twice.
#include "tools/qxctl/fetch/ResumedFetch.h"

#include <limits>
#include <span>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/fetch/FetchState.h"
#include "tools/qxctl/fetch/RecordSink.h"
#include "tools/qxctl/fetch/ReportSource.h"

namespace qx::ctl {

namespace {

constexpr std::uint32_t kNoLimit = std::numeric_limits<std::int32_t>::max();

class ResumedFetch {
 public:
  ResumedFetch(Context& context, const ResumeOptions& options, WorkerThread& worker, ResumeResult& result)
      : output_(context.output),
        options_(options),
        source_(worker, options.report, options.chunk_records),
        formatter_(options.format),
        result_(result) {}

  Status Run() {
    if (Status status = Begin(); !status.IsOk()) return status;
    Status status = FetchAll();
    result_.module_seconds = source_.Count().module_seconds;
    result_.delivered = follower_->Position().delivered;
    if (status.IsOk() && has_findings_) return {ExitCode::kFinding, ""};
    return status;
  }

 private:
  Status Begin() {
    if (Status status = file_.Open(options_.state, options_.force); !status.IsOk()) return status;
    state_ = file_.State().value_or(NewState());
    if (Status status = CheckState(); !status.IsOk()) return status;
    follower_.emplace(source_, state_.position);
    formatter_ = RecordFormatter(options_.format, state_.columns);
    if (!options_.output.empty()) {
      if (Status status = OpenOutputFile(); !status.IsOk()) return status;
    }
    if (state_.in_flight > 0 && !state_.output_bytes) ReportRepeated();
    return {};
  }

  FetchState NewState() const {
    FetchState state;
    state.report = options_.report;
    state.format = options_.format;
    state.output = options_.output;
    return state;
  }

  // A state belongs to one report, one output and one format.
  Status CheckState() const {
    if (state_.report != options_.report) return NotOfThisRun("of report \"" + state_.report + "\"");
    if (state_.output != options_.output) {
      return NotOfThisRun(state_.output.empty() ? "to standard output" : "to the output file " + state_.output);
    }
    if (state_.format.format != options_.format.format || state_.format.separator != options_.format.separator) {
      return NotOfThisRun(std::string("with --format ") + NameOf(state_.format.format) +
                          (state_.format.separator.empty() ? "" : " and --separator"));
    }
    return {};
  }

  // `how`: what distinguishes the fetch that left the state, such as "to standard output".
  Status NotOfThisRun(const std::string& how) const {
    return {ExitCode::kRefused,
            options_.state + " belongs to a fetch " + how + "; repeat that fetch, or name another state file"};
  }

  Status OpenOutputFile() {
    if (Status status = sink_.OpenFile(options_.output, options_.force); !status.IsOk()) return status;
    const std::optional<std::uint64_t> bytes = sink_.Bytes();
    if (!bytes) return {};
    const std::uint64_t known = state_.output_bytes.value_or(0);
    if (*bytes > known && state_.in_flight > 0) {
      output_.Note("qxctl: the last run was killed while it wrote; " + options_.output + " is cut to " +
                   std::to_string(known) + " bytes");
      if (Status status = sink_.Shorten(known); !status.IsOk()) return status;
    } else if (*bytes != known) {
      return {ExitCode::kRefused, options_.output + " has " + std::to_string(*bytes) + " bytes, but " + options_.state +
                                      " says " + std::to_string(known) + "; to start again, move both files away"};
    }
    state_.output_bytes = known;
    return {};
  }

  void ReportRepeated() {
    result_.maybe_repeated = state_.in_flight;
    AddFinding("the last run was killed while it wrote; its " + std::to_string(state_.in_flight) +
               " last records may have been printed, and are repeated");
  }

  Status FetchAll() {
    for (bool reached_end = false; !reached_end;) {
      report::ReportPoll poll;
      if (!follower_->Poll(kNoLimit, poll)) return source_.Failure();
      if (poll.was_overrun) return OutrunStatus(options_.report);
      ReportEvent(poll);
      if (Status status = Deliver(poll); !status.IsOk()) return status;
      if (poll.is_blocked) return BlockedStatus(follower_->Position().next);
      if (InterruptSignal() != 0) return {ExitCode::kIo, "interrupted"};
      reached_end = poll.reached_end;
    }
    return {};
  }

  void ReportEvent(const report::ReportPoll& poll) {
    result_.tally.Count(poll);
    if (poll.event != report::PollEvent::kNone) AddFinding(EventText(options_.report, poll));
  }

  void AddFinding(const std::string& text) {
    has_findings_ = true;
    result_.message = text;
    output_.Problem(text);
  }

  Status Deliver(const report::ReportPoll& poll) {
    std::vector<std::string> pieces;
    const bool is_terminal = sink_.IsTerminal() && !options_.raw;
    for (const std::string& record : poll.records) {
      const std::string piece = formatter_.Format(follower_->Position().delivered + pieces.size(), record);
      pieces.push_back(is_terminal ? ForTerminal(piece) : piece);
    }
    state_.in_flight = pieces.size();
    if (state_.in_flight > 0) {
      if (Status status = file_.Save(state_); !status.IsOk()) return status;
    }
    std::size_t taken = 0;
    Status written = sink_.Write(pieces, taken);
    if (Status cut = CutToWholeRecords(std::span(pieces).first(taken)); !cut.IsOk()) return cut;
    if (Status synced = sink_.Sync(); !synced.IsOk()) return synced;
    if (Status saved = SaveAfterWrite(std::span(poll.records).first(taken)); !saved.IsOk()) return saved;
    return written;
  }

  // A record that was written only in part is removed, and written by the next run.
  Status CutToWholeRecords(std::span<const std::string> taken) {
    if (!state_.output_bytes) return {};
    for (const std::string& piece : taken) *state_.output_bytes += piece.size();
    return sink_.Bytes() > state_.output_bytes ? sink_.Shorten(*state_.output_bytes) : Status();
  }

  Status SaveAfterWrite(std::span<const std::string> taken) {
    follower_->Delivered(taken.size());
    state_.position = follower_->Position();
    state_.in_flight = 0;
    if (!taken.empty()) state_.columns = formatter_.Columns();
    Count(taken);
    return file_.Save(state_);
  }

  void Count(std::span<const std::string> taken) {
    result_.records += taken.size();
    result_.chunks += taken.empty() ? 0 : 1;
    for (const std::string& record : taken) result_.bytes += record.size();
    output_.Progress(options_.report + ": " + std::to_string(result_.records) + " new records");
  }

  Output& output_;
  const ResumeOptions& options_;
  ReportSource source_;
  std::optional<report::ReportFollower> follower_;
  RecordFormatter formatter_;
  ResumeResult& result_;
  FetchStateFile file_;
  FetchState state_;
  RecordSink sink_;
  bool has_findings_ = false;
};

}  // namespace

Status RunResumedFetch(Context& context, const ResumeOptions& options, WorkerThread& worker, ResumeResult& result) {
  if (Status status = context.output.Show(); !status.IsOk()) return status;
  return ResumedFetch(context, options, worker, result).Run();
}

}  // namespace qx::ctl
