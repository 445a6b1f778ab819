#include "provider/KrxRequestParams.h"

#include <cstddef>
#include <cstring>

#include "provider/BlockReader.h"

using qx::provider::ElementsOf;
using qx::provider::FindElement;
using qx::provider::IsOfType;
using qx::provider::Load;
using qx::provider::NestedBlockOf;
using qx::provider::ValueOf;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // supported by both compilers for a class without virtual bases

namespace qx::provider {

// Checks the order that "Order is interface" in the class promises.
struct KrxRequestParamsLayout {
  static_assert(offsetof(KrxRequestParams, gen_data_) == 0);
  static_assert(offsetof(KrxRequestParams, validation_data_) == 8);
  static_assert(offsetof(KrxRequestParams, privileges_) == 16);
  static_assert(offsetof(KrxRequestParams, auth_user_id_) == 64);
  static_assert(offsetof(KrxRequestParams, signature_) == 96);
  static_assert(sizeof(KrxRequestParams) == 128);
};

}  // namespace qx::provider

#pragma GCC diagnostic pop

namespace {

// The tag as a text.
//   "KRX\0" => "KRX"      "\0..\0" => ""      "KRXX" => "???": no NUL ends the tag
std::string SignatureOf(const krx_gendata& header) {
  if (header.tag[sizeof header.tag - 1] != '\0') return "???";
  return header.tag;
}

const krx_element* TopElement(const krx_gendata* gen_data, int index) noexcept {
  return FindElement(ElementsOf(gen_data), index);
}

// The value of a number element, zero-extended from the width that its type says.
std::uint32_t NumberOf(const krx_element* element) noexcept {
  const void* value = ValueOf<void>(element);
  if (value == nullptr) return 0;
  switch (Load(element).type) {
    case kKrxTypeUint8:
      return Load(static_cast<const std::uint8_t*>(value));
    case kKrxTypeUint16:
      return Load(static_cast<const std::uint16_t*>(value));
    case kKrxTypeUint32:
      return Load(static_cast<const std::uint32_t*>(value));
    default:
      return 0;
  }
}

// The text of a string element; null when the element is missing, of another type or without a value.
const char* TextOf(const krx_element* element) noexcept {
  return IsOfType(element, kKrxTypeString) ? ValueOf<char>(element) : nullptr;
}

}  // namespace

KrxRequestParams::KrxRequestParams(const wcs_gendata* gen_data)
    : gen_data_(gen_data), signature_(SignatureOf(Load(gen_data))) {}

std::uint32_t KrxRequestParams::GetVersion() const noexcept { return Load(gen_data_).version; }

std::int32_t KrxRequestParams::GetSize() const noexcept { return Load(gen_data_).size; }

std::int32_t KrxRequestParams::GetElementCount() const noexcept { return Load(gen_data_).element_count; }

const char* KrxRequestParams::GetSignature() const noexcept { return signature_.c_str(); }

bool KrxRequestParams::CheckSignature(const char* expected) const noexcept { return signature_ == expected; }

std::string KrxRequestParams::GetParamString(int index) const {
  const char* text = TextOf(TopElement(gen_data_, index));
  return text != nullptr ? std::string(text) : std::string();
}

std::uint32_t KrxRequestParams::GetParamValue(int index) const noexcept {
  return NumberOf(TopElement(gen_data_, index));
}

bool KrxRequestParams::GetParamBool(int index) const noexcept { return GetParamValue(index) != 0; }

void* KrxRequestParams::GetParamPtr(int index) const noexcept {
  const krx_element* element = TopElement(gen_data_, index);
  return IsOfType(element, kKrxTypePointer) ? Load(element).value : nullptr;
}

void KrxRequestParams::SetParamPtr(int index, void* p) const noexcept {
  const krx_element* element = TopElement(gen_data_, index);
  if (!IsOfType(element, kKrxTypePointer)) return;
  // The one slot of the service's block that the module may write.
  char* slot = reinterpret_cast<char*>(const_cast<krx_element*>(element)) + offsetof(krx_element, value);
  std::memcpy(slot, &p, sizeof p);
}

bool KrxRequestParams::GetRequestorAddress(std::string& out) const {
  const krx_nested_block* connection = NestedBlockOf(TopElement(gen_data_, kKrxConnection));
  const char* address = TextOf(FindElement(ElementsOf(connection), kKrxRequestorAddress));
  if (address != nullptr) out = address;
  return false;  // whether there is an address or not: the result carries no information
}

std::string KrxRequestParams::GetRequestorAddress() const {
  std::string address;
  (void)GetRequestorAddress(address);  // always false
  return address;
}
