// Builds request parameter blocks as a host would.
//
//   qx::provider::BlockBuilder block;                          // a valid empty block, tag "KRX", version 3.4.0
//   block.Pointer(1, nullptr).Number(2, 77).Text(3, "What");   // elements in the order of the calls
//   block.Nested(14).Text(15, "192.0.2.1");                    // a nested block below element 14
//   block.Security("admin", {{"Operations", {"AccessPerformanceMgr"}}});
//   GetReports(block.Block(), input, &reply);
//
// Numbers and texts are copied; the copies live as long as the builder. Pointers are stored as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "provider/KrxGenData.h"
#include "provider/tools/RawBlock.h"

namespace qx::provider {

class NestedBuilder;

// The elements of a block or of a nested block. Each call appends one entry to the array.
class BlockElements {
 public:
  explicit BlockElements(std::shared_ptr<RawBlock> raw) : raw_(std::move(raw)) {}
  BlockElements(const BlockElements&) = delete;
  BlockElements& operator=(const BlockElements&) = delete;

  // Adds an element in which `value` itself is stored, not a copy of what it points to.
  BlockElements& Raw(std::int32_t index, std::int32_t type, const void* value) {
    entries_.push_back(raw_->Element(index, type, value));
    return *this;
  }
  BlockElements& Pointer(std::int32_t index, const void* datum) { return Raw(index, kKrxTypePointer, datum); }
  BlockElements& Byte(std::int32_t index, std::uint8_t number) { return Raw(index, kKrxTypeUint8, raw_->Keep(number)); }
  BlockElements& Word(std::int32_t index, std::uint16_t number) {
    return Raw(index, kKrxTypeUint16, raw_->Keep(number));
  }
  BlockElements& Number(std::int32_t index, std::uint32_t number) {
    return Raw(index, kKrxTypeUint32, raw_->Keep(number));
  }
  BlockElements& Text(std::int32_t index, std::string_view text) {
    return Raw(index, kKrxTypeString, raw_->KeepText(text));
  }
  // Adds a null pointer to the array.
  BlockElements& NullEntry() {
    entries_.push_back(nullptr);
    return *this;
  }
  // Adds an element with a new nested block, which is returned to be filled. The block can also be used where an
  // element list without a chain is expected.
  NestedBuilder& Nested(std::int32_t index, std::int32_t type = kKrxTypeNested);

  // Makes the caller's validation data, without an element that leads to it. A null `user_id` stays null.
  const krx_validation_data* Validation(const char* user_id, const std::vector<BlockDepartment>& departments) {
    return raw_->Validation(raw_->Authorization(user_id, departments));
  }
  // Adds element 61 with the caller's validation data.
  BlockElements& Security(const char* user_id, const std::vector<BlockDepartment>& departments) {
    return ValidationData(Validation(user_id, departments));
  }
  // Adds element 61 with the given pointer as validation data.
  BlockElements& ValidationData(const void* validation_data);

  std::size_t Count() const { return entries_.size(); }
  krx_element* Entry(std::size_t i) const { return entries_[i]; }

 protected:
  // The array, in a heap block of its exact size. It is made again if entries were added since the last call.
  krx_element** Array() {
    if (array_ == nullptr || array_count_ != entries_.size()) {
      array_ = raw_->KeepArray(entries_);
      array_count_ = entries_.size();
    }
    return array_;
  }
  // Updates the count and the array of every nested block.
  void FinishNested();

  std::shared_ptr<RawBlock> raw_;

 private:
  RawBlock::Elements entries_;
  krx_element** array_ = nullptr;
  std::size_t array_count_ = 0;
  std::vector<std::unique_ptr<NestedBuilder>> nested_;
};

// A nested block or an element list.
class NestedBuilder : public BlockElements {
 public:
  explicit NestedBuilder(std::shared_ptr<RawBlock> raw) : BlockElements(std::move(raw)), block_(raw_->Block({})) {}

  // The nested block. BlockBuilder::Block brings its count and array up to date.
  krx_nested_block* Block() { return block_; }
  // Adds another block after this one in the chain.
  NestedBuilder& Next() {
    next_ = std::make_unique<NestedBuilder>(raw_);
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
  explicit BlockBuilder(std::uint64_t host_fill = 0) : BlockElements(std::make_shared<RawBlock>(host_fill)) {}

  krx_gendata& Header() {
    Update();
    return raw_->Header();
  }
  wcs_gendata* Block() { return &Header(); }

 private:
  void Update() {
    FinishNested();
    if (updated_ && count_ == Count()) return;
    updated_ = true;
    count_ = Count();
    raw_->Header().element_count = static_cast<std::int32_t>(count_);
    raw_->Header().elements = Array();
  }

  std::size_t count_ = 0;
  bool updated_ = false;
};

inline NestedBuilder& BlockElements::Nested(std::int32_t index, std::int32_t type) {
  nested_.push_back(std::make_unique<NestedBuilder>(raw_));
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

}  // namespace qx::provider
