// The options that commands of qxrelay have in common, and the settings that follow from them.
#pragma once

#include <string>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxrelay/config/RelayConfig.h"

namespace qx::relay {

inline constexpr std::string_view kProgram = "qxrelay";
inline constexpr std::string_view kConfigFile = "/etc/norrlek/qxrelay.ini";

inline constexpr ctl::Parameter kConfigOptions[] = {
    {.name = "--config",
     .letter = "-c",
     .kind = ctl::ValueKind::kFile,
     .value = "FILE",
     .help = "Read the settings from this file",
     .default_value = kConfigFile},
};

// Reads the settings of --config. If the file has findings, prints each as a problem and returns kFinding. [any thread]
[[nodiscard]] ctl::Status LoadConfig(ctl::Context& context, const ctl::Values& values, RelayConfig& config);

// The host's name in the stream: that of the settings, or the machine's own. Empty if neither is a name (IsHostName).
[[nodiscard]] std::string HostNameOf(const RelayConfig& config);

// The finding for a machine whose name cannot be the name of a host or a collector: `allowed` says what a name may be;
// another name can be set in `section`.
[[nodiscard]] std::string TextOfMachineName(std::string_view allowed, std::string_view section);

// The directory of the reports that are sent.
[[nodiscard]] std::string ReportsOf(const RelayConfig& config);

// The collector's name in the stream: that of the settings, the user's, or the machine's own up to its first ".":
// "web1.example.org" => "web1", because the name of a consumer has no ".".
[[nodiscard]] std::string CollectorName(const RelayConfig& config);

// The status files of the sender and of the receiver (tools/qxrelay/status/FlowDocument.h).
[[nodiscard]] std::string SenderFlowFile(const RelayConfig& config);
[[nodiscard]] std::string ReceiverFlowFile(const RelayConfig& config);

// qxrelay itself: the options that every command has.
extern const ctl::Command kQxrelay;
ctl::Status ApplyOptions(ctl::Context& context, const ctl::Values& values);

}  // namespace qx::relay
