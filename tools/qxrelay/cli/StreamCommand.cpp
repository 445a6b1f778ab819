#include "tools/qxrelay/cli/StreamCommand.h"

#include <string>

#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace qx::relay {

namespace {

using ctl::ExitCode;
using ctl::Status;

constexpr ctl::Example kExamples[] = {
    {"qxrelay stream create", "Create the stream of the settings, or change its limits"},
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

}  // namespace

constinit const ctl::Command kStreamCreateCommand = {.words = "stream create",
                                                     .help = "Create the stream, or change its limits",
                                                     .run = Create,
                                                     .parameters = {kConfigOptions},
                                                     .examples = kExamples,
                                                     .program = kProgram};

}  // namespace qx::relay
