// Checks the settings: whether the named files and directories exist, and whether the servers accept the requests of a
// sender or a collector.
#include "tools/qxrelay/cli/CheckCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/File.h"
#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/cli/Service.h"
#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/stream/NatsAdmin.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace qx::relay {

namespace {

using ctl::ExitCode;
using ctl::Status;
using Findings = std::vector<std::string>;

constexpr std::int64_t kAnswerMs = 3000;

constexpr ctl::Parameter kParameters[] = {
    {.name = "--collector", .help = "Check the settings of a collector, not of a host that sends"},
    {.name = "--offline", .help = "Do not connect to the servers"},
};

constexpr ctl::Example kExamples[] = {
    {"qxrelay check", "Check the settings of this host, and its servers"},
    {"qxrelay check --collector", "Check the settings of this collector, and its servers"},
};

void CheckFile(const std::string& key, const std::string& path, bool is_secret, Findings& findings) {
  if (path.empty()) return;
  struct stat status = {};
  const int error = file::StatusOf(path.c_str(), status);
  if (error != 0) {
    findings.push_back(key + ": " + path + ": " + std::strerror(error));
  } else if (access(path.c_str(), R_OK) != 0) {
    findings.push_back(key + ": " + path + " cannot be read by this user");
  } else if (is_secret && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    findings.push_back(key + ": " + path + " can be read by other users: chmod 600");
  }
}

void CheckDirectory(const std::string& key, const std::string& path, int access_mode, Findings& findings) {
  struct stat status = {};
  const int error = file::StatusOf(path.c_str(), status);
  if (error != 0) {
    findings.push_back(key + ": " + path + ": " + std::strerror(error));
  } else if (!S_ISDIR(status.st_mode)) {
    findings.push_back(key + ": " + path + " is not a directory");
  } else if (access(path.c_str(), access_mode) != 0) {
    findings.push_back(key + ": " + path + " cannot be used by this user");
  }
}

// Checks a directory that the service creates if it is missing.
void CheckOwnDirectory(const std::string& key, const std::string& path, Findings& findings) {
  struct stat status = {};
  if (file::StatusOf(path.c_str(), status) != ENOENT) return CheckDirectory(key, path, R_OK | W_OK | X_OK, findings);
  if (access(file::DirectoryOf(path).c_str(), W_OK | X_OK) == 0) return;
  findings.push_back(key + ": " + path + " is missing, and this user cannot create it: check again as root");
}

void CheckFiles(const StreamSettings& stream, Findings& findings) {
  CheckFile("password_file", stream.password_file, true, findings);
  CheckFile("credentials_file", stream.credentials_file, true, findings);
  CheckFile("ca_file", stream.ca_file, false, findings);
  CheckFile("certificate_file", stream.certificate_file, false, findings);
  CheckFile("key_file", stream.key_file, true, findings);
  if (stream.certificate_file.empty() != stream.key_file.empty()) {
    findings.emplace_back("certificate_file and key_file belong together");
  }
}

void CheckHost(const RelayConfig& config, Findings& findings) {
  if (HostNameOf(config).empty()) {
    findings.push_back(TextOfMachineName(kHostNameAllowed, "host"));
  }
  CheckDirectory("reports", ReportsOf(config), R_OK | X_OK, findings);
  CheckOwnDirectory("state", config.send.state, findings);
}

void CheckCollector(const RelayConfig& config, Findings& findings) {
  if (!IsStreamName(CollectorName(config))) {
    findings.push_back(TextOfMachineName(kCollectorNameAllowed, "receive"));
  }
  CheckOwnDirectory("root", config.receive.root, findings);
}

// Waits for the reply to the request of this token. Unset with the problem that the server reported meanwhile.
std::optional<StreamReply> WaitForReply(NatsPublish& stream, std::uint64_t token, std::string& problem) {
  const std::int64_t end = SteadyMs() + kAnswerMs;
  for (std::int64_t now = SteadyMs(); now < end; now = SteadyMs()) {
    WaitForEither(stream.Descriptor(), -1, end - now);
    std::vector<StreamReply> replies;
    stream.TakeReplies(replies);
    for (StreamReply& reply : replies) {
      if (reply.token == token) return std::move(reply);
      if (reply.kind == ReplyKind::kProblem) problem = reply.text;
    }
    if (!problem.empty()) break;
  }
  return std::nullopt;
}

// Looks up a report. This proves that the stream exists and that the host has its rights; it publishes nothing.
void CheckLookUp(const RelayConfig& config, Findings& findings) {
  const std::string host = HostNameOf(config);
  if (host.empty()) return;
  NatsPublish stream(config.stream, host);
  if (const auto problem = stream.Connect()) {
    findings.push_back(*problem);
    return;
  }
  const std::string subject =
      TextOfSubject(config.stream.prefix, {.branch = Branch::kReport, .host = host, .report = "check"}).value_or("");
  std::string problem;
  const bool is_sent = stream.LookUp(1, subject);
  const std::optional<StreamReply> reply = is_sent ? WaitForReply(stream, 1, problem) : std::nullopt;
  const bool is_fine = reply.has_value() && (reply->kind == ReplyKind::kNone || reply->kind == ReplyKind::kNewest);
  if (is_fine) return;
  if (problem.empty()) {
    problem = "no answer: is there a stream " + config.stream.name +
              " (\"qxrelay stream create\"), and does it have a leader?";
  }
  findings.push_back("cannot look up a message of " + subject + ": " + (reply.has_value() ? reply->text : problem));
}

// Reads the state of the stream. This proves the rights of a collector; it creates no consumer.
void CheckStream(const StreamSettings& settings, Findings& findings) {
  StreamState state;
  if (const auto problem = ReadStream(settings, state)) return findings.push_back(*problem);
  if (const std::string missing = TextOfMissingCopies(state); !missing.empty()) findings.push_back(missing);
}

Status Check(ctl::Context& context, const ctl::Values& values) {
  RelayConfig config;
  const std::string path = values.Text("--config", kConfigFile);
  Findings findings = ReadConfig(path, config);
  const bool is_collector = values.Flag("--collector");
  const bool is_offline = values.Flag("--offline");
  CheckFiles(config.stream, findings);
  is_collector ? CheckCollector(config, findings) : CheckHost(config, findings);
  if (!is_offline && is_collector) CheckStream(config.stream, findings);
  if (!is_offline && !is_collector) CheckLookUp(config, findings);
  for (const std::string& finding : findings) context.output.Problem(finding);
  if (!findings.empty()) return {ExitCode::kFinding, ""};
  context.output.Note("the settings in " + path + " are sound; this " +
                      (is_collector ? "collector is \"" + CollectorName(config) : "host is \"" + HostNameOf(config)) +
                      "\"");
  return {};
}

}  // namespace

constinit const ctl::Command kCheckCommand = {.words = "check",
                                              .help = "Check the settings, and the servers",
                                              .group = "Services",
                                              .run = Check,
                                              .parameters = {kParameters, kConfigOptions},
                                              .examples = kExamples,
                                              .program = kProgram};

}  // namespace qx::relay
