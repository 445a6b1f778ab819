// Typed access to the request parameter block of one call, by parameter index, and to the caller's security data.
//
// The block (provider/KrxGenData.h) belongs to the service and outlives the object. An accessor reports no error: if
// the element is missing, has another type or is null, it returns its empty value. Counts and pointers are checked as
// far as possible: a negative count counts as 0, a null array is empty, a null entry is skipped, and a search ends even
// if the chain of nested blocks is a loop. A count that is larger than the array cannot be noticed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "provider/KrxGenData.h"

namespace qx::provider {
struct KrxRequestParamsLayout;
}

// Wraps one raw block for the duration of one call.
//
// Threads: one thread only, the one that makes the call.
// Owns: its copies of tag, user id and privilege names; never the block.
// Failure: empty values; see the file's head.
class KrxRequestParams {
 public:
  // An object without a block: no accessor may be called. [any thread]
  KrxRequestParams() = default;
  // `gen_data` must not be null and must outlive the object; its tag is read at once. [any thread]
  explicit KrxRequestParams(const wcs_gendata* gen_data);
  KrxRequestParams(const KrxRequestParams&) = delete;
  KrxRequestParams& operator=(const KrxRequestParams&) = delete;

  // The header's fields, unchecked. [owning thread]
  [[nodiscard]] std::uint32_t GetVersion() const noexcept;
  [[nodiscard]] std::int32_t GetSize() const noexcept;
  [[nodiscard]] std::int32_t GetElementCount() const noexcept;

  // The header's tag at the construction; "???" if its fourth byte is not NUL. The pointer is
  // valid while the object lives. [owning thread]
  [[nodiscard]] const char* GetSignature() const noexcept;
  // Byte-wise comparison of the whole signature. [owning thread]
  [[nodiscard]] bool CheckSignature(const char* expected) const noexcept;

  // Generic access by index. Of several elements with the same index only the first is used; index 0 is never found.
  // [owning thread]

  // Copy of a type 8 element's text; empty otherwise.
  [[nodiscard]] std::string GetParamString(int index) const;
  // The number of a type 4, 5 or 6 element, zero-extended; 0 otherwise.
  [[nodiscard]] std::uint32_t GetParamValue(int index) const noexcept;
  [[nodiscard]] bool GetParamBool(int index) const noexcept;
  // The pointer datum of a type 3 element; null otherwise.
  [[nodiscard]] void* GetParamPtr(int index) const noexcept;
  // Overwrites the pointer datum of a type 3 element in the service's block; dropped silently if there is no such
  // element. GetParamPtr shows whether it was stored.
  void SetParamPtr(int index, void* p) const noexcept;

  // Named access. [owning thread]

  // The module's per-thread state; null when the block has no type 3 element 1. A caller that has just stored p and
  // reads another pointer back still owns p.
  [[nodiscard]] void* GetProviderSpecificData() const noexcept { return GetParamPtr(kKrxProviderData); }
  void SetProviderSpecificData(void* p) const noexcept { SetParamPtr(kKrxProviderData, p); }
  [[nodiscard]] std::uint32_t GetThreadId() const noexcept { return GetParamValue(kKrxThreadId); }
  [[nodiscard]] std::string GetFunctionId() const { return GetParamString(kKrxFunctionId); }
  [[nodiscard]] std::string GetApplicationId() const { return GetParamString(kKrxApplicationId); }
  [[nodiscard]] bool GetZipCompressionEnabled() const noexcept { return GetParamBool(kKrxZipCompression); }
  [[nodiscard]] std::uint32_t GetZipLevel() const noexcept { return GetParamValue(kKrxZipLevel); }
  [[nodiscard]] std::uint32_t GetSSLUsage() const noexcept { return GetParamValue(kKrxSslUsage); }
  [[nodiscard]] bool GetKeepAlive() const noexcept { return GetParamBool(kKrxKeepAlive); }
  [[nodiscard]] std::uint32_t GetRequestTimeout() const noexcept { return GetParamValue(kKrxRequestTimeout); }
  [[nodiscard]] std::string GetRequestPath() const { return GetParamString(kKrxRequestPath); }
  [[nodiscard]] std::string GetRequestMode() const { return GetParamString(kKrxRequestMode); }
  [[nodiscard]] std::string GetRequestMethod() const { return GetParamString(kKrxRequestMethod); }

  // Address of the client. If the block has none, the first form leaves `out` unchanged. It always returns false, so
  // its result means nothing. [owning thread]
  bool GetRequestorAddress(std::string& out) const;
  [[nodiscard]] std::string GetRequestorAddress() const;

  // Looks for the security validation data and fills user id and privileges from it. True when there is such data, even
  // if it grants nothing. May be called again, with the same effect. [owning thread]
  bool FindSecurityValidationData();
  // The same as FindSecurityValidationData. A request without such data needs no privilege. [owning thread]
  [[nodiscard]] bool IsSecurityDataAvailable();
  // Whether the caller has the privilege; names are compared byte for byte. Call FindSecurityValidationData first.
  // [owning thread]
  [[nodiscard]] bool HasSecurityPrivilege(const std::string& name) const;
  // Appends the privilege names in ascending byte order; they are valid while the object lives. True when `out` is not
  // empty afterwards. [owning thread]
  bool GetAvailablePrivileges(std::vector<const char*>& out) const;

  // Reads the login that the client sent. A target is unchanged if the block has no value for it, and becomes empty if
  // the value is empty. Of two values for one target the later one counts. True when `userId` is not empty afterwards
  // and the block has a credential list. The object keeps no copy. [owning thread]
  [[nodiscard]] bool GetUserCredentials(std::string& userId, std::string& password, std::string& domain) const;

 private:
  friend struct qx::provider::KrxRequestParamsLayout;

  bool LocateValidationData();
  void ReadAuthorization(const krx_authorization_data* authorization);
  bool ReadDepartment(std::int32_t number, const krx_department* department);

  // Order is interface: other code of the suite embeds this layout.
  const krx_gendata* gen_data_ = nullptr;
  const krx_validation_data* validation_data_ = nullptr;
  std::map<std::string, std::uint32_t> privileges_;  // name => 1
  std::string auth_user_id_;
  std::string signature_;
};
