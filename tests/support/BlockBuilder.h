// Builds the blocks of the tests: the fields of the host are filled, and Request adds the elements that every call
// needs.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "provider/tools/BlockBuilder.h"

namespace qx::test {

using provider::BlockDepartment;
using provider::NestedBuilder;

class BlockBuilder : public provider::BlockBuilder {
 public:
  BlockBuilder() : provider::BlockBuilder(kHostFill) { raw_->Header().size = 4096; }

  // The usual elements of a call: 1 (null), 2 (thread id 77), 3 (function), 5 ("QxTest") and 14 with 15 ("192.0.2.1").
  static std::unique_ptr<BlockBuilder> Request(std::string_view function) {
    auto block = std::make_unique<BlockBuilder>();
    block->Pointer(kKrxProviderData, nullptr).Number(kKrxThreadId, 77).Text(kKrxFunctionId, function);
    block->Text(kKrxApplicationId, "QxTest");
    block->Nested(kKrxConnection).Text(kKrxRequestorAddress, "192.0.2.1");
    return block;
  }

 private:
  static constexpr std::uint64_t kHostFill = 0xA0A1A2A3A4A5A6A7;
};

}  // namespace qx::test
