// A request block of any shape, also of shapes that no service makes.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "provider/KrxGenData.h"

namespace qx::ctl {

// Owns everything that the block points to, at fixed addresses until destruction. Everything that is made belongs to
// the block, but the module finds it only after it was put into the header or into a part that the header points to.
//
// Threads: one thread.
class RawBlock {
 public:
  using Elements = std::vector<krx_element*>;
  using Department = std::pair<std::optional<std::string>, std::vector<std::string>>;  // name and privileges

  // A valid header without elements: tag "KRX", version 3.4.0.
  RawBlock();
  RawBlock(const RawBlock&) = delete;
  RawBlock& operator=(const RawBlock&) = delete;

  // `value` is stored as it is, the others are copied.
  krx_element* Element(std::int32_t index, std::int32_t type, void* value);
  krx_element* Number(std::int32_t index, std::int32_t type, std::uint32_t number);
  krx_element* Text(std::int32_t index, std::int32_t type, const std::string& text);

  krx_nested_block* Block(Elements elements, krx_nested_block* next = nullptr);
  krx_element_list* List(Elements elements);
  krx_authorization_data* Authorization(const std::optional<std::string>& user,
                                        const std::vector<Department>& departments);
  krx_validation_data* Validation(krx_authorization_data* authorization);

  // Puts the elements into the header and counts them.
  void SetElements(Elements elements);

  krx_gendata& Header() { return header_; }
  const wcs_gendata* Raw() const { return &header_; }

  // The element in which the module keeps its data; null if the block has no such element that the module accepts.
  krx_element* ProviderData();

 private:
  Elements& Keep(Elements elements);
  const char* KeepText(const std::string& text);
  krx_department* MakeDepartment(const Department& department);

  krx_gendata header_{};
  std::deque<krx_element> elements_;
  std::deque<std::uint32_t> numbers_;
  std::deque<std::string> texts_;
  std::deque<Elements> arrays_;
  std::deque<krx_nested_block> blocks_;
  std::deque<krx_element_list> lists_;
  std::deque<krx_validation_data> validations_;
  std::deque<krx_authorization_data> authorizations_;
  std::deque<krx_department> departments_;
  std::deque<std::vector<krx_department*>> department_arrays_;
  std::deque<std::vector<const char*>> privilege_arrays_;
};

}  // namespace qx::ctl
