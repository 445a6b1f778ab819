#include "tools/qxrelay/stream/NatsAdmin.h"

#include <string>

#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/stream/NatsHandles.h"

namespace qx::relay {

namespace {

constexpr std::int64_t kNanosecondsInSecond = 1'000'000'000;

struct Session {
  nats::Connection connection;
  nats::Context context;
};

std::optional<std::string> OpenSession(const StreamSettings& settings, Session& session) {
  if (auto problem = nats::MakeConnection(settings, {}, session.connection)) return problem;
  return nats::MakeContext(settings, session.connection, session.context);
}

// The problem, with the server's text in brackets: "cannot create the stream QX: Error (insufficient storage resources
// available)".
std::string ProblemWithWords(const std::string& what, natsStatus status) {
  natsStatus ignored = NATS_OK;
  const char* const words = nats_GetLastError(&ignored);
  return nats::Problem(what, status) + (words != nullptr && *words != '\0' ? " (" + std::string(words) + ")" : "");
}

// The number of copies that have all messages. `cluster` is null if there is only one server.
std::uint32_t WholeCopies(const jsClusterInfo* cluster) {
  if (cluster == nullptr) return 1;
  if (cluster->Leader == nullptr) return 0;
  std::uint32_t copies = 1;  // that of the leader
  for (int i = 0; i < cluster->ReplicasLen; ++i) {
    const jsPeerInfo& copy = *cluster->Replicas[i];
    if (copy.Current && !copy.Offline && copy.Lag == 0) ++copies;
  }
  return copies;
}

}  // namespace

std::string TextOfMissingCopies(const StreamState& state) {
  if (state.whole_copies == 0) return "the stream " + state.settings.name + " has no leader";
  if (state.whole_copies >= state.settings.replicas) return "";
  return "only " + std::to_string(state.whole_copies) + " of " + std::to_string(state.settings.replicas) +
         " copies of the stream " + state.settings.name + " have all messages: do not stop another server now";
}

std::optional<std::string> CreateStream(const StreamSettings& settings) {
  Session session;
  if (auto problem = OpenSession(settings, session)) return problem;
  jsStreamConfig config;
  natsStatus status = jsStreamConfig_Init(&config);
  if (status != NATS_OK) return nats::Problem("cannot create a stream", status);
  const std::string subjects = settings.prefix + ".>";
  const char* subject = subjects.c_str();
  config.Name = settings.name.c_str();
  config.Subjects = &subject;
  config.SubjectsLen = 1;
  config.Retention = js_LimitsPolicy;
  config.Discard = js_DiscardOld;
  config.Storage = js_FileStorage;
  config.MaxAge = settings.age.count() * kNanosecondsInSecond;
  config.MaxBytes = static_cast<std::int64_t>(settings.bytes);
  config.Replicas = settings.replicas;
  config.AllowDirect = true;
  jsErrCode code = static_cast<jsErrCode>(0);
  status = js_AddStream(nullptr, session.context.get(), &config, nullptr, &code);
  if (code == JSStreamNameExistErr) {
    status = js_UpdateStream(nullptr, session.context.get(), &config, nullptr, nullptr);
  }
  if (status == NATS_OK) return std::nullopt;
  return ProblemWithWords("cannot create the stream " + settings.name, status);
}

std::optional<std::string> ReadStream(const StreamSettings& settings, StreamState& state) {
  Session session;
  if (auto problem = OpenSession(settings, session)) return problem;
  jsStreamInfo* found = nullptr;
  const natsStatus status = js_GetStreamInfo(&found, session.context.get(), settings.name.c_str(), nullptr, nullptr);
  if (status == NATS_NOT_FOUND) {
    return "there is no stream " + settings.name + " (\"qxrelay stream create\" creates it)";
  }
  if (status != NATS_OK) return ProblemWithWords("cannot read the state of the stream " + settings.name, status);
  const nats::StreamInfo info(found);
  state.messages = info->State.Msgs;
  state.bytes = info->State.Bytes;
  state.first_sequence = info->State.FirstSeq;
  state.last_sequence = info->State.LastSeq;
  const bool has_leader = info->Cluster != nullptr && info->Cluster->Leader != nullptr;
  state.leader = has_leader ? info->Cluster->Leader : "";
  state.whole_copies = WholeCopies(info->Cluster);
  state.settings = settings;
  state.settings.age = std::chrono::seconds(info->Config->MaxAge / kNanosecondsInSecond);
  state.settings.bytes = static_cast<std::uint64_t>(info->Config->MaxBytes);
  state.settings.replicas = static_cast<std::uint32_t>(info->Config->Replicas);
  state.keeps_newest = info->Config->Discard == js_DiscardOld;
  state.allows_look_ups = info->Config->AllowDirect;
  return std::nullopt;
}

std::optional<std::string> ReadPending(const StreamSettings& settings, const std::string& collector,
                                       std::uint64_t& pending) {
  Session session;
  if (auto problem = OpenSession(settings, session)) return problem;
  jsConsumerInfo* found = nullptr;
  const natsStatus status =
      js_GetConsumerInfo(&found, session.context.get(), settings.name.c_str(), collector.c_str(), nullptr, nullptr);
  if (status != NATS_OK) return ProblemWithWords("cannot read the state of the consumer " + collector, status);
  pending = found->NumPending + static_cast<std::uint64_t>(found->NumAckPending);
  jsConsumerInfo_Destroy(found);
  return std::nullopt;
}

std::optional<std::string> PurgeHost(const StreamSettings& settings, const std::string& host) {
  Session session;
  if (auto problem = OpenSession(settings, session)) return problem;
  const std::string token = TokenOf(host);
  for (const std::string& subject : {settings.prefix + ".report." + token + ".*",
                                     settings.prefix + ".names." + token + ".*", settings.prefix + ".about." + token}) {
    jsOptions options;
    natsStatus status = jsOptions_Init(&options);
    if (status != NATS_OK) return nats::Problem("cannot purge", status);
    options.Stream.Purge.Subject = subject.c_str();
    status = js_PurgeStream(session.context.get(), settings.name.c_str(), &options, nullptr);
    if (status != NATS_OK) return ProblemWithWords("cannot purge " + subject, status);
  }
  return std::nullopt;
}

}  // namespace qx::relay
