// Runs children in a private mount namespace, for tests that need paths or file systems of their own.
#pragma once

#include <functional>
#include <string>

namespace qx::test {

// Runs TextOfChild with mounts of the child's own, which no other process sees and which end with the child. If
// namespaces are not allowed, `body` does not run, and the result says what to allow.
std::string WithPrivateMounts(const std::function<std::string()>& body);

// Covers `directory` with an empty file system in memory of at most `size` ("16k"; "" for no limit). To be called
// within WithPrivateMounts. Throws std::runtime_error.
void MountMemory(const std::string& directory, const std::string& size);

}  // namespace qx::test
