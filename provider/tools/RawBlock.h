// Builds request blocks of any shape, also invalid ones, for tests, benchmarks, fuzz targets and other programs that
// call a module. BlockBuilder.h uses it to make valid blocks.
//
// Every structure, array, number and text is a heap block of its exact size, so that the address sanitizer sees a read
// of one byte too many.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "provider/KrxGenData.h"

namespace qx::provider {

// A department of the security data: its name (may be null) and its privileges (entries may be null).
struct BlockDepartment {
  const char* name;
  std::vector<const char*> privileges;
};

// Owns everything that the block points to, at fixed addresses until destruction. Every part that a function makes
// belongs to the block, but a module finds the part only if the header, or something that the header leads to, points
// to it.
//
// Threads: one thread.
class RawBlock {
 public:
  using Elements = std::vector<krx_element*>;  // entries may be null

  // A valid header without elements: tag "KRX", version 3.4.0. `host_fill` is the value of the fields of elements and
  // validation data that belong to the host; these may have any value.
  explicit RawBlock(std::uint64_t host_fill = 0) : host_fill_(host_fill), header_(Keep(GoodHeader())) {}
  RawBlock(const RawBlock&) = delete;
  RawBlock& operator=(const RawBlock&) = delete;

  // Copies that belong to the block.
  void* KeepBytes(const void* bytes, std::size_t size) {
    pieces_.push_back(std::make_unique<char[]>(size));
    if (size > 0) std::memcpy(pieces_.back().get(), bytes, size);
    return pieces_.back().get();
  }
  template <typename T>
  T* Keep(const T& value) {
    return static_cast<T*>(KeepBytes(&value, sizeof value));
  }
  template <typename T>
  T** KeepArray(const std::vector<T*>& entries) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the entries are pointers.
    return static_cast<T**>(KeepBytes(entries.data(), entries.size() * sizeof(T*)));
  }
  char* KeepText(std::string_view text) {
    pieces_.push_back(std::make_unique<char[]>(text.size() + 1));  // zeroed: the NUL is there
    if (!text.empty()) std::memcpy(pieces_.back().get(), text.data(), text.size());
    return pieces_.back().get();
  }

  // Makes an element in which `value` is stored as it is. Number and Text store a pointer to a copy.
  krx_element* Element(std::int32_t index, std::int32_t type, const void* value) {
    krx_element element{};
    element.host_field_0 = host_fill_;
    element.host_field_12 = element.host_field_16 = element.host_field_20 = static_cast<std::uint32_t>(host_fill_);
    element.index = index;
    element.type = type;
    element.value = const_cast<void*>(value);
    return Keep(element);
  }
  // Stores four bytes, whatever the type. The low bytes come first, so a narrower type reads the low part.
  krx_element* Number(std::int32_t index, std::int32_t type, std::uint32_t number) {
    return Element(index, type, Keep(number));
  }
  krx_element* Text(std::int32_t index, std::int32_t type, std::string_view text) {
    return Element(index, type, KeepText(text));
  }

  krx_nested_block* Block(const Elements& elements, krx_nested_block* next = nullptr) {
    return Keep(krx_nested_block{CountOf(elements), 0, KeepArray(elements), next});
  }
  krx_element_list* List(const Elements& elements) {
    return Keep(krx_element_list{CountOf(elements), 0, KeepArray(elements)});
  }

  // Texts may be null.
  krx_authorization_data* Authorization(const char* user_id, const std::vector<BlockDepartment>& departments) {
    std::vector<krx_department*> kept;
    kept.reserve(departments.size());
    for (const BlockDepartment& department : departments) kept.push_back(KeepDepartment(department));
    return Keep(krx_authorization_data{TextOrNull(user_id), CountOf(kept), 0, KeepArray(kept)});
  }
  krx_validation_data* Validation(krx_authorization_data* authorization) {
    return Keep(krx_validation_data{host_fill_, authorization});
  }

  // Puts the elements into the header and counts them.
  void SetElements(const Elements& elements) {
    header_->element_count = CountOf(elements);
    header_->elements = KeepArray(elements);
  }

  krx_gendata& Header() { return *header_; }
  const wcs_gendata* Raw() const { return header_; }

  // The element in which the module keeps its data; null if the block has no such element that the module accepts.
  krx_element* ProviderData() {
    for (std::int32_t i = 0; header_->elements != nullptr && i < header_->element_count; ++i) {
      krx_element* const element = header_->elements[i];
      if (element == nullptr || element->index != kKrxProviderData) continue;
      return element->type == kKrxTypePointer ? element : nullptr;
    }
    return nullptr;
  }

  template <typename Container>
  static std::int32_t CountOf(const Container& container) {
    return static_cast<std::int32_t>(container.size());
  }

 private:
  static krx_gendata GoodHeader() {
    krx_gendata header{};
    header.version = 30400;
    header.size = sizeof header;
    std::memcpy(header.tag, "KRX", sizeof header.tag);
    return header;
  }

  const char* TextOrNull(const char* text) { return text != nullptr ? KeepText(text) : nullptr; }

  krx_department* KeepDepartment(const BlockDepartment& department) {
    std::vector<const char*> names;
    names.reserve(department.privileges.size());
    for (const char* const privilege : department.privileges) names.push_back(TextOrNull(privilege));
    return Keep(krx_department{TextOrNull(department.name), CountOf(names), 0, KeepArray(names)});
  }

  std::vector<std::unique_ptr<char[]>> pieces_;
  std::uint64_t host_fill_;
  krx_gendata* header_;
};

}  // namespace qx::provider
