#include "tools/qxrelay/stream/NatsHandles.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "base/File.h"

namespace qx::relay::nats {

namespace {

constexpr int64_t kConnectMs = 2000;
constexpr int64_t kWriteMs = 2000;
constexpr int64_t kPingMs = 5000;  // the connection is closed when a ping is due and two have no answer
constexpr int kPingsUnanswered = 2;
constexpr std::size_t kPasswordBytesMax = 4096;

// Runs calls of the library until one fails.
class Calls {
 public:
  template <typename Call>
  Calls& Then(const char* what, Call call) {
    if (status_ != NATS_OK) return *this;
    status_ = call();
    if (status_ != NATS_OK) problem_ = Problem(what, status_);
    return *this;
  }

  [[nodiscard]] const std::optional<std::string>& Failure() const { return problem_; }

 private:
  natsStatus status_ = NATS_OK;
  std::optional<std::string> problem_;
};

// Reads the first line of the file.
std::optional<std::string> ReadPassword(const std::string& path, std::string& password) {
  const file::Descriptor file = file::OpenRegular(path.c_str(), O_RDONLY);
  const int open_error = errno;
  if (!file.IsOpen()) return "cannot open " + path + ": " + std::strerror(open_error);
  const int error = file::ReadWhole(file.Number(), password, kPasswordBytesMax);
  if (error != 0) return "cannot read " + path + ": " + std::strerror(error);
  password.resize(std::min(password.find('\n'), password.size()));
  return std::nullopt;
}

void SetServers(natsOptions* options, const StreamSettings& settings, Calls& calls) {
  std::vector<const char*> servers;
  servers.reserve(settings.servers.size());
  for (const std::string& server : settings.servers) servers.push_back(server.c_str());
  calls.Then("the list of servers",
             [&] { return natsOptions_SetServers(options, servers.data(), static_cast<int>(servers.size())); });
}

void SetBehaviour(natsOptions* options, const Handlers& handlers, Calls& calls) {
  calls.Then("timeout", [&] { return natsOptions_SetTimeout(options, kConnectMs); })
      .Then("reconnect", [&] { return natsOptions_SetAllowReconnect(options, false); })
      .Then("ping", [&] { return natsOptions_SetPingInterval(options, kPingMs); })
      .Then("ping", [&] { return natsOptions_SetMaxPingsOut(options, kPingsUnanswered); })
      .Then("write deadline", [&] { return natsOptions_SetWriteDeadline(options, kWriteMs); })
      .Then("sending", [&] { return natsOptions_SetSendAsap(options, true); })
      .Then("name", [&] { return natsOptions_SetName(options, "qxrelay"); });
  if (handlers.on_error != nullptr) {
    calls.Then("handler", [&] { return natsOptions_SetErrorHandler(options, handlers.on_error, handlers.closure); });
  }
  if (handlers.on_closed != nullptr) {
    calls.Then("handler", [&] { return natsOptions_SetClosedCB(options, handlers.on_closed, handlers.closure); });
  }
}

void SetTls(natsOptions* options, const StreamSettings& settings, Calls& calls) {
  const bool has_certificate = !settings.certificate_file.empty() || !settings.key_file.empty();
  if (settings.ca_file.empty() && !has_certificate) return;
  calls.Then("TLS", [&] { return natsOptions_SetSecure(options, true); });
  if (!settings.ca_file.empty()) {
    calls.Then("ca_file", [&] { return natsOptions_LoadCATrustedCertificates(options, settings.ca_file.c_str()); });
  }
  if (!has_certificate) return;
  calls.Then("certificate_file and key_file", [&] {
    return natsOptions_LoadCertificatesChain(options, settings.certificate_file.c_str(), settings.key_file.c_str());
  });
}

std::optional<std::string> SetCredentials(natsOptions* options, const StreamSettings& settings, Calls& calls) {
  if (!settings.credentials_file.empty()) {
    calls.Then("credentials_file", [&] {
      return natsOptions_SetUserCredentialsFromFiles(options, settings.credentials_file.c_str(), nullptr);
    });
  }
  if (settings.user.empty()) return std::nullopt;
  std::string password;
  if (!settings.password_file.empty()) {
    std::optional<std::string> problem = ReadPassword(settings.password_file, password);
    if (problem.has_value()) return problem;
  }
  calls.Then("user", [&] { return natsOptions_SetUserInfo(options, settings.user.c_str(), password.c_str()); });
  return std::nullopt;
}

// A text for the operator: what failed, and what to do about it.
std::string ProblemOfConnect(const StreamSettings& settings, natsStatus status) {
  if (status == NATS_CONNECTION_AUTH_FAILED) {
    return "the servers refuse the credentials: check user, password_file and credentials_file in [stream]";
  }
  if (status == NATS_SSL_ERROR && settings.ca_file.empty()) {
    return "the servers use TLS, and this machine does not know their authority: set ca_file in [stream]";
  }
  const std::string problem = Problem("cannot connect to the servers", status);
  if (status == NATS_SSL_ERROR) {
    return problem + ": check ca_file in [stream], and that the certificates name the servers";
  }
  // With TLS 1.3 the client has finished its handshake before the server checks the certificate.
  const bool may_lack_certificate = status == NATS_PROTOCOL_ERROR && settings.certificate_file.empty();
  return problem + (may_lack_certificate ? ": if they ask for one, set certificate_file and key_file in [stream]" : "");
}

}  // namespace

std::string Problem(const std::string& what, natsStatus status) { return what + ": " + natsStatus_GetText(status); }

std::optional<std::string> MakeOptions(const StreamSettings& settings, const Handlers& handlers, Options& options) {
  natsOptions* made = nullptr;
  if (const natsStatus status = natsOptions_Create(&made); status != NATS_OK) return Problem("options", status);
  options.reset(made);
  Calls calls;
  SetServers(made, settings, calls);
  SetBehaviour(made, handlers, calls);
  SetTls(made, settings, calls);
  if (std::optional<std::string> problem = SetCredentials(made, settings, calls)) return problem;
  return calls.Failure();
}

std::optional<std::string> MakeConnection(const StreamSettings& settings, const Handlers& handlers,
                                          Connection& connection) {
  Options options;
  if (std::optional<std::string> problem = MakeOptions(settings, handlers, options)) return problem;
  natsConnection* made = nullptr;
  const natsStatus status = natsConnection_Connect(&made, options.get());
  if (status == NATS_OK) {
    connection.reset(made);
    return std::nullopt;
  }
  return ProblemOfConnect(settings, status);
}

std::optional<std::string> MakeContext(const StreamSettings& settings, const Connection& connection, Context& context) {
  jsOptions options;
  natsStatus status = jsOptions_Init(&options);
  if (!settings.domain.empty()) options.Domain = settings.domain.c_str();
  jsCtx* made = nullptr;
  if (status == NATS_OK) status = natsConnection_JetStream(&made, connection.get(), &options);
  if (status != NATS_OK) return Problem("cannot use JetStream", status);
  context.reset(made);
  return std::nullopt;
}

}  // namespace qx::relay::nats
