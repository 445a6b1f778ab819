#include "provider/KrxAdapterModule.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#include "debug/Debug.h"
#include "markup/Markup.h"
#include "provider/KrxRequestParams.h"
#include "provider/Low32.h"

using qx::provider::CurrentThreadLow32;
using qx::provider::Low32;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // supported by both compilers for a class without virtual bases

namespace qx::provider {

// Checks the order that "Order is interface" in the class promises.
struct KrxAdapterModuleLayout {
  static_assert(offsetof(CKrxAdapterModule, module_name_) == 8);  // after the pointer to the virtual slots
  static_assert(offsetof(CKrxAdapterModule, file_version_) == 40);
  static_assert(offsetof(CKrxAdapterModule, company_) == 72);
  static_assert(offsetof(CKrxAdapterModule, build_date_) == 104);
  static_assert(offsetof(CKrxAdapterModule, milestone_) == 136);
  static_assert(offsetof(CKrxAdapterModule, stop_requested_) == 168);
  static_assert(sizeof(std::atomic<bool>) == sizeof(bool));
  static_assert(sizeof(CKrxAdapterModule) == 176);
};

}  // namespace qx::provider

#pragma GCC diagnostic pop

namespace {

constexpr int kFrameVersion = 30400;  // 3.4.0 in the encoding of the block's version
constexpr unsigned kMalformedRequest = 13;
constexpr const char* kNotAvailable = "N/A";
constexpr const char* kNoVersion = "0.00.00";

// 30400 => 3, 4, 0
struct DecodedVersion {
  explicit DecodedVersion(std::uint32_t encoded)
      : major_part(static_cast<int>(encoded) / 10000),
        minor_part(static_cast<int>(encoded) / 100 % 100),
        patch_part(static_cast<int>(encoded) % 100) {}
  int major_part;
  int minor_part;
  int patch_part;
};

void AssignIfGiven(std::string& to, const char* text) {
  if (text != nullptr) to = text;
}

// Makes `name` the root element of an empty document. Quirk: a module without a name is called "N/A", which cannot be
// the name of an element; the parser reads it as the name N and ignores the rest.
void AddRootElement(CMarkup& out, const std::string& name) {
  if (out.AddElem(name.c_str())) return;
  (void)out.SetDoc("<" + name + "/>\n");  // a name that even the parser refuses leaves no well-formed document
  (void)out.FindElem();
}

void TraceHeaderStructure(const KrxRequestParams& params) {
  const DecodedVersion version(params.GetVersion());
  QX_TRACE(4, "\nWCSP CheckParams    : Expected krx_gendata header structure:");
  QX_TRACE(4, "\n                    :   tag:              %s", "KRX");
  QX_TRACE(4, "\n                    :   current version:  %d.%d.%d", 3, 4, 0);
  QX_TRACE(4, "\n                    :   expected version: %d.%d.%d", 1, 7, 1);
  QX_TRACE(4, "\nWCSP CheckParams    : Got a valid krx_gendata structure:");
  QX_TRACE(4, "\n                    :   tag:           %s", params.GetSignature());
  QX_TRACE(4, "\n                    :   version:       %d.%d.%d", version.major_part, version.minor_part,
           version.patch_part);
  QX_TRACE(4, "\n                    :   size:          %d bytes", params.GetSize());
  QX_TRACE(4, "\n                    :   element count: %d", params.GetElementCount());
}

char* TracedReply(char* reply) {
  QX_TRACE(6, "\nWCSP_MAIN           : ReplyString - duplicated pString = 0x%08X", Low32(reply));
  if (reply == nullptr) {
    QX_TRACE(1, "\nWCSP_MAIN           : ## FATAL ERROR in ReplyString(): strdup() failed when returning reply data");
  }
  return reply;
}

}  // namespace

CKrxAdapterModule::~CKrxAdapterModule() = default;

bool CKrxAdapterModule::OnLoad() { return true; }

void CKrxAdapterModule::OnUnload() {}

void CKrxAdapterModule::OnServiceStop() {}

bool CKrxAdapterModule::Init(void* /*path*/) {
  QX_TRACE(1, "\n");
  QX_TRACE(3, "\n----------------------------------------------------------------------------------------------------");
  QX_TRACE(1, "\n*** KRX Provider library loaded ***\n");
  TakeVersionTexts();
  TraceVersionTexts();
  return true;
}

void CKrxAdapterModule::TakeVersionTexts() {
  module_name_ = company_ = build_date_ = kNotAvailable;
  file_version_.clear();
  milestone_.clear();
  AssignIfGiven(module_name_, DreQXObjectName);
  AssignIfGiven(file_version_, DreQXObjectVersion);
  AssignIfGiven(company_, DreQXObjectVendor);
  if (file_version_.empty()) file_version_ = kNoVersion;
  AssignIfGiven(build_date_, DreQXObjectDate);
  AssignIfGiven(milestone_, DreQXObjectMilestone);
}

void CKrxAdapterModule::TraceVersionTexts() const {
  QX_TRACE(4, "\n");
  QX_TRACE(3, "\nKRX Provider        : DLL name:        %s", module_name_.c_str());
  QX_TRACE(3, "\nKRX Provider        : File Version:    %s", file_version_.c_str());
  QX_TRACE(3, "\nKRX Provider        : Company:         %s", company_.c_str());
  if (!milestone_.empty()) QX_TRACE(3, "\nKRX Provider        : Milestone:       %s", milestone_.c_str());
  QX_TRACE(3, "\nKRX Provider        : Build:           %s", build_date_.c_str());
}

