// Prints the entries of a trace file as they are written, across wraps and restarts, until ^C.
#include "tools/qxctl/trace/TraceFollowCommand.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>

#include "debug/tools/TraceFollow.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/trace/TraceFilterOptions.h"
#include "tools/qxctl/trace/TraceText.h"

namespace qx::ctl {

namespace {

using Clock = std::chrono::steady_clock;
using debug::TraceFollowEvent;

constexpr std::chrono::milliseconds kInterval{100};
constexpr std::chrono::milliseconds kIntervalPending{20};
constexpr int kRestShare = 10;  // a poll uses at most this part of the time, for a file of any size

struct Options {
  std::string path;
  bool from_now = false;
  bool json = false;
};

// Prints the result of each poll: entries as data, events of the file as problems.
class FollowPrinter {
 public:
  FollowPrinter(Context& context, const Options& options, const TraceFilter& filter)
      : context_(&context), options_(&options), selection_(filter) {}

  Status Print(const debug::TracePoll& poll) {
    for (const TraceFollowEvent& event : poll.events) {
      if (Status status = PrintEvent(event); !status.IsOk()) return status;
    }
    if (poll.is_missing && !was_missing_) Problem("is gone; waiting for it");
    was_missing_ = poll.is_missing;
    return context_->output.Show();
  }

 private:
  Status PrintEvent(const TraceFollowEvent& event) {
    if (event.kind == TraceFollowEvent::Kind::kRestart) {
      Problem("was started over; entries that were written meanwhile are lost");
      return Object({{"kind", "restart"}});
    }
    if (event.kind == TraceFollowEvent::Kind::kLost) {
      Problem("was written faster than it could be read: about " + std::to_string(event.bytes) + " bytes are lost");
      return Object({{"kind", "lost"}, {"bytes", event.bytes}});
    }
    if (!selection_.Takes(event.entry)) return {};
    if (options_->json) return Object(EntryToJson(event.entry, options_->path));
    return context_->output.Data(EntryToText(context_->output, event.entry, ""));
  }

  void Problem(const std::string& text) { context_->output.Problem(VisibleText(options_->path) + " " + text); }

  Status Object(const Json& object) {
    return options_->json ? context_->output.Data(JsonLine(object) + "\n") : Status();
  }

  Context* context_;
  const Options* options_;
  TraceSelection selection_;
  bool was_missing_ = false;
};

Status Watch(debug::TraceFollower& follower, const Options& options, FollowPrinter& printer) {
  const InterruptGuard guard;
  while (InterruptSignal() == 0) {
    const Clock::time_point begin = Clock::now();
    const debug::TracePoll poll = follower.Poll();
    if (poll.error != 0) return Status::Io("cannot follow " + options.path, poll.error);
    if (Status status = printer.Print(poll); !status.IsOk()) return status;
    const auto time = std::max<std::chrono::nanoseconds>(poll.is_pending ? kIntervalPending : kInterval,
                                                         kRestShare * (Clock::now() - begin));
    if (Status status = WaitWhileOutputIsRead(time); !status.IsOk()) return status;
  }
  return {};
}

Status Follow(Context& context, const Values& values) {
  const Options options = {values.Text("FILE"), values.Flag("--from-now"), values.Flag("--json")};
  TraceFilter filter;
  if (Status status = TraceFilterOf(values, filter); !status.IsOk()) return status;
  debug::TraceFollower follower(options.path, options.from_now);
  const int error = follower.Open();
  if (error == ENOENT) return {ExitCode::kNotFound, "there is no " + options.path};
  if (error != 0) return Status::Io("cannot open " + options.path, error);
  FollowPrinter printer(context, options, filter);
  return Watch(follower, options, printer);
}

constexpr Parameter kParameters[] = {
    {.name = "FILE", .kind = ValueKind::kTraceFile, .help = "A log or ring file", .is_required = true},
    {.name = "--from-now", .help = "Leave out what the file already has"},
};

constexpr Parameter kJsonParameters[] = {{.name = "--json", .help = "Print each entry as one line of JSON"}};

constexpr Example kTraceFollowExamples[] = {
    {"qxctl trace follow log.qxtrace --from-now", "Print entries as they are written"},
};

}  // namespace

constinit const Command kTraceFollowCommand = {
    .words = "trace follow",
    .help = "Print the entries of a trace file as they are written, until ^C",
    .run = Follow,
    .parameters = {kParameters, kTraceFilterParameters, kTraceFollowSliceParameters, kJsonParameters},
    .examples = kTraceFollowExamples};

}  // namespace qx::ctl
