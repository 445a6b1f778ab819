// Passes request parameter blocks of every shape that a host's mistake could give them through all accessors.
//
// The input is a script that a builder reads byte by byte: each element's index, type and value, null entries, counts
// that are too small or negative, null arrays, chains that loop. The builder never makes what no reader could survive:
// a pointer to nowhere, or a count beyond its array. Each structure is in a separate heap block, so that a read outside
// of it is noticed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/support/Require.h"
#include "provider/KrxRequestParams.h"
#include "provider/tools/RawBlock.h"

namespace {

using qx::fuzz::Wrong;
using qx::provider::RawBlock;

class Script {
 public:
  Script(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  // Returns the next byte; 0 after the end, which ends every list.
  std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : std::uint8_t{0}; }
  std::uint8_t Below(unsigned limit) { return static_cast<std::uint8_t>(Byte() % limit); }
  bool IsOver() const { return at_ >= size_; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// Builds blocks out of a script.
class Builder {
 public:
  explicit Builder(Script& script) : script_(script) {}

  const wcs_gendata* Header() {
    krx_gendata& header = block_.Header();
    header.version = script_.Byte() * 16777259U;
    header.size = static_cast<std::int8_t>(script_.Byte());
    for (char& c : header.tag) c = "KRX\0?"[script_.Below(5)];
    FillArray(header.element_count, header.elements, 0);
    return block_.Raw();
  }

 private:
  static constexpr int kDepthMax = 4;
  static constexpr int kElementsMax = 24;

  // Returns a count that is valid for an array of `length`: the length, half of it, 0 or negative.
  std::int32_t CountFor(std::size_t length) {
    const std::uint8_t choice = script_.Byte();
    if (choice < 200) return static_cast<std::int32_t>(length);
    if (choice < 230) return static_cast<std::int32_t>(length / 2);
    if (choice < 240) return 0;
    return choice < 248 ? -1 : INT32_MIN;
  }

  void FillArray(std::int32_t& count, krx_element**& array, int depth) {
    RawBlock::Elements entries;
    const int length = script_.Below(kElementsMax);
    for (int i = 0; i < length && !script_.IsOver(); ++i) entries.push_back(Element(depth));
    count = CountFor(entries.size());
    array = block_.KeepArray(entries);
    if (script_.Below(16) == 15) array = nullptr;
  }

  krx_element* Element(int depth) {
    static constexpr std::int32_t kIndices[] = {0,  1,  2,  3,  5,  6,  7,  9,  10, 11, 14, 15,
                                                16, 19, 25, 26, 29, 30, 31, 61, 65, 78, 79, 80};
    if (script_.Below(16) == 15) return nullptr;
    const std::int32_t index = kIndices[script_.Below(std::size(kIndices))];
    const std::int32_t type = Type(index);
    return block_.Element(index, type, script_.Below(8) == 7 ? nullptr : Value(index, type, depth));
  }

  // Returns an element type. At some indices the value is a structure whatever the type says. Such an element never
  // gets the type of a string, because a structure has no terminating NUL.
  std::int32_t Type(std::int32_t index) {
    static constexpr std::int32_t kTypes[] = {kKrxTypePointer, kKrxTypeUint8,  kKrxTypeUint16, kKrxTypeUint32,
                                              kKrxTypeNested,  kKrxTypeString, kKrxTypeString, 0};
    const std::int32_t type = kTypes[script_.Below(std::size(kTypes))];
    const bool is_structure = index == 14 || index == 19 || index == 61 || index == 65;
    return is_structure && type == kKrxTypeString ? std::int32_t{kKrxTypeNested} : type;
  }

  void* Value(std::int32_t index, std::int32_t type, int depth) {
    if (depth >= kDepthMax) return nullptr;
    if (IsCredential(index)) return Text();
    if (index == 65) return ValidationData();
    if (index == 14 || index == 19 || index == 61 || type == kKrxTypeNested) return Chain(depth + 1);
    if (type == kKrxTypeUint8 && index != 16) return block_.Keep(script_.Byte());
    return Text();  // at least four bytes, so it can also be read as a number of any width
  }

  static bool IsCredential(std::int32_t index) { return index >= 25 && index <= 31; }

  char* Text() {
    std::string text;
    for (int length = script_.Below(8); length > 0; --length) text += static_cast<char>(script_.Byte());
    text.append(4, '\0');
    return static_cast<char*>(block_.KeepBytes(text.data(), text.size()));
  }

  // Makes up to five nested blocks; the last one may lead back to any of them.
  krx_nested_block* Chain(int depth) {
    std::vector<krx_nested_block*> blocks;
    const int length = 1 + script_.Below(5);
    for (int i = 0; i < length; ++i) {
      blocks.push_back(block_.Block({}));
      FillArray(blocks.back()->element_count, blocks.back()->elements, depth);
      if (i > 0) blocks[static_cast<std::size_t>(i) - 1]->next_block = blocks.back();
    }
    if (script_.Below(4) == 3) blocks.back()->next_block = blocks[script_.Below(static_cast<unsigned>(length))];
    return blocks.front();
  }

  krx_validation_data* ValidationData() {
    krx_authorization_data authorization{};
    authorization.user_id = script_.Below(4) == 3 ? nullptr : Text();
    std::vector<krx_department*> departments;
    for (int length = script_.Below(4); length > 0; --length) departments.push_back(Department());
    authorization.department_count = CountFor(departments.size());
    authorization.departments = block_.KeepArray(departments);
    if (script_.Below(16) == 15) authorization.departments = nullptr;
    return block_.Validation(script_.Below(8) == 7 ? nullptr : block_.Keep(authorization));
  }

  krx_department* Department() {
    if (script_.Below(8) == 7) return nullptr;
    krx_department department{};
    department.name = script_.Below(4) == 3 ? nullptr : Text();
    std::vector<const char*> names;
    for (int length = script_.Below(5); length > 0; --length) {
      names.push_back(script_.Below(8) == 7 ? nullptr : script_.Below(2) == 1 ? "AccessPerformanceMgr" : Text());
    }
    department.privilege_count = CountFor(names.size());
    department.privileges = block_.KeepArray(names);
    if (script_.Below(16) == 15) department.privileges = nullptr;
    return block_.Keep(department);
  }

  Script& script_;
  RawBlock block_;
};

void CheckHeader(const KrxRequestParams& params, const wcs_gendata& block) {
  if (params.GetVersion() != block.version || params.GetSize() != block.size) Wrong("header field");
  const std::string signature = params.GetSignature();
  if (!params.CheckSignature(signature.c_str())) Wrong("signature does not match itself");
  if (block.tag[3] != '\0' ? signature != "???" : signature != block.tag) Wrong("signature");
}

void CheckGenericAccess(const KrxRequestParams& params) {
  for (int index = -1; index < 90; ++index) {
    const bool is_text = !params.GetParamString(index).empty();
    const bool is_number = params.GetParamValue(index) != 0;
    const bool is_pointer = params.GetParamPtr(index) != nullptr;
    if (is_text + is_number + is_pointer > 1) Wrong("one element, two types");
    if (params.GetParamBool(index) != is_number) Wrong("bool and number disagree");
    if (index == 0 && (is_text || is_number || is_pointer)) Wrong("index 0 was found");
  }
  std::string address = "before";
  if (params.GetRequestorAddress(address)) Wrong("the address call returned true");
  if (address != "before" && address != params.GetRequestorAddress()) Wrong("two addresses");
}

// A pointer only replaces a pointer.
void CheckPointerSlot(const KrxRequestParams& params) {
  int datum = 0;
  void* const before = params.GetProviderSpecificData();
  params.SetProviderSpecificData(&datum);
  void* const after = params.GetProviderSpecificData();
  if (after != &datum && after != nullptr) Wrong("a stored pointer came back as another");
  if (after == nullptr && before != nullptr) Wrong("a pointer element was not written");
  params.SetProviderSpecificData(before);
}

void CheckSecurity(KrxRequestParams& params) {
  const bool found = params.FindSecurityValidationData();
  std::vector<const char*> names;
  const bool has_names = params.GetAvailablePrivileges(names);
  if (has_names != !names.empty() || (has_names && !found)) Wrong("privileges without data");
  const auto before = [](const char* a, const char* b) { return std::strcmp(a, b) < 0; };
  if (!std::is_sorted(names.begin(), names.end(), before)) Wrong("privileges out of order");
  for (const char* name : names) {
    if (!params.HasSecurityPrivilege(name)) Wrong("a listed privilege is not held");
  }
  if (params.FindSecurityValidationData() != found) Wrong("the second search differs");
  std::vector<const char*> again;
  (void)params.GetAvailablePrivileges(again);
  if (again.size() != names.size()) Wrong("the set grew");
}

void CheckCredentials(const KrxRequestParams& params) {
  std::string user_id;
  std::string password;
  std::string domain;
  const bool found = params.GetUserCredentials(user_id, password, domain);
  if (found != !user_id.empty()) Wrong("credentials without a user id");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  Builder builder(script);
  const wcs_gendata* block = builder.Header();
  KrxRequestParams params(block);
  CheckHeader(params, *block);
  CheckGenericAccess(params);
  CheckPointerSlot(params);
  CheckSecurity(params);
  CheckCredentials(params);
  return 0;
}
