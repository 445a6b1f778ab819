// Internal: writes the format of the registry file (docs/registry-file.md).
#pragma once

#include <cstddef>
#include <string>

class CRegistryNode;

namespace qx::registry {

// Appends the key's content to `text`: its values, each subkey with its content, an empty line. The locks of the path
// from `node` to the key being written are held, parent before child, so that nothing on the path can be deleted.
// Memory for `bytes_expected` is reserved at the start. Otherwise a text of megabytes would be copied each time its
// memory is doubled, which would take longer than the formatting. False if there is not enough memory; `text` is then
// incomplete.
[[nodiscard]] bool FormatTree(const CRegistryNode& node, std::string& text, std::size_t bytes_expected = 0);

}  // namespace qx::registry
