#include "tools/qxctl/module/CallOptions.h"

#include <CLI/CLI.hpp>
#include <set>
#include <vector>

namespace qx::ctl {

namespace {

constexpr std::size_t kTagBytes = sizeof(krx_gendata::tag);

std::string CheckTag(const std::string& tag) {
  return tag.size() <= kTagBytes ? std::string() : "a tag has at most 4 bytes";
}

void AddBlockOptions(CLI::App& command, BlockValues& block) {
  const char* const kGroup = "Request block";
  command.add_option("--tag", block.tag, "Tag of the block (\"KRX\" is valid)")->check(CheckTag)->group(kGroup);
  command.add_option("--block-version", block.version, "Version of the block, 3.4.0 being 30400")->group(kGroup);
  command.add_option("--thread-id", block.thread_id, "Thread id in the block (0 is refused)")->group(kGroup);
  command.add_option("--application-id", block.application_id, "Calling application")->group(kGroup);
  command.add_option("--function-id", block.function_id, "Function name in the block (default: the called function)")
      ->group(kGroup);
  command.add_option("--address", block.requestor_address, "Requestor address")->group(kGroup);
  command
      .add_option_function<std::vector<int>>(
          "--omit", [&block](const std::vector<int>& indices) { block.omitted.insert(indices.begin(), indices.end()); },
          "Leave out the elements with these indices: 1, 2, 3, 5, 14, 15, 61, 65")
      ->delimiter(',')
      ->check(CLI::IsMember(std::set<int>{1, 2, 3, 5, 14, 15, 61, 65}))
      ->group(kGroup);
}

void AddSecurityOptions(CLI::App& command, BlockValues& block) {
  const char* const kGroup = "Caller";
  command.add_option("--user", block.user, "Attach security validation data with this user id")->group(kGroup);
  command
      .add_option_function<std::vector<std::string>>(
          "--privilege",
          [&block](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) block.privileges.push_back(ParsePrivilege(text));
          },
          "Attach security validation data with this privilege, [DEPARTMENT:]NAME; may be repeated")
      ->group(kGroup);
}

}  // namespace

void AddModuleOption(CLI::App& command, CallOptions& options) {
  command
      .add_option("--module", options.module_path,
                  "The module (default: QX_MODULE, beside qxctl, in ../lib of it, where the suite installs it)")
      ->type_name("FILE");
}

void AddCallOptions(CLI::App& command, CallOptions& options) {
  AddModuleOption(command, options);
  AddSecurityOptions(command, options.block);
  AddBlockOptions(command, options.block);
}

Status LoadModule(const CallOptions& options, TraceDirectory& traces, std::unique_ptr<ModuleHost>& host) {
  if (Status status = traces.ProtectService(); !status.IsOk()) return status;
  return ModuleHost::Load(FindModule(options.module_path), host);
}

Privilege ParsePrivilege(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return {"", text};
  return {text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace qx::ctl
