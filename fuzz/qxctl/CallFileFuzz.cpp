// Parses any bytes as a recorded call. Parsing must not crash, and an accepted call must make a block that is written
// as the same call.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/support/Require.h"
#include "provider/KrxRequestParams.h"
#include "tools/qxctl/trial/CallFile.h"

namespace {

using qx::fuzz::Require;
using Json = qx::ctl::CallJson;
using qx::ctl::RecordedCall;

// Reads a block like the module: calls every accessor, over memory that the address sanitizer watches.
void ReadLikeAModule(const wcs_gendata* raw) {
  KrxRequestParams params(raw);
  (void)params.CheckSignature("KRX");
  for (const int index : {1, 2, 3, 5, 6, 7, 9, 10, 11, 78, 79, 80}) {
    (void)params.GetParamString(index);
    (void)params.GetParamValue(index);
    (void)params.GetParamPtr(index);
  }
  (void)params.GetRequestorAddress();
  (void)params.IsSecurityDataAvailable();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  RecordedCall call;
  std::string problem;
  if (!qx::ctl::ParseCallFile(std::string(reinterpret_cast<const char*>(data), size), call, problem)) {
    Require(!problem.empty());
    return 0;
  }
  qx::ctl::RawBlock block;
  Require(qx::ctl::BlockFromJson(call.block, block, problem));
  ReadLikeAModule(block.Raw());
  call.block = qx::ctl::BlockToJson(*block.Raw());
  const std::string text = qx::ctl::CallFileText(call);
  RecordedCall again;
  Require(qx::ctl::ParseCallFile(text, again, problem));
  Require(again.block == call.block && again.reply == call.reply && again.input == call.input);
  Require(qx::ctl::CallFileText(again) == text);
  return 0;
}
