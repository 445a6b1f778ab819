// Builds request parameter blocks as a host would, for tests.
//
//   qx::test::BlockBuilder block;                              // a valid empty block, tag "KRX", version 3.4.0
//   block.Pointer(1, nullptr).Number(2, 77).Text(3, "What");   // elements in the order of the calls
//   block.Nested(14).Text(15, "192.0.2.1");                    // a nested block below element 14
//   block.Security("admin", {{"Operations", {"AccessPerformanceMgr"}}});
//   GetReports(block.Block(), input, &reply);
//
// Every value, element and array is a heap block of its exact size, so that the address sanitizer sees a read of one
// byte too many. Everything lives as long as the builder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "provider/KrxGenData.h"

namespace qx::test {

// What belongs to one block: memory in exact sizes, freed with the last builder that uses it.
class BlockMemory {
 public:
  void* Copy(const void* bytes, std::size_t size) {
    pieces_.push_back(std::make_unique<char[]>(size));
    if (size > 0) std::memcpy(pieces_.back().get(), bytes, size);
    return pieces_.back().get();
  }
  template <typename T>
  T* CopyOf(const T& value) {
    return static_cast<T*>(Copy(&value, sizeof value));
  }
  char* CopyText(std::string_view text) {
    pieces_.push_back(std::make_unique<char[]>(text.size() + 1));  // zeroed: the NUL is there
    std::memcpy(pieces_.back().get(), text.data(), text.size());
    return pieces_.back().get();
  }

 private:
  std::vector<std::unique_ptr<char[]>> pieces_;
};

// A department of the security data: its name (may be null) and its privileges (entries may be null).
struct BlockDepartment {
  const char* name;
  std::vector<const char*> privileges;
};

class NestedBuilder;

// The elements of a block or of a nested block. Each call appends one entry to the array.
class BlockElements {
 public:
  explicit BlockElements(std::shared_ptr<BlockMemory> memory) : memory_(std::move(memory)) {}
  BlockElements(const BlockElements&) = delete;
  BlockElements& operator=(const BlockElements&) = delete;

  // An element without a copy: `value` itself is stored.
  BlockElements& Raw(std::int32_t index, std::int32_t type, const void* value) {
    krx_element element{};
    element.host_field_0 = 0xA0A1A2A3A4A5A6A7U;  // the host's own fields hold anything
    element.host_field_12 = element.host_field_16 = element.host_field_20 = 0xB0B1B2B3U;
    element.index = index;
    element.type = type;
    element.value = const_cast<void*>(value);
    entries_.push_back(memory_->CopyOf(element));
    return *this;
  }
  BlockElements& Pointer(std::int32_t index, const void* datum) { return Raw(index, kKrxTypePointer, datum); }
  BlockElements& Byte(std::int32_t index, std::uint8_t number) {
    return Raw(index, kKrxTypeUint8, memory_->CopyOf(number));
  }
  BlockElements& Word(std::int32_t index, std::uint16_t number) {
    return Raw(index, kKrxTypeUint16, memory_->CopyOf(number));
  }
  BlockElements& Number(std::int32_t index, std::uint32_t number) {
    return Raw(index, kKrxTypeUint32, memory_->CopyOf(number));
  }
  BlockElements& Text(std::int32_t index, std::string_view text) {
    return Raw(index, kKrxTypeString, memory_->CopyText(text));
  }
  // An array entry that points nowhere.
  BlockElements& NullEntry() {
    entries_.push_back(nullptr);
    return *this;
  }
  // An element of type 512 with a new nested block, which is returned to be filled. The same bytes serve where an
  // element list without a chain is expected.
  NestedBuilder& Nested(std::int32_t index, std::int32_t type = kKrxTypeNested);

  // Element 61 with the caller's validation data. A null `user_id` stays null.
  BlockElements& Security(const char* user_id, const std::vector<BlockDepartment>& departments);
  // Element 61 with the given pointer as validation data.
  BlockElements& ValidationData(const void* validation_data);

  std::size_t Count() const { return entries_.size(); }
  krx_element* Entry(std::size_t i) const { return entries_[i]; }

 protected:
  // The array in a piece of its exact size, made again when entries were added since.
  krx_element** Array() {
    if (array_ == nullptr || array_count_ != entries_.size()) {
      array_ = static_cast<krx_element**>(memory_->Copy(entries_.data(), entries_.size() * sizeof(krx_element*)));
      array_count_ = entries_.size();
    }
    return array_;
  }
  // Brings count and array of every nested block up to date.
  void FinishNested();

