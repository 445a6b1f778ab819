// Reads the credentials that a client sent: KrxRequestParams::GetUserCredentials.
//
//   element 14 --> nested block --next--> nested block --next--> ...
//                    the first one with element 16 --> word 1: element 19 --> list of credentials 25, 26, 29, 30, 31
#include "debug/Debug.h"
#include "provider/BlockReader.h"
#include "provider/KrxRequestParams.h"

using qx::provider::ElementsOf;
using qx::provider::FindElement;
using qx::provider::Load;
using qx::provider::NestedBlockOf;
using qx::provider::ValueOf;

namespace {

constexpr std::uint16_t kHoldsCredentials = 1;
constexpr const char* kPasswordMask = "******";  // shown by a trace instead of any password

struct Credentials {
  std::string& user_id;
  std::string& password;
  std::string& domain;
};

bool HoldsCredentials(const krx_nested_block* block) noexcept {
  const auto* marker = ValueOf<std::uint16_t>(FindElement(ElementsOf(block), kKrxCredentialMarker));
  return marker != nullptr && Load(marker) == kHoldsCredentials;
}

// The first block of the chain that holds the credentials; null when the chain ends or loops without one.
const krx_nested_block* FindCredentialsBlock(const krx_nested_block* first) noexcept {
  // Brent's search for a loop: `anchor` moves to the present block after 1, 2, 4, ... steps. In a loop, the search
  // reaches `anchor` again, but only after it has visited every block.
  const krx_nested_block* anchor = nullptr;
  std::uint64_t steps_to_next_anchor = 1;
  std::uint64_t steps = 0;
  for (const krx_nested_block* block = first; block != nullptr && block != anchor; block = Load(block).next_block) {
    if (HoldsCredentials(block)) return block;
    if (++steps == steps_to_next_anchor) {
      anchor = block;
      steps_to_next_anchor *= 2;
      steps = 0;
    }
  }
  return nullptr;
}

void TakeCredential(std::int32_t index, const char* value, Credentials& to) {
  switch (index) {
    case kKrxBasicAuthUser:
      to.user_id = value;
      QX_TRACE(4, "\nKrxReqestParams     : User id [HTTP BASIC AUTH] available: \"%s\"", value);
      break;
    case kKrxBasicAuthPassword:
      to.password = value;
      QX_TRACE(4, "\nKrxReqestParams     : Password [HTTP BASIC AUTH] available: \"%s\"", kPasswordMask);
      break;
    case kKrxDomain:
      to.domain = value;
      QX_TRACE(4, "\nKrxReqestParams     : Domain name [KRX] available: \"%s\"", value);
      break;
    case kKrxUser:
      to.user_id = value;
      QX_TRACE(4, "\nKrxReqestParams     : User id [KRX] available: \"%s\"", value);
      break;
    case kKrxPassword:
      to.password = value;
      QX_TRACE(4, "\nKrxReqestParams     : Password [KRX] available: \"%s\"", kPasswordMask);
      break;
    default:
      break;  // not a credential
  }
}

}  // namespace

bool KrxRequestParams::GetUserCredentials(std::string& userId, std::string& password, std::string& domain) const {
  const auto* connection = NestedBlockOf(FindElement(ElementsOf(gen_data_), kKrxConnection));
  const auto* block = FindCredentialsBlock(connection);
  const krx_element* credentials = FindElement(ElementsOf(block), kKrxCredentials);
  if (credentials == nullptr) return false;

  Credentials targets{userId, password, domain};
  const auto items = ElementsOf(ValueOf<krx_element_list>(credentials));
  for (std::int32_t i = 0; i < items.Count(); ++i) {
    const krx_element* item = items.At(i);
    const char* value = ValueOf<char>(item);
    if (value != nullptr) TakeCredential(Load(item).index, value, targets);
  }
  return !userId.empty();
}
