#include "tools/qxctl/settings/RegistryFiles.h"

#include <string_view>
#include <utility>

#include "registry/Registry.h"
#include "registry/tools/TreeEdit.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/settings/Settings.h"

namespace qx::ctl {

RegistrySource RegistrySourceOf(const Values& values) {
  RegistrySource source;
  source.directory = values.Text("--directory", source.directory);
  source.file = values.Text("--file");
  return source;
}

Status LoadTree(Context& context, const RegistrySource& source, CRegistryNode& tree) {
  if (!source.file.empty()) {
    if (CRegistry::ReadTree(source.file.c_str(), tree)) return {};
    return {ExitCode::kNotFound, "there is no registry file " + source.file + ", or no value in it"};
  }
  for (const char* const name : {"registry", "registry.old", "registry.default"}) {
    const std::string path = source.directory + "/" + name;
    const bool is_good = CRegistry::ReadTree(path.c_str(), tree);
    if (is_good && std::string_view(name) != "registry") context.output.Note("qxctl: the registry comes from " + path);
    if (is_good) return {};
  }
  return {ExitCode::kNotFound,
          "there is no registry in " + source.directory + " (registry, registry.old or registry.default with a value)"};
}

Status ReadTreeFile(const std::string& file, CRegistryNode& tree, std::string& bytes) {
  if (file == "-") {
    if (Status status = ReadArgument("@-", bytes); !status.IsOk()) return status;
  } else {
    FileImage image;
    if (Status status = StatusOfEdit(ReadFileImage(file, image)); !status.IsOk()) return status;
    bytes = std::move(image.bytes);
  }
  if (registry::ParseTree(bytes, tree)) return {};
  return {ExitCode::kRefused,
          (file == "-" ? "standard input" : file) + " is not a registry file: there is no value in it"};
}

}  // namespace qx::ctl
