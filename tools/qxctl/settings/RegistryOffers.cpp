#include "tools/qxctl/settings/RegistryOffers.h"

#include "registry/Registry.h"
#include "registry/RegistryValue.h"
#include "registry/tools/TreeEdit.h"
#include "tools/qxctl/settings/RegistryFiles.h"

namespace qx::ctl {

namespace {

bool HasKeys(const CRegistryNode& key) {
  const qx::LockScope lock(key.Lock());
  for (const StrMapEntry& entry : key.Entries()) {
    if (entry.name != nullptr && registry::NodeOf(entry.value) != nullptr) return true;
  }
  return false;
}

// The names of the subkeys of a key, or those of its values.
std::vector<Offer> NamesIn(const CRegistryNode& key, const std::string& path, bool are_keys) {
  std::vector<Offer> offers;
  const qx::LockScope lock(key.Lock());
  for (const StrMapEntry& entry : key.Entries()) {
    if (entry.name == nullptr || !entry.value.IsPresent()) continue;
    const CRegistryNode* const below = registry::NodeOf(entry.value);
    if ((below != nullptr) != are_keys) continue;
    offers.push_back({path + entry.name + (below != nullptr && HasKeys(*below) ? "/" : "")});
  }
  return offers;
}

std::vector<Offer> NamesAt(const OfferRequest& request, const std::string& key, const std::string& path,
                           bool are_keys) {
  CRegistryNode tree;
  RegistrySource source;
  if (const std::string directory = request.Text("--directory"); !directory.empty()) source.directory = directory;
  source.file = request.Text("--file");
  std::string path_of_file;
  if (!LoadTree(source, tree, path_of_file).IsOk()) return {};
  const CRegistryNode* const found = registry::FindKey(tree, key);
  return found == nullptr ? std::vector<Offer>() : NamesIn(*found, path, are_keys);
}

std::vector<Offer> KeyPaths(const Context&, const OfferRequest& request) {
  const std::size_t end = request.current.find_last_of("/\\") + 1;  // 0 without a separator
  const std::string above = request.current.substr(0, end);
  return NamesAt(request, above, above, true);
}

std::vector<Offer> ValueNames(const Context&, const OfferRequest& request) {
  return NamesAt(request, request.Text("KEY"), "", false);
}

}  // namespace

constinit const OfferSource kRegistryKeyOffers = {"registry-keys", KeyPaths};
constinit const OfferSource kRegistryValueOffers = {"registry-values", ValueNames};

}  // namespace qx::ctl
