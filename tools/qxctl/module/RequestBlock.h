// Builds the raw parameter block of a call as the service does.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "provider/KrxGenData.h"
#include "provider/tools/BlockBuilder.h"

namespace qx::ctl {

struct Privilege {
  std::string department;
  std::string name;
};

// The contents of a block. The defaults make a block that the module accepts from a caller without a user name.
struct BlockValues {
  std::string tag = "KRX";  // at most 4 bytes; with 4 there is no NUL
  std::uint32_t version = 30400;
  std::uint32_t thread_id = 1;
  std::string application_id = "qxctl";
  std::optional<std::string> function_id;  // unset: the name of the called function
  std::string requestor_address = "localhost";
  std::optional<std::string> user;    // with a user or a privilege the block carries security validation data
  std::vector<Privilege> privileges;  // grouped by department, in the order of first mention
  std::set<int> omitted;              // indices of elements that are left out of every block
};

// The block and everything that it points to.
//
//   1 provider data   2 thread id   3 function id   5 application id
//   14 connection { 15 requestor address }
//   61 security interceptor { 65 validation data }     only with a user or a privilege
//
// Threads: belongs to one worker thread; the module writes the value of element 1 during calls.
// Owns: all memory, at fixed addresses until destruction.
class RequestBlock {
 public:
  explicit RequestBlock(BlockValues values);
  RequestBlock(const RequestBlock&) = delete;
  RequestBlock& operator=(const RequestBlock&) = delete;

  const wcs_gendata* Raw() const { return header_; }

  // Sets the function of the next call, unless the values name one for all calls.
  void SetFunctionId(std::string_view name);

  // The pointer that the module keeps in element 1; null if the element is omitted.
  void* ProviderData() const;

 private:
  krx_element* Add(provider::BlockElements& to, krx_index index, krx_type type, const void* value);
  void AddConnection();
  void AddSecurity();
  std::vector<provider::BlockDepartment> Departments() const;
  void FillHeader();

  BlockValues values_;
  std::string function_id_;
  provider::BlockBuilder block_;
  std::size_t element_count_ = 0;  // at all levels
  krx_element* provider_data_ = nullptr;
  krx_element* function_element_ = nullptr;
  const wcs_gendata* header_ = nullptr;
};

}  // namespace qx::ctl
