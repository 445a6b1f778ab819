// Security validation data that no service makes. If the data does not grant AccessPerformanceMgr, the module must
// return no record. If the value is not validation data, the module must serve the request without a privilege.
#include <cstdint>
#include <limits>

#include "tools/qxctl/module/ReportDocuments.h"
#include "tools/qxctl/trial/FaultCases.h"

namespace qx::ctl {

namespace {

constexpr char kRefused[] = "result 0, no reply";
constexpr char kServed[] = "result 0, <ReportData>";
constexpr char kPrivilege[] = "AccessPerformanceMgr";
constexpr std::int32_t kCountMax = std::numeric_limits<std::int32_t>::max();

std::string AskReport(FaultHost& host, RawBlock& block, krx_element* security) {
  RawBlock::Elements elements = GoodElements(block);
  elements.push_back(security);
  block.SetElements(elements);
  const std::string request = RequestText({.name = host.Report(), .start_index = 0, .record_count = 1});
  return host.Ask(RequestFunction::kGetReports, block.Raw(), request.c_str());
}

std::string AskWithList(FaultHost& host, RawBlock& block, krx_element_list* list) {
  return AskReport(host, block, block.Element(kKrxSecurityInterceptor, kKrxTypePointer, list));
}

std::string AskWithValidation(FaultHost& host, RawBlock& block, krx_validation_data* validation) {
  return AskWithList(host, block, block.List({block.Element(kKrxValidationData, kKrxTypePointer, validation)}));
}

std::string AskGranted(FaultHost& host, RawBlock& block, krx_authorization_data* granted) {
  return AskWithValidation(host, block, block.Validation(granted));
}

std::string AskWithListCount(FaultHost& host, std::int32_t count) {
  RawBlock block;
  krx_element_list* const list = block.List({});
  list->element_count = count;
  list->elements = nullptr;
  return AskWithList(host, block, list);
}

std::string AskWithDepartmentCount(FaultHost& host, std::int32_t count) {
  RawBlock block;
  krx_authorization_data* const granted = block.Authorization("bob", {});
  granted->department_count = count;
  granted->departments = nullptr;
  return AskGranted(host, block, granted);
}

std::string AskWithPrivilegeCount(FaultHost& host, std::int32_t count) {
  RawBlock block;
  krx_authorization_data* const granted = block.Authorization("bob", {{"Operations", {}}});
  granted->departments[0]->privilege_count = count;
  granted->departments[0]->privileges = nullptr;
  return AskGranted(host, block, granted);
}

std::string AskWithPrivilege(FaultHost& host, const char* privilege) {
  RawBlock block;
  return AskGranted(host, block, block.Authorization("bob", {{"Operations", {privilege}}}));
}

// Null entries around the real one.
std::string AskWithNullEntries(FaultHost& host) {
  RawBlock block;
  krx_authorization_data* const granted = block.Authorization(nullptr, {{nullptr, {nullptr, kPrivilege}}});
  krx_department* departments[] = {nullptr, granted->departments[0], nullptr};
  granted->departments = departments;
  granted->department_count = 3;
  return AskGranted(host, block, granted);
}

void AddInterceptors(std::vector<FaultCase>& cases) {
  cases.insert(cases.end(),
               {{"security", "interceptor-null", "A security structure that is null", kServed,
                 [](FaultHost& host) {
                   RawBlock block;
                   return AskWithList(host, block, nullptr);
                 },
                 true},
                {"security", "interceptor-count-huge", "Counts 2147483647 security elements in a null array", kServed,
                 [](FaultHost& host) { return AskWithListCount(host, kCountMax); }, true},
                {"security", "interceptor-count-negative", "Counts -1 security elements", kServed,
                 [](FaultHost& host) { return AskWithListCount(host, -1); }, true},
                {"security", "interceptor-null-entry", "A null entry among the security elements", kServed,
                 [](FaultHost& host) {
                   RawBlock block;
                   return AskWithList(host, block, block.List({nullptr}));
                 },
                 true},
                {"security", "validation-null", "Validation data that is null", kServed,
                 [](FaultHost& host) {
                   RawBlock block;
                   return AskWithValidation(host, block, nullptr);
                 },
                 true}});
}

void AddGrants(std::vector<FaultCase>& cases) {
  cases.insert(cases.end(), {{"security", "authorization-null", "Validation data that grants nothing", kRefused,
                              [](FaultHost& host) {
                                RawBlock block;
                                return AskGranted(host, block, nullptr);
                              },
                              true},
                             {"security", "departments-negative", "Counts -1 departments", kRefused,
                              [](FaultHost& host) { return AskWithDepartmentCount(host, -1); }, true},
                             {"security", "departments-huge", "Counts 2147483647 departments in a null array", kRefused,
                              [](FaultHost& host) { return AskWithDepartmentCount(host, kCountMax); }, true},
                             {"security", "privileges-negative", "Counts -1 privileges", kRefused,
                              [](FaultHost& host) { return AskWithPrivilegeCount(host, -1); }, true},
                             {"security", "privileges-huge", "Counts 2147483647 privileges in a null array", kRefused,
                              [](FaultHost& host) { return AskWithPrivilegeCount(host, kCountMax); }, true},
                             {"security", "privilege-lower-case", "Grants the privilege in lower case", kRefused,
                              [](FaultHost& host) { return AskWithPrivilege(host, "accessperformancemgr"); }, true},
                             {"security", "privilege-longer", "Grants a longer privilege", kRefused,
                              [](FaultHost& host) { return AskWithPrivilege(host, "AccessPerformanceMgrs"); }, true},
                             {"security", "privilege-empty", "Grants an empty privilege", kRefused,
                              [](FaultHost& host) { return AskWithPrivilege(host, ""); }, true},
                             {"security", "null-entries", "Null departments, privileges and names around the right one",
                              kServed, AskWithNullEntries, true},
                             {"security", "privilege", "Grants the privilege", kServed,
                              [](FaultHost& host) { return AskWithPrivilege(host, kPrivilege); }, true}});
}

}  // namespace

void AddSecurityFaults(std::vector<FaultCase>& cases) {
  AddInterceptors(cases);
  AddGrants(cases);
}

}  // namespace qx::ctl
