#include "tools/qxctl/module/InstanceNames.h"

#include "markup/Markup.h"
#include "tools/qxctl/module/ReportDocuments.h"

namespace qx::ctl {

namespace {

constexpr int kResultNotFound = 12;

// The bytes of a name in a reply: the module writes each byte outside the printable characters as the character whose
// number is the byte.
//   U+00C3 U+00A4 => C3 A4
std::string BytesOf(const std::string& text) {
  std::string bytes;
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at != end) {
    const int code = CMarkup::DecodeCharUTF8(at, end);
    bytes += static_cast<char>(code < 0 ? at[-1] : code);
  }
  return bytes;
}

std::vector<Instance> ReadInstances(CMarkup& document) {
  std::vector<Instance> instances;
  while (document.FindChildElem("Instance")) {
    instances.push_back({document.GetChildAttrib("Nr"), BytesOf(document.GetChildData())});
  }
  return instances;
}

Status StatusOfMissingList(const CallResult& call) {
  const ReportReply reply = ParseReply(call);
  if (call.result == kResultNotFound && reply.kind == ReplyKind::kError) {
    return {ExitCode::kNotFound, reply.message + ": there is no such file next to the report in the report directory"};
  }
  if (call.result == 0 && !call.reply.has_value()) {
    // The module sends no document with two roots: the list for a refused caller would be the second one. For a names
    // file of another version it has no list.
    return {ExitCode::kRefused,
            "the module returned no reply: the names file is not of version 1, or the caller lacks the privilege "
            "\"AccessPerformanceMgr\""};
  }
  if (call.result == 0 && reply.kind != ReplyKind::kError) {
    return {ExitCode::kIo, "the module's reply is neither a list of instances nor an error"};
  }
  return {ExitCode::kRefused, "the module refuses with result " + std::to_string(call.result) +
                                  (reply.message.empty() ? "" : ": " + reply.message)};
}

}  // namespace

std::string NamesRequestText(const std::string& report) {
  CMarkup document;
  const bool is_made = document.AddElem("ReportInstanceNames") && document.SetAttrib("Name", report.c_str());
  return is_made ? document.GetDoc() : std::string();
}

Status InstancesOf(const CallResult& call, std::vector<Instance>& instances) {
  CMarkup document;
  const bool is_list = call.result == 0 && call.reply.has_value() && document.SetDoc(*call.reply) &&
                       document.FindElem("ReportInstanceNames");
  if (!is_list) return StatusOfMissingList(call);
  instances = ReadInstances(document);
  return {};
}

}  // namespace qx::ctl
