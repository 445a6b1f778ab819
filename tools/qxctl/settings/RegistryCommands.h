// What the source files of the registry commands share.
#pragma once

#include <string>

#include "registry/RegistryNode.h"
#include "registry/RegistryPaths.h"
#include "tools/qxctl/cli/Commands.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

// Which registry a command works on.
struct RegistrySource {
  std::string directory = registry::kSystemDirectory;
  std::string file;  // not empty: this one file alone

  // The file that a save writes.
  [[nodiscard]] std::string Path() const { return file.empty() ? directory + "/registry" : file; }
};

// --directory and --file.
void AddSourceOptions(CLI::App& command, RegistrySource& source);

// Loads the tree of the file, or of the first good one of the directory; a word says so when it was not the first.
Status LoadTree(Context& context, const RegistrySource& source, CRegistryNode& tree);

// Reads a tree from a file or, for "-", from standard input. `bytes` are what was read.
Status ReadTreeFile(const std::string& file, CRegistryNode& tree, std::string& bytes);

void AddRegistryEditCommands(CLI::App& registry, Context& context);   // set, delete, import
void AddRegistryCheckCommands(CLI::App& registry, Context& context);  // diff, export, lint

}  // namespace qx::ctl
