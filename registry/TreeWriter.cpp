#include "registry/TreeWriter.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <new>
#include <span>
#include <string_view>
#include <vector>

#include "registry/RegistryNode.h"
#include "registry/RegistryValue.h"

namespace qx::registry {

namespace {

// The keys from the first one down to the one that is being written. All of them are locked.
class LockedPath {
 public:
  struct Step {
    const CRegistryNode* key;
    std::size_t next_entry = 0;
  };

  LockedPath() = default;
  LockedPath(const LockedPath&) = delete;
  LockedPath& operator=(const LockedPath&) = delete;
  ~LockedPath() {
    while (!IsEmpty()) Leave();
  }

  void Enter(const CRegistryNode* key) {
    steps_.push_back({key});
    key->Lock().Lock();
  }
  void Leave() {
    steps_.back().key->Lock().Unlock();
    steps_.pop_back();
  }
  [[nodiscard]] bool IsEmpty() const { return steps_.empty(); }
  [[nodiscard]] Step& Last() { return steps_.back(); }

 private:
  std::vector<Step> steps_;
};

void AppendNumber(std::string& text, std::int32_t number) {
  char digits[12];
  const auto [end, error] = std::to_chars(digits, digits + sizeof digits, number);
  text.append(digits, error == std::errc() ? end : digits);
}

// 0a ff => "0a ff "
void AppendHexadecimal(std::string& text, std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  constexpr std::size_t kBytesAtOnce = 32;
  for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), kBytesAtOnce))) {
    char triples[3 * kBytesAtOnce];
    char* to = triples;
    for (const char c : bytes.substr(0, kBytesAtOnce)) {
      const auto byte = static_cast<unsigned char>(c);
      *to++ = kDigits[byte >> 4U];
      *to++ = kDigits[byte & 0xFU];
      *to++ = ' ';
    }
    text.append(triples, static_cast<std::size_t>(to - triples));
  }
}

void AppendValue(std::string& text, const StrMapEntry& entry) {
  const auto* string = static_cast<const char*>(entry.value.slot.pointer);
  switch (entry.value.type) {
    case REG_SZ:
      text.append(entry.name).append("=s=").append(string);
      break;
    case REG_EXPAND_SZ:
      text.append(entry.name).append("=es=").append(string);
      break;
    case REG_DWORD:
      AppendNumber(text.append(entry.name).append("=d="), entry.value.slot.number);
      break;
    case REG_BINARY:
      AppendHexadecimal(text.append(entry.name).append("=b="), BlockBytes(entry.value.slot.pointer));
      break;
    default:
      return;
  }
  text += '\n';
}

// Names and data are spread over the memory of the tree, so each access would wait for memory. While one entry is
// written, the name and the data of the entry eight places later are prefetched.
void FetchAhead(std::span<const StrMapEntry> entries, std::size_t current) {
  constexpr std::size_t kAhead = 8;
  if (entries.size() - current <= kAhead) return;
  const StrMapEntry& ahead = entries[current + kAhead];
  __builtin_prefetch(ahead.name);
  if (ahead.value.type != REG_DWORD) __builtin_prefetch(ahead.value.slot.pointer);
}

void EnterAndAppendValues(LockedPath& path, const CRegistryNode* key, std::string& text) {
  path.Enter(key);
  const std::span<const StrMapEntry> entries = key->Entries();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    FetchAhead(entries, i);
    if (entries[i].value.IsPresent()) AppendValue(text, entries[i]);
  }
}

const StrMapEntry* NextSubkey(LockedPath::Step& step) {
  const auto entries = step.key->Entries();
  while (step.next_entry < entries.size()) {
    const StrMapEntry& entry = entries[step.next_entry++];
    if (NodeOf(entry.value) != nullptr) return &entry;
  }
  return nullptr;
}

}  // namespace

bool FormatTree(const CRegistryNode& node, std::string& text, std::size_t bytes_expected) {
  LockedPath path;
  try {
    text.reserve(text.size() + bytes_expected);
    EnterAndAppendValues(path, &node, text);
    while (!path.IsEmpty()) {
      if (const StrMapEntry* subkey = NextSubkey(path.Last())) {
        text.append("[").append(subkey->name).append("]\n");
        EnterAndAppendValues(path, NodeOf(subkey->value), text);
      } else {
        text += '\n';
        path.Leave();
      }
    }
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace qx::registry
