#include "tools/qxrelay/cli/StreamCommand.h"

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "tools/qxctl/cli/text/Table.h"
#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/cli/Service.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace qx::relay {

namespace {

using ctl::ExitCode;
using ctl::Status;

constexpr ctl::Example kCreateExamples[] = {
    {"qxrelay stream create", "Create the stream of the settings, or change its limits"},
};

constexpr ctl::Parameter kShowParameters[] = {
    {.name = "--wait",
     .kind = ctl::ValueKind::kInteger,
     .value = "SECONDS",
     .help = "Wait up to this time until each copy has all messages",
     .limits = {.min = 0, .max = 86'400},
     .default_value = "0"},
};

constexpr ctl::Example kShowExamples[] = {
    {"qxrelay stream show", "Show the stream, and how many servers have all of it"},
    {"qxrelay stream show --wait 600", "Before the next server is stopped: wait until each copy has all messages"},
};

Status Create(ctl::Context& context, const ctl::Values& values) {
  RelayConfig config;
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  if (const auto problem = CreateStream(config.stream)) return {ExitCode::kIo, *problem};
  StreamState state;
  if (const auto problem = ReadStream(config.stream, state)) return {ExitCode::kIo, *problem};
  context.output.Note("the stream " + config.stream.name + " keeps messages below " + config.stream.prefix + " for " +
                      std::to_string(state.settings.age.count()) + " s, at most " +
                      std::to_string(state.settings.bytes) + " bytes, on " + std::to_string(state.settings.replicas) +
                      " servers");
  return {};
}

// Reads the state until each copy has all messages, or the time is over.
std::optional<std::string> WaitForCopies(const StreamSettings& settings, std::int64_t end, StreamState& state) {
  constexpr std::chrono::milliseconds kPause{500};
  while (true) {
    if (auto problem = ReadStream(settings, state)) return problem;
    if (TextOfMissingCopies(state).empty() || SteadyMs() >= end) return std::nullopt;
    std::this_thread::sleep_for(kPause);
  }
}

Status ShowStream(ctl::Context& context, const ctl::Values& values) {
  RelayConfig config;
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  StreamState state;
  const std::int64_t end = SteadyMs() + values.Integer("--wait", 0) * 1000;
  if (const auto problem = WaitForCopies(config.stream, end, state)) return {ExitCode::kIo, *problem};
  const std::vector<ctl::TableRow> rows = {
      {"stream", state.settings.name},
      {"messages", std::to_string(state.messages)},
      {"bytes", std::to_string(state.bytes) + " of " + std::to_string(state.settings.bytes)},
      {"kept for", std::to_string(state.settings.age.count()) + " s"},
      {"leader", state.leader.empty() ? "-" : state.leader},
      {"whole copies", std::to_string(state.whole_copies) + " of " + std::to_string(state.settings.replicas)},
  };
  if (Status status = context.output.Data(ctl::TableText(rows, {.left = 2})); !status.IsOk()) return status;
  const std::string missing = TextOfMissingCopies(state);
  return missing.empty() ? Status() : Status(ExitCode::kFinding, missing);
}

}  // namespace

constinit const ctl::Command kStreamCreateCommand = {.words = "stream create",
                                                     .help = "Create the stream, or change its limits",
                                                     .run = Create,
                                                     .parameters = {kConfigOptions},
                                                     .examples = kCreateExamples,
                                                     .program = kProgram};

constinit const ctl::Command kStreamShowCommand = {.words = "stream show",
                                                   .help = "Show the stream, and how many of its copies are whole",
                                                   .run = ShowStream,
                                                   .parameters = {kShowParameters, kConfigOptions},
                                                   .examples = kShowExamples,
                                                   .program = kProgram};

}  // namespace qx::relay
