#include "registry/RegistryValue.h"

#include <cstring>
#include <new>

#include "registry/RegistryNode.h"

namespace qx::registry {

namespace {

using BlockLength = std::uint32_t;

}  // namespace

char* NewText(std::string_view text) {
  char* copy = new (std::nothrow) char[text.size() + 1];
  if (copy == nullptr) return nullptr;
  if (!text.empty()) std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

char* NewBlockOf(std::size_t size) {
  const auto length = static_cast<BlockLength>(size);
  char* block = new (std::nothrow) char[sizeof length + size];
  if (block != nullptr) std::memcpy(block, &length, sizeof length);
  return block;
}

char* NewBlock(std::string_view bytes) {
  char* block = NewBlockOf(bytes.size());
  if (block != nullptr && !bytes.empty()) std::memcpy(BytesIn(block), bytes.data(), bytes.size());
  return block;
}

std::string_view BlockBytes(const void* block) {
  BlockLength length;
  std::memcpy(&length, block, sizeof length);
  return {static_cast<const char*>(block) + sizeof length, length};
}

void FreeValue(RegistryValue& value) {
  const RegistryValue old = std::exchange(value, {});
  switch (old.type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
    case REG_BINARY:
      delete[] static_cast<char*>(old.slot.pointer);
      break;
    case REG_NODE:
      delete static_cast<CRegistryNode*>(old.slot.pointer);
      break;
    default:
      break;
  }
}

bool IsString(const RegistryValue& value) { return value.type == REG_SZ || value.type == REG_EXPAND_SZ; }

CRegistryNode* NodeOf(const RegistryValue& value) {
  return value.type == REG_NODE ? static_cast<CRegistryNode*>(value.slot.pointer) : nullptr;
}

std::string_view StoredBytes(const RegistryValue& value) {
  if (!value.IsPresent()) return {};
  const auto* text = static_cast<const char*>(value.slot.pointer);
  switch (value.type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      return {text, std::strlen(text) + 1};
    case REG_BINARY:
      return BlockBytes(text);
    case REG_DWORD:
      return {reinterpret_cast<const char*>(&value.slot.number), sizeof value.slot.number};
    default:
      return {};
  }
}

}  // namespace qx::registry
