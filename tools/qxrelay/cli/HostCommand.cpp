// Adds, renames and removes the users of hosts, collectors and operators on the servers.
#include "tools/qxrelay/cli/HostCommand.h"

#include <crypt.h>
#include <sys/random.h>

#include <cstring>
#include <string>

#include "base/tools/ReplacedFile.h"
#include "tools/qxrelay/cli/HostRights.h"
#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace qx::relay {

namespace {

using ctl::ExitCode;
using ctl::Status;
using ctl::ValueKind;

constexpr std::string_view kUsersFile = "/etc/norrlek/qxrelay-users.conf";
constexpr std::string_view kRoles[] = {"host", "collector", "operator"};
constexpr std::size_t kPasswordBytes = 24;
// The password is random, so the hash need not be slow; after a restart, a server checks thousands of passwords.
constexpr unsigned long kHashCost = 4;
constexpr const char* kHashPrefix = "$2a$";
constexpr mode_t kPasswordMode = 0600;
constexpr mode_t kUsersMode = 0640;

constexpr ctl::Parameter kUsersOptions[] = {
    {.name = "--users",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "File of users that the servers include",
     .default_value = kUsersFile},
};

constexpr ctl::Parameter kAddParameters[] = {
    {.name = "NAME",
     .kind = ValueKind::kText,
     .help = "The name of the host, the collector or the operator",
     .is_required = true},
    {.name = "--role",
     .kind = ValueKind::kText,
     .help = "What the user may do",
     .choices = kRoles,
     .default_value = "host"},
    {.name = "--password-file",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "Write the password to this file, for password_file in section [stream]",
     .is_required = true},
};

constexpr ctl::Parameter kRenameParameters[] = {
    {.name = "NAME", .kind = ValueKind::kText, .help = "The name of the host", .is_required = true},
    {.name = "NEW", .kind = ValueKind::kText, .help = "Its new name", .is_required = true},
};

constexpr ctl::Parameter kRetireParameters[] = {
    {.name = "NAME", .kind = ValueKind::kText, .help = "The name of the host", .is_required = true},
    {.name = "--purge", .help = "Remove its messages from the stream, too"},
};

constexpr ctl::Example kAddExamples[] = {
    {"qxrelay host add host3 --password-file host3.password", "Make a user for a host"},
    {"qxrelay host add c1 --role collector --password-file c1.password", "Make a user for a collector"},
};
constexpr ctl::Example kRenameExamples[] = {
    {"qxrelay host rename host3 db3", "Give a host another name; it keeps its password"},
};
constexpr ctl::Example kRetireExamples[] = {
    {"qxrelay host retire host3 --purge", "Take the rights of a host away, and remove its messages"},
};

Status StatusOf(const std::string& what, const ReplaceResult& result) {
  if (result.IsDone()) return {};
  if (result.error != 0) return Status::Io(what, result.error);
  return {ExitCode::kRefused,
          what + ": the file or its directory belongs to another user, or another program is changing the file"};
}

// Reads the file of users, calls `change`, and writes the file.
template <typename Change>
Status ChangeUsers(const std::string& path, Change change) {
  ReplacedFile file;
  ReplacedFile::Options options;
  options.may_be_missing = true;
  options.new_mode = kUsersMode;
  ReplaceResult result = file.Begin(path, options);
  if (!result.IsDone()) return StatusOf("cannot change " + path, result);
  UsersFile users(file.Image().bytes);
  if (Status status = change(users); !status.IsOk()) return status;
  result = file.WriteCopy(users.Text());
  if (result.IsDone()) result = file.Commit(false);
  return StatusOf("cannot change " + path, result);
}

Status CheckName(const std::string& name) {
  if (IsHostName(name)) return {};
  return {ExitCode::kUsage, "\"" + name + "\" " + std::string(kHostNameAllowed)};
}

Status RandomPassword(std::string& password) {
  unsigned char bytes[kPasswordBytes];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    return {ExitCode::kIo, "the system has no random bytes"};
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const unsigned char byte : bytes) {
    password += kDigits[byte / 16];
    password += kDigits[byte % 16];
  }
  return {};
}

Status HashOf(const std::string& password, std::string& hash) {
  crypt_data data = {};
  char salt[CRYPT_GENSALT_OUTPUT_SIZE];
  const bool has_salt = crypt_gensalt_rn(kHashPrefix, kHashCost, nullptr, 0, salt, sizeof salt) != nullptr;
  const char* const hashed = has_salt ? crypt_rn(password.c_str(), salt, &data, sizeof data) : nullptr;
  if (hashed == nullptr) return {ExitCode::kIo, "cannot hash a password"};
  hash = hashed;
  return {};
}

