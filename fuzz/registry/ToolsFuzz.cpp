// Reads bytes as a registry file with the tools. The check and the load must agree on whether the file loads; a tree
// that may be stored must be read back unchanged; a copy made by a merge must not differ from the tree.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/support/Require.h"
#include "registry/tools/FileLint.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeEdit.h"

namespace {

using qx::fuzz::Demand;

bool AreEqual(const CRegistryNode& left, const CRegistryNode& right) {
  return qx::registry::Compare(left, right).changes.empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  CRegistryNode tree;
  const bool loads = qx::registry::ParseTree(bytes, tree);
  Demand(qx::registry::LintFile(bytes).loads == loads, "check and load agree");

  CRegistryNode copy;
  Demand(qx::registry::MergeInto(copy, tree) == qx::registry::EditState::kDone, "a tree can be copied");
  Demand(AreEqual(tree, copy), "a copy is equal");

  std::string text;
  if (qx::registry::WhyNotStorable(tree, text)) return 0;
  CRegistryNode again;
  Demand(qx::registry::ParseTree(text, again), "what may be stored loads");
  Demand(AreEqual(tree, again), "what may be stored comes back");
  return 0;
}
