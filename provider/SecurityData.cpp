// Reads the security layer's data about the caller: the functions of KrxRequestParams for privileges.
//
//   element 61 --> list, element 65 --> validation data --> authorisation data: user id
//                                                                             + departments --> privilege names
//
// The privileges of all departments end up in one set; which department grants one makes no difference.
#include "debug/Debug.h"
#include "provider/BlockReader.h"
#include "provider/KrxRequestParams.h"
#include "provider/Low32.h"

using qx::provider::ElementArray;
using qx::provider::ElementsOf;
using qx::provider::FindElement;
using qx::provider::Load;
using qx::provider::Low32;
using qx::provider::PointerArray;
using qx::provider::ValueOf;

namespace {

constexpr std::uint32_t kPrivilegeHeld = 1;

const char* TextOrEmpty(const char* text) noexcept { return text != nullptr ? text : ""; }

}  // namespace

bool KrxRequestParams::IsSecurityDataAvailable() { return FindSecurityValidationData(); }

bool KrxRequestParams::FindSecurityValidationData() {
  QX_TRACE(4, "\nKrxReqestParams     : Find security validation data");
  if (validation_data_ == nullptr && !LocateValidationData()) return false;

  QX_TRACE(4, "\nKrxReqestParams     :   -> security validation data found, get authorization data...");
  const krx_authorization_data* authorization = Load(validation_data_).authorization;
  if (authorization != nullptr) {
    ReadAuthorization(authorization);
  } else {
    QX_TRACE(1, "\nKrxReqestParams     : ## ERROR! No authorization data found in security validation data structure!");
  }
  return true;  // data that grants nothing still counts as data: every privilege check then fails
}

// Finds element 65 in the list of element 61, and keeps its value. The types of both elements are not checked.
bool KrxRequestParams::LocateValidationData() {
  const krx_element* interceptor = FindElement(ElementsOf(gen_data_), kKrxSecurityInterceptor);
  if (interceptor == nullptr) return false;
  QX_TRACE(5, "\nKrxReqestParams     :   security interceptor structure found");

  const auto list = ElementsOf(ValueOf<krx_element_list>(interceptor));
  validation_data_ = ValueOf<krx_validation_data>(FindElement(list, kKrxValidationData));
  if (validation_data_ == nullptr) {
    QX_TRACE(4, "\nKrxReqestParams     :   -> security validation data NOT found!");
    return false;
  }
  return true;
}

void KrxRequestParams::ReadAuthorization(const krx_authorization_data* authorization) {
  const krx_authorization_data data = Load(authorization);
  if (data.user_id != nullptr) auth_user_id_ = data.user_id;
  QX_TRACE(4, "\nKrxReqestParams     :     auth user ID=\"%s\", number of departments=%d", auth_user_id_.c_str(),
           data.department_count);

  const PointerArray<krx_department> departments(data.department_count, data.departments);
  bool has_privileges = false;
  for (std::int32_t i = 0; i < departments.Count(); ++i) {
    const krx_department* department = departments.At(i);
    if (department != nullptr && ReadDepartment(i, department)) has_privileges = true;
  }
  if (!has_privileges) {
    // Quirk: the user id is printed with a numeric conversion, so the line shows a number (half of the text's address)
    // in place of the name.
    QX_TRACE(1, "\nKrxReqestParams     : ## ERROR! No privileges found for user \"%d\" (something wrong here)!",
             static_cast<int>(Low32(auth_user_id_.c_str())));
  }
}

// Adds the department's privileges to the set; false if it names no privilege.
bool KrxRequestParams::ReadDepartment(std::int32_t number, const krx_department* department) {
  const krx_department data = Load(department);
  QX_TRACE(5, "\nKrxReqestParams     :     department[%d]: \"%s\", number of privileges=%d", number,
           TextOrEmpty(data.name), data.privilege_count);

  const PointerArray<const char> names(data.privilege_count, data.privileges);
  bool has_privileges = false;
  for (std::int32_t i = 0; i < names.Count(); ++i) {
    const char* name = names.At(i);
    if (name == nullptr) continue;
    QX_TRACE(5, "\nKrxReqestParams     :       privilege: \"%s\"", name);
    privileges_.insert_or_assign(name, kPrivilegeHeld);
    has_privileges = true;
  }
  return has_privileges;
}

bool KrxRequestParams::HasSecurityPrivilege(const std::string& name) const { return privileges_.contains(name); }

bool KrxRequestParams::GetAvailablePrivileges(std::vector<const char*>& out) const {
  // std::string compares bytes as unsigned, so the map's order is the byte order.
  for (const auto& [name, held] : privileges_) out.push_back(name.c_str());
  return !out.empty();
}
