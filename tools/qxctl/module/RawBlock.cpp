#include "tools/qxctl/module/RawBlock.h"

#include <cstring>

namespace qx::ctl {

namespace {

constexpr std::uint32_t kVersion = 30400;

template <typename Container>
std::int32_t Count(const Container& container) {
  return static_cast<std::int32_t>(container.size());
}

}  // namespace

RawBlock::RawBlock() {
  header_.version = kVersion;
  header_.size = sizeof header_;
  std::memcpy(header_.tag, "KRX", sizeof header_.tag);
}

krx_element* RawBlock::Element(std::int32_t index, std::int32_t type, void* value) {
  krx_element& element = elements_.emplace_back();
  element.index = index;
  element.type = type;
  element.value = value;
  return &element;
}

krx_element* RawBlock::Number(std::int32_t index, std::int32_t type, std::uint32_t number) {
  return Element(index, type, &numbers_.emplace_back(number));  // little-endian: its low bytes come first
}

krx_element* RawBlock::Text(std::int32_t index, std::int32_t type, const std::string& text) {
  return Element(index, type, texts_.emplace_back(text).data());
}

RawBlock::Elements& RawBlock::Keep(Elements elements) { return arrays_.emplace_back(std::move(elements)); }

const char* RawBlock::KeepText(const std::string& text) { return texts_.emplace_back(text).c_str(); }

krx_nested_block* RawBlock::Block(Elements elements, krx_nested_block* next) {
  Elements& array = Keep(std::move(elements));
  return &blocks_.emplace_back(krx_nested_block{Count(array), 0, array.data(), next});
}

krx_element_list* RawBlock::List(Elements elements) {
  Elements& array = Keep(std::move(elements));
  return &lists_.emplace_back(krx_element_list{Count(array), 0, array.data()});
}

krx_department* RawBlock::MakeDepartment(const Department& department) {
  std::vector<const char*>& names = privilege_arrays_.emplace_back();
  for (const std::string& privilege : department.second) names.push_back(KeepText(privilege));
  const char* const name = department.first.has_value() ? KeepText(*department.first) : nullptr;
  return &departments_.emplace_back(krx_department{name, Count(names), 0, names.data()});
}

krx_authorization_data* RawBlock::Authorization(const std::optional<std::string>& user,
                                                const std::vector<Department>& departments) {
  std::vector<krx_department*>& array = department_arrays_.emplace_back();
  for (const Department& department : departments) array.push_back(MakeDepartment(department));
  const char* const user_id = user.has_value() ? KeepText(*user) : nullptr;
  return &authorizations_.emplace_back(krx_authorization_data{user_id, Count(array), 0, array.data()});
}

krx_validation_data* RawBlock::Validation(krx_authorization_data* authorization) {
  return &validations_.emplace_back(krx_validation_data{0, authorization});
}

void RawBlock::SetElements(Elements elements) {
  Elements& array = Keep(std::move(elements));
  header_.element_count = Count(array);
  header_.elements = array.data();
}

krx_element* RawBlock::ProviderData() {
  for (std::int32_t i = 0; header_.elements != nullptr && i < header_.element_count; ++i) {
    krx_element* const element = header_.elements[i];
    if (element == nullptr || element->index != kKrxProviderData) continue;
    return element->type == kKrxTypePointer ? element : nullptr;
  }
  return nullptr;
}

}  // namespace qx::ctl
