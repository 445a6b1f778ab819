#include "tools/qxctl/trial/CallFile.h"

#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/qxctl/module/CallFields.h"

namespace qx::ctl {

namespace {

constexpr char kFormat[] = "qxctl-call-1";
constexpr int kJsonDepthMax = 32;
constexpr std::array<std::string_view, 4> kFunctions = {"What", "Reflect", "GetReports", "GetReportInstanceNames"};

bool IsFunction(const std::string& name) {
  for (const std::string_view function : kFunctions) {
    if (function == name) return true;
  }
  return false;
}

// Parses JSON with a limit of its depth: a document of brackets alone must not grow into a tree that fills the memory.
CallJson ParseBounded(const std::string& text) {
  bool is_too_deep = false;
  const auto keep = [&](int depth, CallJson::parse_event_t, CallJson&) {
    if (depth > kJsonDepthMax) is_too_deep = true;
    return depth <= kJsonDepthMax;
  };
  CallJson document = CallJson::parse(text, keep, false);
  return is_too_deep ? CallJson(CallJson::value_t::discarded) : document;
}

}  // namespace

std::string CallFileText(const RecordedCall& call) {
  CallJson document = {{"format", kFormat}, {"function", call.function}, {"block", call.block}};
  SetBytes(document, "input", call.input);
  document["result"] = call.result;
  document["stateWord"] = nullptr;
  if (call.state_word.has_value()) document["stateWord"] = *call.state_word;
  document["reply"] = nullptr;
  if (call.reply.has_value()) SetBytes(document, "reply", *call.reply);
  constexpr int kIndent = 2;
  return document.dump(kIndent, ' ', false, CallJson::error_handler_t::replace) + "\n";
}

bool ParseCallFile(const std::string& text, RecordedCall& call, std::string& problem) {
  if (text.size() > kCallFileMax) return Fails(problem, "it has more than 16 MiB");
  const CallJson document = ParseBounded(text);
  if (!document.is_object()) return Fails(problem, "it is not a JSON object, or has more than 32 levels");
  const FieldReader fields(document, problem);
  std::string format;
  if (!fields.Text("format", format)) return false;
  if (format != kFormat) return Fails(problem, "its format is not " + std::string(kFormat));
  if (!fields.Only(
          {"format", "function", "block", "input", "inputBase64", "result", "stateWord", "reply", "replyBase64"})) {
    return false;
  }
  std::optional<std::string> input;
  if (!fields.Text("function", call.function) || !fields.Bytes("input", input) || !fields.Bytes("reply", call.reply) ||
      !fields.Integer("result", call.result) || !fields.OptionalNumber("stateWord", call.state_word)) {
    return false;
  }
  if (!IsFunction(call.function)) return Fails(problem, "its function is not one of the four request functions");
  if (!input.has_value() || input->find('\0') != std::string::npos) {
    return Fails(problem, "its input is missing, or has a NUL in it");
  }
  call.input = *input;
  call.block = document.value("block", CallJson());
  RawBlock probe;
  return BlockFromJson(call.block, probe, problem);
}

}  // namespace qx::ctl