  std::shared_ptr<BlockMemory> memory_;

 private:
  std::vector<krx_element*> entries_;
  krx_element** array_ = nullptr;
  std::size_t array_count_ = 0;
  std::vector<std::unique_ptr<NestedBuilder>> nested_;
};

// A nested block or an element list.
class NestedBuilder : public BlockElements {
 public:
  explicit NestedBuilder(std::shared_ptr<BlockMemory> memory)
      : BlockElements(std::move(memory)), block_(memory_->CopyOf(krx_nested_block{})) {}

  // The nested block. BlockBuilder::Block brings its count and array up to date.
  krx_nested_block* Block() { return block_; }
  // Another block after this one in the chain.
  NestedBuilder& Next() {
    next_ = std::make_unique<NestedBuilder>(memory_);
    block_->next_block = next_->block_;
    return *next_;
  }

 private:
  friend class BlockElements;
  void Finish() {
    FinishNested();
    block_->element_count = static_cast<std::int32_t>(Count());
    block_->elements = Array();
    if (next_ != nullptr) next_->Finish();
  }

  krx_nested_block* block_;
  std::unique_ptr<NestedBuilder> next_;
};

// A whole block. Change Header() after the last element was added: Block() sets count and array only when elements were
// added since its last call.
class BlockBuilder : public BlockElements {
 public:
  BlockBuilder() : BlockElements(std::make_shared<BlockMemory>()) {
    krx_gendata header{};
    header.version = 30400;
    header.size = 4096;
    std::memcpy(header.tag, "KRX", 4);
    header_ = memory_->CopyOf(header);
  }

  // The usual elements of a call: 1 (null), 2 (thread id 77), 3 (function), 5 ("QxTest") and 14 with 15 ("192.0.2.1").
  static std::unique_ptr<BlockBuilder> Request(std::string_view function) {
    auto block = std::make_unique<BlockBuilder>();
    block->Pointer(kKrxProviderData, nullptr).Number(kKrxThreadId, 77).Text(kKrxFunctionId, function);
    block->Text(kKrxApplicationId, "QxTest");
    block->Nested(kKrxConnection).Text(kKrxRequestorAddress, "192.0.2.1");
    return block;
  }

  krx_gendata& Header() {
    Update();
    return *header_;
  }
  wcs_gendata* Block() {
    Update();
    return header_;
  }

 private:
  void Update() {
    FinishNested();
    if (updated_ && count_ == Count()) return;
    updated_ = true;
    count_ = Count();
    header_->element_count = static_cast<std::int32_t>(count_);
    header_->elements = Array();
  }

  krx_gendata* header_;
  std::size_t count_ = 0;
  bool updated_ = false;
};

inline NestedBuilder& BlockElements::Nested(std::int32_t index, std::int32_t type) {
  nested_.push_back(std::make_unique<NestedBuilder>(memory_));
  Raw(index, type, nested_.back()->Block());
  return *nested_.back();
}

inline void BlockElements::FinishNested() {
  for (const auto& nested : nested_) nested->Finish();
}

inline BlockElements& BlockElements::ValidationData(const void* validation_data) {
  Nested(kKrxSecurityInterceptor).Raw(kKrxValidationData, kKrxTypeNested, validation_data);
  return *this;
}

inline BlockElements& BlockElements::Security(const char* user_id, const std::vector<BlockDepartment>& departments) {
  std::vector<krx_department*> pointers;
  for (const BlockDepartment& from : departments) {
    std::vector<const char*> names;
    for (const char* name : from.privileges) names.push_back(name != nullptr ? memory_->CopyText(name) : nullptr);
    krx_department department{};
    department.name = from.name != nullptr ? memory_->CopyText(from.name) : nullptr;
    department.privilege_count = static_cast<std::int32_t>(names.size());
    department.privileges = static_cast<const char**>(memory_->Copy(names.data(), names.size() * sizeof(char*)));
    pointers.push_back(memory_->CopyOf(department));
  }
  krx_authorization_data authorization{};
  authorization.user_id = user_id != nullptr ? memory_->CopyText(user_id) : nullptr;
  authorization.department_count = static_cast<std::int32_t>(pointers.size());
  authorization.departments =
      static_cast<krx_department**>(memory_->Copy(pointers.data(), pointers.size() * sizeof(krx_department*)));
  krx_validation_data validation{};
  validation.authorization = memory_->CopyOf(authorization);
  return ValidationData(memory_->CopyOf(validation));
}

}  // namespace qx::test
