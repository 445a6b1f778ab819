#include "tools/qxctl/module/RequestBlock.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qx::ctl {

namespace {

std::int32_t Count(std::size_t size) { return static_cast<std::int32_t>(size); }

}  // namespace

RequestBlock::RequestBlock(BlockValues values)
    : values_(std::move(values)), function_id_(values_.function_id.value_or("")) {
  Add(top_level_, kKrxProviderData, kKrxTypePointer, nullptr);
  Add(top_level_, kKrxThreadId, kKrxTypeUint32, &values_.thread_id);
  Add(top_level_, kKrxFunctionId, kKrxTypeString, function_id_.data());
  Add(top_level_, kKrxApplicationId, kKrxTypeString, values_.application_id.data());
  AddConnection();
  if (values_.user.has_value() || !values_.privileges.empty()) AddSecurity();
  FillHeader();
}

void RequestBlock::SetFunctionId(std::string_view name) {
  if (values_.function_id.has_value()) return;
  function_id_ = name;
  if (function_element_ != nullptr) function_element_->value = function_id_.data();
}

void* RequestBlock::ProviderData() const { return provider_data_ != nullptr ? provider_data_->value : nullptr; }

void RequestBlock::Add(ElementArray& elements, krx_index index, krx_type type, void* value) {
  if (values_.omitted.contains(index)) return;
  krx_element& element = elements_.emplace_back();
  element.index = index;
  element.type = type;
  element.value = value;
  elements.push_back(&element);
  if (index == kKrxProviderData) provider_data_ = &element;
  if (index == kKrxFunctionId) function_element_ = &element;
}

void RequestBlock::AddConnection() {
  Add(in_connection_, kKrxRequestorAddress, kKrxTypeString, values_.requestor_address.data());
  connection_.element_count = Count(in_connection_.size());
  connection_.elements = in_connection_.data();
  Add(top_level_, kKrxConnection, kKrxTypeNested, &connection_);
}

void RequestBlock::AddSecurity() {
  FillDepartments();
  authorization_.user_id = values_.user.has_value() ? values_.user->c_str() : nullptr;
  authorization_.department_count = Count(department_array_.size());
  authorization_.departments = department_array_.data();
  validation_.authorization = &authorization_;
  Add(in_security_, kKrxValidationData, kKrxTypePointer, &validation_);
  security_.element_count = Count(in_security_.size());
  security_.elements = in_security_.data();
  Add(top_level_, kKrxSecurityInterceptor, kKrxTypePointer, &security_);
}

void RequestBlock::FillDepartments() {
  for (const Privilege& privilege : values_.privileges) {
    const auto is_its_department = [&](const krx_department& department) {
      return privilege.department == department.name;
    };
    const auto found = std::find_if(departments_.begin(), departments_.end(), is_its_department);
    const auto at = static_cast<std::size_t>(found - departments_.begin());
    if (found == departments_.end()) {
      departments_.push_back({privilege.department.c_str(), 0, 0, nullptr});
      department_privileges_.emplace_back();
    }
    std::vector<const char*>& names = department_privileges_[at];
    names.push_back(privilege.name.c_str());
    departments_[at].privilege_count = Count(names.size());
    departments_[at].privileges = names.data();
  }
  for (krx_department& department : departments_) department_array_.push_back(&department);
}

void RequestBlock::FillHeader() {
  header_.version = values_.version;
  // NOLINTNEXTLINE(bugprone-sizeof-expression): the block counts its elements and the pointers to them.
  header_.size = Count(sizeof header_ + elements_.size() * (sizeof(krx_element) + sizeof(krx_element*)));
  std::memcpy(header_.tag, values_.tag.data(), std::min(values_.tag.size(), sizeof header_.tag));
  header_.element_count = Count(top_level_.size());
  header_.elements = top_level_.data();
}

}  // namespace qx::ctl
