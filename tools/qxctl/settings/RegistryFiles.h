// Loads the registry files that a command works on.
#pragma once

#include <string>

#include "registry/RegistryNode.h"
#include "registry/RegistryPaths.h"
#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

// The registry that a command reads or changes.
struct RegistrySource {
  std::string directory = registry::kSystemDirectory;
  std::string file;  // not empty: only this file

  // The file that a save writes.
  [[nodiscard]] std::string Path() const { return file.empty() ? directory + "/registry" : file; }
};

inline constexpr Parameter kRegistryParameters[] = {
    {.name = "--directory",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the registry's files",
     .default_value = registry::kSystemDirectory},
    {.name = "--file",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "Use this file instead of the registry, such as a backup",
     .excludes = {"--directory"}},
};

// For a command with kRegistryParameters.
RegistrySource RegistrySourceOf(const Values& values);

// Loads the tree of the file, or of the first file of the directory that loads. `path` is the loaded file.
Status LoadTree(const RegistrySource& source, CRegistryNode& tree, std::string& path);

// LoadTree that prints a note if the loaded file is not the first file of the directory.
Status LoadTree(Context& context, const RegistrySource& source, CRegistryNode& tree);

// Reads a tree from a file or, for "-", from standard input. `bytes` are the bytes that were read.
Status ReadTreeFile(const std::string& file, CRegistryNode& tree, std::string& bytes);

}  // namespace qx::ctl
