#include "tools/qxctl/module/CallOptions.h"

#include "tools/qxctl/store/FallbackDirectory.h"

namespace qx::ctl {

std::string_view CheckTag(std::string_view tag) {
  constexpr std::size_t kTagBytes = sizeof(krx_gendata::tag);
  return tag.size() <= kTagBytes ? std::string_view() : "a tag has at most 4 bytes";
}

CallOptions CallOptionsOf(const Values& values) {
  CallOptions options;
  options.module_path = values.Text("--module");
  BlockValues& block = options.block;
  block.tag = values.Text("--tag", block.tag);
  block.version = static_cast<std::uint32_t>(values.Integer("--block-version", block.version));
  block.thread_id = static_cast<std::uint32_t>(values.Integer("--thread-id", block.thread_id));
  block.application_id = values.Text("--application-id", block.application_id);
  if (values.Has("--function-id")) block.function_id = values.Text("--function-id");
  block.requestor_address = values.Text("--address", block.requestor_address);
  if (values.Has("--user")) block.user = values.Text("--user");
  for (const std::string& text : values.Texts("--privilege")) block.privileges.push_back(ParsePrivilege(text));
  for (const std::int64_t index : values.Integers("--omit")) block.omitted.insert(static_cast<int>(index));
  return options;
}

Status LoadModule(const CallOptions& options, TraceDirectory& traces, std::unique_ptr<ModuleHost>& host) {
  if (Status status = CheckFallbackDirectory(); !status.IsOk()) return status;
  if (Status status = traces.ProtectService(); !status.IsOk()) return status;
  return ModuleHost::Load(FindModule(options.module_path), host);
}

Privilege ParsePrivilege(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return {"", text};
  return {text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace qx::ctl
