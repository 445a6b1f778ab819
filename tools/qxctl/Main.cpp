// qxctl: the tool with which operators and developers work on the provider module and on reports.
//
// The command line is parsed first and only chooses what to run; then tracing is set up, if it was asked for; then the
// command runs. Every run ends with one exit code (Status.h). Data goes to standard output, messages go to standard
// error.
#include <fcntl.h>
#include <unistd.h>

#include <string_view>

#include "base/File.h"
#include "debug/Debug.h"
#include "tools/qxctl/cli/GlobalOptions.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/describe/CompletionCommand.h"
#include "tools/qxctl/cli/describe/HelpCommand.h"
#include "tools/qxctl/cli/line/OffersCommand.h"
#include "tools/qxctl/cli/line/ParseCommand.h"
#include "tools/qxctl/cli/program/Program.h"
#include "tools/qxctl/doctor/DoctorCommand.h"
#include "tools/qxctl/doctor/ExplainCommand.h"
#include "tools/qxctl/fetch/FetchCommand.h"
#include "tools/qxctl/fetch/FieldOffers.h"
#include "tools/qxctl/fetch/FollowCommand.h"
#include "tools/qxctl/fetch/NamesCommand.h"
#include "tools/qxctl/module/ModuleCommand.h"
#include "tools/qxctl/report/BackupsCommand.h"
#include "tools/qxctl/report/ReportBackupCommand.h"
#include "tools/qxctl/report/ReportCheckCommand.h"
#include "tools/qxctl/report/ReportCommand.h"
#include "tools/qxctl/report/ReportListCommand.h"
#include "tools/qxctl/settings/IniCommand.h"
#include "tools/qxctl/settings/IniEditCommand.h"
#include "tools/qxctl/settings/IniOffers.h"
#include "tools/qxctl/settings/RegistryCheckCommand.h"
#include "tools/qxctl/settings/RegistryCommand.h"
#include "tools/qxctl/settings/RegistryEditCommand.h"
#include "tools/qxctl/settings/RegistryOffers.h"
#include "tools/qxctl/settings/SetupCommand.h"
#include "tools/qxctl/store/ReportOffers.h"
#include "tools/qxctl/top/TopCommand.h"
#include "tools/qxctl/trace/TraceConfigCommand.h"
#include "tools/qxctl/trace/TraceFollowCommand.h"
#include "tools/qxctl/trace/TraceOffers.h"
#include "tools/qxctl/trace/TraceShowCommand.h"
#include "tools/qxctl/trial/FaultsCommand.h"
#include "tools/qxctl/trial/LoadTestCommand.h"
#include "tools/qxctl/trial/RecordCommand.h"
#include "tools/qxctl/trial/ReplayCommand.h"

// qxctl's own trace object: inert unless --trace asks for traces. Its priority makes it outlive everything that traces.
__attribute__((init_priority(101))) CDebug Debug;

