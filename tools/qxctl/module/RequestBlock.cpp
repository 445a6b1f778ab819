#include "tools/qxctl/module/RequestBlock.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

namespace qx::ctl {

using provider::BlockDepartment;
using provider::BlockElements;

RequestBlock::RequestBlock(BlockValues values)
    : values_(std::move(values)), function_id_(values_.function_id.value_or("")) {
  provider_data_ = Add(block_, kKrxProviderData, kKrxTypePointer, nullptr);
  Add(block_, kKrxThreadId, kKrxTypeUint32, &values_.thread_id);
  function_element_ = Add(block_, kKrxFunctionId, kKrxTypeString, function_id_.data());
  Add(block_, kKrxApplicationId, kKrxTypeString, values_.application_id.data());
  if (!values_.omitted.contains(kKrxConnection)) AddConnection();
  const bool has_security = values_.user.has_value() || !values_.privileges.empty();
  if (has_security && !values_.omitted.contains(kKrxSecurityInterceptor)) AddSecurity();
  FillHeader();
}

void RequestBlock::SetFunctionId(std::string_view name) {
  if (values_.function_id.has_value()) return;
  function_id_ = name;
  if (function_element_ != nullptr) function_element_->value = function_id_.data();
}

void* RequestBlock::ProviderData() const { return provider_data_ != nullptr ? provider_data_->value : nullptr; }

// Adds an element and returns it; null if it is to be left out.
krx_element* RequestBlock::Add(BlockElements& to, krx_index index, krx_type type, const void* value) {
  if (values_.omitted.contains(index)) return nullptr;
  ++element_count_;
  to.Raw(index, type, value);
  return to.Entry(to.Count() - 1);
}

void RequestBlock::AddConnection() {
  ++element_count_;
  Add(block_.Nested(kKrxConnection), kKrxRequestorAddress, kKrxTypeString, values_.requestor_address.data());
}

void RequestBlock::AddSecurity() {
  ++element_count_;
  const char* const user = values_.user.has_value() ? values_.user->c_str() : nullptr;
  Add(block_.Nested(kKrxSecurityInterceptor, kKrxTypePointer), kKrxValidationData, kKrxTypePointer,
      block_.Validation(user, Departments()));
}

std::vector<BlockDepartment> RequestBlock::Departments() const {
  std::vector<BlockDepartment> departments;
  for (const Privilege& privilege : values_.privileges) {
    const auto is_its_department = [&](const BlockDepartment& department) {
      return privilege.department == department.name;
    };
    auto found = std::find_if(departments.begin(), departments.end(), is_its_department);
    if (found == departments.end()) found = departments.insert(found, {privilege.department.c_str(), {}});
    found->privileges.push_back(privilege.name.c_str());
  }
  return departments;
}

void RequestBlock::FillHeader() {
  krx_gendata& header = block_.Header();
  header.version = values_.version;
  // NOLINTNEXTLINE(bugprone-sizeof-expression): the block counts its elements and the pointers to them.
  constexpr std::size_t kElementBytes = sizeof(krx_element) + sizeof(krx_element*);
  header.size = static_cast<std::int32_t>(sizeof header + element_count_ * kElementBytes);
  std::memset(header.tag, 0, sizeof header.tag);
  std::memcpy(header.tag, values_.tag.data(), std::min(values_.tag.size(), sizeof header.tag));
  header_ = &header;
}

}  // namespace qx::ctl