Status WritePassword(const std::string& path, const std::string& password) {
  ReplacedFile file;
  ReplacedFile::Options options = ReplacedFile::ForOutput(false);
  options.may_be_missing = true;
  options.new_mode = kPasswordMode;
  ReplaceResult result = file.Begin(path, options);
  if (result.IsDone()) result = file.WriteCopy(password + "\n");
  if (result.IsDone()) result = file.Commit(false);
  return StatusOf("cannot write " + path, result);
}

// The password file is written first. So if the second write fails, there is no user without a known password.
Status Add(ctl::Context& context, const ctl::Values& values) {
  RelayConfig config;
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  const std::string name = values.Text("NAME");
  const Role role = RoleOfText(values.Text("--role", "host")).value_or(Role::kHost);
  if (Status status = CheckName(name); !status.IsOk()) return status;
  const bool is_stream_word = role != Role::kCollector || IsStreamName(name);
  if (!is_stream_word) {
    return {ExitCode::kUsage, "\"" + name + "\" " + std::string(kCollectorNameAllowed)};
  }
  return ChangeUsers(values.Text("--users", kUsersFile), [&](UsersFile& users) -> Status {
    if (users.Has(name)) return {ExitCode::kRefused, "there is a user " + name + " already"};
    std::string password;
    std::string hash;
    if (Status status = RandomPassword(password); !status.IsOk()) return status;
    if (Status status = HashOf(password, hash); !status.IsOk()) return status;
    if (Status status = WritePassword(values.Text("--password-file"), password); !status.IsOk()) return status;
    users.Add(role, config.stream, name, hash);
    context.output.Note("let the servers read the file again: nats-server --signal reload");
    return {};
  });
}

Status Rename(ctl::Context& context, const ctl::Values& values) {
  RelayConfig config;
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  const std::string name = values.Text("NAME");
  const std::string changed = values.Text("NEW");
  if (Status status = CheckName(changed); !status.IsOk()) return status;
  return ChangeUsers(values.Text("--users", kUsersFile), [&](UsersFile& users) -> Status {
    const std::optional<Role> role = users.RoleOfUser(name);
    if (!role.has_value()) return {ExitCode::kNotFound, "there is no user " + name + " of the relay"};
    if (users.Has(changed)) return {ExitCode::kRefused, "there is a user " + changed + " already"};
    const std::string password = users.PasswordOf(name);
    users.Remove(name);
    users.Add(*role, config.stream, changed, password);
    context.output.Note(
        "set user in [stream] and name in [host] to " + changed +
        " on the host, and let the servers read the file again. With the new name its reports begin again, "
        "with the records that its rings still have.");
    return {};
  });
}

Status Retire(ctl::Context& context, const ctl::Values& values) {
  RelayConfig config;
  if (Status status = LoadConfig(context, values, config); !status.IsOk()) return status;
  const std::string name = values.Text("NAME");
  Status status = ChangeUsers(values.Text("--users", kUsersFile), [&](UsersFile& users) -> Status {
    if (!users.RoleOfUser(name).has_value()) return {ExitCode::kNotFound, "there is no user " + name + " of the relay"};
    users.Remove(name);
    return {};
  });
  if (!status.IsOk() || !values.Flag("--purge")) return status;
  if (const auto problem = PurgeHost(config.stream, name)) {
    return {ExitCode::kIo,
            "the user \"" + name + "\" was removed, but its messages are still in the stream: " + *problem};
  }
  return {};
}

}  // namespace

constinit const ctl::Command kHostAddCommand = {.words = "host add",
                                                .help = "Make a user for a host, a collector or an operator",
                                                .run = Add,
                                                .parameters = {kAddParameters, kUsersOptions, kConfigOptions},
                                                .examples = kAddExamples,
                                                .program = kProgram};
constinit const ctl::Command kHostRenameCommand = {.words = "host rename",
                                                   .help = "Give a host another name",
                                                   .run = Rename,
                                                   .parameters = {kRenameParameters, kUsersOptions, kConfigOptions},
                                                   .examples = kRenameExamples,
                                                   .program = kProgram};
constinit const ctl::Command kHostRetireCommand = {.words = "host retire",
                                                   .help = "Take the rights of a host away",
                                                   .run = Retire,
                                                   .parameters = {kRetireParameters, kUsersOptions, kConfigOptions},
                                                   .examples = kRetireExamples,
                                                   .program = kProgram};

}  // namespace qx::relay