namespace {

using qx::ctl::Command;

constexpr std::string_view kSettingsHeading = "Settings";
constexpr Command kModule = {.words = "module", .help = "Call the provider module, and test it", .group = "The module"};
constexpr Command kReport = {
    .words = "report", .help = "Work on a report's files, without the module", .group = qx::ctl::kReportsHeading};
constexpr Command kRegistry = {
    .words = "registry", .help = "Show, check and change the registry", .group = kSettingsHeading};
constexpr Command kIni = {.words = "ini", .help = "Show and change a profile file", .group = kSettingsHeading};
constexpr Command kTrace = {
    .words = "trace", .help = "Read traces, and show where their settings come from", .group = "Traces"};

// The commands, in the order of the help and the manual.
constexpr const Command* kCommands[] = {
    &qx::ctl::kQxctl,
    &kModule,
    &qx::ctl::kModuleWhatCommand,
    &qx::ctl::kModuleReflectCommand,
    &qx::ctl::kModuleReportsCommand,
    &qx::ctl::kModuleNamesCommand,
    &qx::ctl::kLoadTestCommand,
    &qx::ctl::kRecordCommand,
    &qx::ctl::kReplayCommand,
    &qx::ctl::kFaultsCommand,
    &qx::ctl::kFetchCommand,
    &qx::ctl::kFollowCommand,
    &qx::ctl::kTopCommand,
    &kReport,
    &qx::ctl::kReportListCommand,
    &qx::ctl::kReportStatusCommand,
    &qx::ctl::kReportCreateCommand,
    &qx::ctl::kReportAppendCommand,
    &qx::ctl::kReportCatCommand,
    &qx::ctl::kReportInfoCommand,
    &qx::ctl::kReportVerifyCommand,
    &qx::ctl::kReportSalvageCommand,
    &qx::ctl::kReportBackupCommand,
    &qx::ctl::kReportBackupsCommand,
    &qx::ctl::kReportVerifyBackupCommand,
    &qx::ctl::kReportRestoreCommand,
    &qx::ctl::kNamesCommand,
    &kRegistry,
    &qx::ctl::kRegistryLsCommand,
    &qx::ctl::kRegistryGetCommand,
    &qx::ctl::kRegistrySetCommand,
    &qx::ctl::kRegistryDeleteCommand,
    &qx::ctl::kRegistryImportCommand,
    &qx::ctl::kRegistryDiffCommand,
    &qx::ctl::kRegistryExportCommand,
    &qx::ctl::kRegistryLintCommand,
    &kIni,
    &qx::ctl::kIniListCommand,
    &qx::ctl::kIniGetCommand,
    &qx::ctl::kIniSetCommand,
    &qx::ctl::kIniDeleteCommand,
    &qx::ctl::kIniCopyCommand,
    &kTrace,
    &qx::ctl::kTraceShowCommand,
    &qx::ctl::kTraceFollowCommand,
    &qx::ctl::kTraceConfigCommand,
    &qx::ctl::kSetupCommand,
    &qx::ctl::kDoctorCommand,
    &qx::ctl::kExplainCommand,
    &qx::ctl::kHelpCommand,
    &qx::ctl::kVersionCommand,
    &qx::ctl::kCompletionCommand,
    &qx::ctl::kTableCommand,
    &qx::ctl::kManCommand,
    &qx::ctl::kParseCommand,
    &qx::ctl::kOffersCommand,
};

// The sources of what the tab key offers.
constexpr const qx::ctl::OfferSource* kOfferSources[] = {
    &qx::ctl::kReportOffers,        &qx::ctl::kFieldOffers,      &qx::ctl::kTraceOffers,  &qx::ctl::kRegistryKeyOffers,
    &qx::ctl::kRegistryValueOffers, &qx::ctl::kIniSectionOffers, &qx::ctl::kIniKeyOffers, &qx::ctl::kCodeOffers,
    &qx::ctl::kFaultOffers,         &qx::ctl::kCommandOffers,
};

// If a standard descriptor is closed, the next opened file would get its number, and our output would go into that
// file. So /dev/null is opened in its place, for the opposite access: its use then fails like that of a closed
// descriptor.
void HoldStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) >= 0) continue;
    // /dev/null gets the lowest free number, and stays open.
    (void)qx::file::Open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY).Release();
  }
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): when memory runs out, ending here is all that is left to do.
int main(int argc, char** argv) {
  HoldStandardDescriptors();
  qx::ctl::HoldBrokenPipe();  // until everything temporary is gone
  const qx::ctl::ExitCode code = qx::ctl::RunProgram({.name = "qxctl",
                                                      .version = QX_VERSION,
                                                      .commands = kCommands,
                                                      .offer_sources = kOfferSources,
                                                      .prepare = qx::ctl::ApplyGlobalOptions},
                                                     argc, argv);
  qx::ctl::EndBySignal();  // everything temporary is gone by now
  return static_cast<int>(code);
}
