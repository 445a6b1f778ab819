// Edits the users of the NATS servers: a part of the servers' configuration that "qxrelay host" writes.
//
//   # Users of the relay. ...
//   users = [
//     {user: "host3", password: "$2a$04$...", permissions: {publish: [...], subscribe: [...]}} # qxrelay host
//     ...
//   ]
//
// Each user is one line. Lines that "qxrelay host" did not write, such as those of other programs' users, do not
// change.
// The servers include the file; the path is relative to the directory of their configuration:
//   authorization { include "norrlek/qxrelay-users.conf" }
//
// Everything here is pure. Throws std::bad_alloc. [any thread]
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxrelay/config/RelayConfig.h"

namespace qx::relay {

enum class Role : std::uint8_t {
  kHost,       // publishes to its own subjects, reads its own newest messages, and has its own inbox
  kCollector,  // makes and uses the consumer of its name
  kOperator,   // all subjects: creates streams and purges hosts
};

[[nodiscard]] std::optional<Role> RoleOfText(std::string_view text);

struct Rights {
  std::vector<std::string> publish;
  std::vector<std::string> subscribe;
};

[[nodiscard]] Rights RightsOf(Role role, const StreamSettings& stream, const std::string& name);

// A file of users. A change writes all other lines as they were read.
class UsersFile {
 public:
  // `text` is the content of the file; if it is empty, there are no users.
  explicit UsersFile(std::string_view text);

  [[nodiscard]] bool Has(const std::string& name) const;
  // The role and the hashed password of a user, if "qxrelay host" wrote it.
  [[nodiscard]] std::optional<Role> RoleOfUser(const std::string& name) const;
  [[nodiscard]] std::string PasswordOf(const std::string& name) const;

  // `password` is hashed already. The user must not exist.
  void Add(Role role, const StreamSettings& stream, const std::string& name, const std::string& password);
  // The user must exist.
  void Remove(const std::string& name);

  [[nodiscard]] std::string Text() const;

 private:
  std::vector<std::string> lines_;
};

}  // namespace qx::relay