int CKrxAdapterModule::What(KrxRequestParams& params, CMarkup& /*in*/, CMarkup& out) {
  AddRootElement(out, module_name_);
  const CMarkup::AttributeText texts[] = {{"version", file_version_.c_str()},
                                          {"date", build_date_.c_str()},
                                          {"company", company_.c_str()},
                                          {"milestone", milestone_.c_str()}};
  (void)out.SetAttribs(std::span(texts).first(milestone_.empty() ? 3 : 4));

  QX_TRACE(2, "\nWCSP_MAIN What      : KRX function call: %s", params.GetFunctionId().c_str());
  QX_TRACE(2, "\nWCSP_MAIN What      :   from: %s@%s", params.GetApplicationId().c_str(),
           params.GetRequestorAddress().c_str());
  QX_TRACE(2, "\nWCSP_MAIN What      : -> output data: %s", out.GetDoc().c_str());
  return 0;
}

int CKrxAdapterModule::Reflect(KrxRequestParams& params, CMarkup& in, CMarkup& out) {
  QX_TRACE(2, "\nWCSP_MAIN Reflect   : KRX function call: %s", params.GetFunctionId().c_str());
  QX_TRACE(2, "\nWCSP_MAIN Reflect   :   from: %s@%s", params.GetApplicationId().c_str(),
           params.GetRequestorAddress().c_str());
  if (!in.IsWellFormed()) {
    QX_TRACE(3, "\nWCSP_MAIN Reflect   : -> no valid XML input data - ignored");
    return 0;
  }
  out = in;
  QX_TRACE(2, "\nWCSP_MAIN Reflect   : -> input data:  %s", in.GetDoc().c_str());
  QX_TRACE(2, "\nWCSP_MAIN Reflect   : -> output data: %s", out.GetDoc().c_str());
  return 0;
}

void CKrxAdapterModule::__threadbegin() {
  QX_TRACE(4, "\nWCSP ThreadBegin    : start of thread with id=%d", static_cast<int>(CurrentThreadLow32()));
}

void CKrxAdapterModule::__threadend(void* /*userData*/) {
  QX_TRACE(4, "\nWCSP ThreadEnd      : end of thread with id=%d", static_cast<int>(CurrentThreadLow32()));
}

int CKrxAdapterModule::__handle_version() {
  QX_TRACE(4, "\nWCSP HandleVersion  : current adapter library version = V3.04.00 (0x%04X)",
           static_cast<unsigned>(kFrameVersion));
  return kFrameVersion;
}

void CKrxAdapterModule::__stoprequest() {
  QX_TRACE(1, "\n\nWCSP StopRequest    : ## Service shutdown initiated\n");
  stop_requested_ = true;
  OnServiceStop();
}

bool CKrxAdapterModule::CheckRequestParams(KrxRequestParams& params, std::string& errorText, unsigned& errorCode) {
  const auto refuse = [&](std::string text) {
    errorText = std::move(text);
    errorCode = kMalformedRequest;
    return false;
  };

  QX_TRACE(4, "\nWCSP CheckParams    : Check KRX request parameters...");
  const void* provider_data = params.GetProviderSpecificData();
  if (!params.CheckSignature("KRX")) {
    return refuse(std::string("RequestParams structure do not contain a valid krx_gendata structure: ") +
                  params.GetSignature());
  }
  if (provider_data == nullptr) TraceHeaderStructure(params);
  if (params.GetElementCount() == 0) return refuse("krx_gendata structure does not have elements");

  const std::uint32_t thread_id = params.GetThreadId();
  QX_TRACE(5, "\nWCSP CheckParams    :   KRX thread ID = %d, current thread ID = %d", static_cast<int>(thread_id),
           static_cast<int>(CurrentThreadLow32()));
  if (thread_id == 0) return refuse("krx_gendata thread id is 0");

  QX_TRACE(4, "\nWCSP CheckParams    : All checks OK");
  return true;
}

void CKrxAdapterModule::SetRequestError(CMarkup& out, const char* message, unsigned code) {
  (void)out.SetDoc("");  // the result is false: an empty document is never well formed
  (void)out.AddElem("Error");
  (void)out.SetAttrib("Msg", message != nullptr ? message : "");
  if (code != 0) (void)out.SetAttrib("LastError", std::to_string(code).c_str());
}

char* CKrxAdapterModule::ReplyString(const char* text) { return text != nullptr ? TracedReply(strdup(text)) : nullptr; }

char* CKrxAdapterModule::ReplyString(const std::string& text) {
  auto* const reply = static_cast<char*>(std::malloc(text.size() + 1));
  if (reply != nullptr) std::memcpy(reply, text.c_str(), text.size() + 1);
  return TracedReply(reply);
}

void* CKrxAdapterModule::AllocReplyString(std::size_t size) {
  void* space = std::malloc(size);
  QX_TRACE(6, "\nWCSP_MAIN           : AllocReplyString - allocate pString = 0x%08X", Low32(space));
  return space;
}

void CKrxAdapterModule::FreeReplyString(void* p) {
  QX_TRACE(6, "\nWCSP_MAIN           : FreeReplyString - free address 0x%08X", Low32(p));
  std::free(p);  // null is allowed
}

void CKrxAdapterModule::__free(void* p) {
  QX_TRACE(6, "\nWCSP_MAIN Free      : Delete memory at 0x%08X", Low32(p));
  FreeReplyString(p);
}
