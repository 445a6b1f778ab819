// Internal: the registry file's format, writing (docs/registry-file.md).
#pragma once

#include <string>

class CRegistryNode;

namespace qx::registry {

// Appends the key's content to `text`: its values, each subkey with its content, an empty line. The locks of the path
// from `node` to the key being written are held, parent before child, so that nothing on the path can be deleted.
// False when there is not enough memory; `text` is then incomplete.
[[nodiscard]] bool FormatTree(const CRegistryNode& node, std::string& text);

}  // namespace qx::registry
