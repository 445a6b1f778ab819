#include "tools/qxctl/settings/RegistryFiles.h"

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

Status LoadTree(const RegistrySource& source, CRegistryNode& tree, std::string& path) {
  path = source.file;
  if (!source.file.empty()) {
    if (CRegistry::ReadTree(source.file.c_str(), tree)) return {};
    return {ExitCode::kNotFound, "there is no registry file " + source.file + ", or no value in it"};
  }
  for (const char* const name : {"registry", "registry.old", "registry.default"}) {
    path = source.directory + "/" + name;
    if (CRegistry::ReadTree(path.c_str(), tree)) return {};
  }
  return {ExitCode::kNotFound,
          "there is no registry in " + source.directory + " (registry, registry.old or registry.default with a value)"};
}

Status LoadTree(Context& context, const RegistrySource& source, CRegistryNode& tree) {
  std::string path;
  Status status = LoadTree(source, tree, path);
  if (status.IsOk() && path != source.Path()) context.output.Note("qxctl: the registry comes from " + path);
  return status;
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
