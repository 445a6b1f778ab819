#include "tools/qxrelay/cli/HostRights.h"

#include <algorithm>
#include <array>

#include "tools/qxrelay/message/Subject.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace qx::relay {

namespace {

constexpr std::string_view kHead =
    "# Users of the relay. \"qxrelay host\" changes the lines that end with \"# qxrelay\"; all others stay as they "
    "are.\n"
    "users = [\n"
    "]\n";
constexpr std::string_view kEnd = "]";
constexpr std::string_view kMark = " # qxrelay ";
constexpr std::string_view kPassword = "password: \"";
constexpr std::array<std::string_view, 3> kRoles = {"host", "collector", "operator"};  // in the order of Role

std::string UserStart(const std::string& name) { return "  {user: \"" + name + "\", "; }

// {"a", "b"} => ["a", "b"]
std::string ListText(const std::vector<std::string>& words) {
  std::string text = "[";
  for (const std::string& word : words) text += (text.size() > 1 ? ", \"" : "\"") + word + "\"";
  return text + "]";
}

std::vector<std::string> LinesOf(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

auto FindUser(const std::vector<std::string>& lines, const std::string& name) {
  return std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.starts_with(UserStart(name)) && line.find(kMark) != std::string::npos;
  });
}

}  // namespace

std::optional<Role> RoleOfText(std::string_view text) {
  const auto* const found = std::find(kRoles.begin(), kRoles.end(), text);
  if (found == kRoles.end()) return std::nullopt;
  return static_cast<Role>(found - kRoles.begin());
}

Rights RightsOf(Role role, const StreamSettings& stream, const std::string& name) {
  const std::string token = TokenOf(name);
  const std::string api = ApiPrefix(stream);
  if (role == Role::kOperator) return {.publish = {api + ".>"}, .subscribe = {"_INBOX.>"}};
  if (role == Role::kCollector) {
    const std::string consumer = stream.name + "." + name;
    return {.publish = {api + ".STREAM.NAMES", api + ".STREAM.INFO." + stream.name,
                        api + ".STREAM.MSG.GET." + stream.name, api + ".DIRECT.GET." + stream.name,
                        api + ".CONSUMER.INFO." + consumer, api + ".CONSUMER.DURABLE.CREATE." + consumer,
                        api + ".CONSUMER.MSG.NEXT." + consumer, "$JS.ACK." + consumer + ".>"},
            .subscribe = {"_INBOX.>"}};
  }
  const std::string reports = stream.prefix + ".report." + token + ".*";
  return {.publish = {reports, stream.prefix + ".names." + token + ".*", stream.prefix + ".about." + token,
                      api + ".DIRECT.GET." + stream.name + "." + reports,
                      api + ".DIRECT.GET." + stream.name + "." + stream.prefix + ".about." + token},
          .subscribe = {InboxPrefix(name) + ".>"}};
}

UsersFile::UsersFile(std::string_view text) : lines_(LinesOf(text.empty() ? kHead : text)) {}

bool UsersFile::Has(const std::string& name) const {
  const std::string start = UserStart(name);
  return std::any_of(lines_.begin(), lines_.end(),
                     [&](const std::string& line) { return line.find(start.substr(2)) != std::string::npos; });
}

std::optional<Role> UsersFile::RoleOfUser(const std::string& name) const {
  const auto line = FindUser(lines_, name);
  if (line == lines_.end()) return std::nullopt;
  return RoleOfText(std::string_view(*line).substr(line->find(kMark) + kMark.size()));
}

std::string UsersFile::PasswordOf(const std::string& name) const {
  const auto line = FindUser(lines_, name);
  if (line == lines_.end()) return {};
  const std::size_t begin = line->find(kPassword);
  if (begin == std::string::npos) return {};
  const std::size_t at = begin + kPassword.size();
  return line->substr(at, line->find('"', at) - at);
}

// Adds the user before the line that ends the list.
void UsersFile::Add(Role role, const StreamSettings& stream, const std::string& name, const std::string& password) {
  const Rights rights = RightsOf(role, stream, name);
  const std::string line = UserStart(name) + std::string(kPassword) + password +
                           "\", permissions: {publish: " + ListText(rights.publish) +
                           ", subscribe: " + ListText(rights.subscribe) + "}}" + std::string(kMark) +
                           std::string(kRoles[static_cast<std::size_t>(role)]);
  const auto end = std::find(lines_.rbegin(), lines_.rend(), kEnd);
  lines_.insert(end != lines_.rend() ? std::prev(end.base()) : lines_.end(), line);
}

void UsersFile::Remove(const std::string& name) {
  const auto line = FindUser(lines_, name);
  if (line != lines_.end()) lines_.erase(line);
}

std::string UsersFile::Text() const {
  std::string text;
  for (const std::string& line : lines_) text += line + "\n";
  return text;
}

}  // namespace qx::relay
