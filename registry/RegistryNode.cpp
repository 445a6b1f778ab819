#include "registry/RegistryNode.h"

#include <new>
#include <utility>
#include <vector>

#include "debug/Debug.h"
#include "registry/RegistryValue.h"
#include "registry/TreeReader.h"
#include "registry/TreeWriter.h"
#include "registry/Uncancellable.h"

using qx::registry::FreeValue;
using qx::registry::NodeOf;

// Exchanges the content of keys that stay in the tree with that of keys that were just read. The old content is freed
// together with the keys that were read. So a handle stays valid if the new file also has its key.
class CRegistryNode::ContentExchange {
 public:
  // False if memory runs out; the caller then replaces the whole key.
  bool Add(CRegistryNode* kept, CRegistryNode* fresh) {
    try {
      pairs_.emplace_back(kept, fresh);
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  void Run() {
    while (!pairs_.empty()) {
      const auto [kept, fresh] = pairs_.back();
      pairs_.pop_back();
      const qx::LockScope lock(kept->Lock());
      KeepSubkeys(*kept, *fresh);
      kept->SwapEntries(*fresh);
    }
  }

 private:
  // Exchanges the pointers to subkeys of the same name first. The exchange of all entries then returns the old subkeys
  // to the old key.
  void KeepSubkeys(CRegistryNode& kept, CRegistryNode& fresh) {
    auto fresh_entries = fresh.Entries();
    std::size_t at = 0;
    for (StrMapEntry& entry : kept.Entries()) {
      while (at < fresh_entries.size() && compare(&fresh_entries[at], &entry) < 0) ++at;
      if (at == fresh_entries.size()) return;
      if (compare(&fresh_entries[at], &entry) == 0) KeepSubkey(entry.value, fresh_entries[at].value);
    }
  }

  void KeepSubkey(RegistryValue& kept, RegistryValue& fresh) {
    const bool both_keys = NodeOf(kept) != nullptr && NodeOf(fresh) != nullptr;
    if (both_keys && Add(NodeOf(kept), NodeOf(fresh))) std::swap(kept.slot, fresh.slot);
  }

  std::vector<std::pair<CRegistryNode*, CRegistryNode*>> pairs_;
};

CRegistryNode::~CRegistryNode() { deleteNode(); }

void CRegistryNode::dumpNode(FILE* stream) const {
  if (stream == nullptr) return;
  std::string text;
  if (!qx::registry::FormatTree(*this, text)) return;
  (void)fwrite(text.data(), 1, text.size(), stream);  // the stream keeps the error for its owner
}

bool CRegistryNode::restoreNode(FILE* stream) {
  if (stream == nullptr) return false;
  qx::registry::LineReader lines([stream](char* to, std::size_t size) -> ssize_t {
    const std::size_t got = fread(to, 1, size, stream);
    return got == 0 && ferror(stream) != 0 ? -1 : static_cast<ssize_t>(got);
  });
  const bool has_values = qx::registry::RestoreFrom(lines, *this) != qx::registry::Reading::kFailed;
  const auto unread = static_cast<off_t>(lines.UnreadBytes());
  if (unread > 0)
    (void)fseeko(stream, -unread, SEEK_CUR);  // a pipe cannot seek, and loses the bytes that were read ahead
  return has_values;
}

// Pointer reversal: in each key on the path, the slot of the subkey contains the pointer to the key above, and the
// capacity contains the key's own index in the key above. So deletion needs no memory and no stack at any depth.
void CRegistryNode::deleteNode() {
  const qx::registry::UncancellableScope no_cancellation;
  CRegistryNode* node = this;
  CRegistryNode* above = nullptr;
  std::int32_t at = 0;
  for (;;) {
    if (at < node->count_) {
      StrMapEntry& entry = node->entries_[at];
      if (entry.value.IsPresent()) QX_TRACE(2, "CRegistryNode::deleteNode \"%s\"\n", entry.name);
      CRegistryNode* child = NodeOf(entry.value);
      if (child == nullptr) {
        FreeValue(entry.value);
        ++at;
        continue;
      }
      entry.value.slot.pointer = std::exchange(above, node);
      child->capacity_ = std::exchange(at, 0);
      node = child;
      continue;
    }
    if (node == this) return;
    CRegistryNode* done = std::exchange(node, above);
    at = done->capacity_;
    above = static_cast<CRegistryNode*>(std::exchange(node->entries_[at].value, {}).slot.pointer);
    ++at;
    delete done;  // the key has no values any more, so this does not recurse
  }
}

void CRegistryNode::Clear() {
  deleteNode();
  Discard();
}

bool CRegistryNode::Merge(CRegistryNode& fresh) {
  ContentExchange exchange;
  {
    const qx::LockScope lock(lock_);
    std::int32_t new_names = fresh.count_;
    for (const StrMapEntry& entry : fresh.Entries()) new_names -= Find(entry.name) != nullptr ? 1 : 0;
    if (!Reserve(count_ + new_names)) return false;
    MergeEntries(fresh, new_names, exchange);
  }
  exchange.Run();
  for (StrMapEntry& entry : fresh.Entries()) FreeValue(entry.value);
  return true;
}

// Merges two sorted lists from their ends, into the free slots at the end of the array.
void CRegistryNode::MergeEntries(CRegistryNode& fresh, std::int32_t new_names, ContentExchange& exchange) {
  std::int32_t old = count_;
  std::int32_t place = count_ + new_names;
  count_ = place;
  for (std::int32_t at = fresh.count_; at-- > 0;) {
    StrMapEntry& entry = fresh.entries_[at];
    while (old > 0 && compare(&entries_[old - 1], &entry) > 0) entries_[--place] = entries_[--old];
    if (old == 0 || compare(&entries_[old - 1], &entry) < 0) {
      entries_[--place] = std::exchange(entry, {});
      continue;
    }
    entries_[--place] = entries_[--old];
    RegistryValue& kept = entries_[place].value;
    const bool both_keys = NodeOf(kept) != nullptr && NodeOf(entry.value) != nullptr;
    if (!both_keys || !exchange.Add(NodeOf(kept), NodeOf(entry.value))) std::swap(kept, entry.value);
  }
}
