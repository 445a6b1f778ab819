// For tests that need paths or file systems of their own: children in a private mount namespace.
#pragma once

#include <functional>
#include <string>

namespace qx::test {

// TextOfChild with the child's own mounts, which no other process sees and which end with it. If namespaces are not
// allowed, the result names what to allow, and `body` does not run.
std::string WithPrivateMounts(const std::function<std::string()>& body);

// Covers `directory` with an empty file system in memory of at most `size` ("16k"; "" for no limit). Throws
// std::runtime_error. For WithPrivateMounts.
void MountMemory(const std::string& directory, const std::string& size);

}  // namespace qx::test
