#include "tools/qxctl/trial/FaultHost.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstddef>

#include "markup/Markup.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

std::string ReplySummary(const std::string& reply, const std::string& input) {
  CMarkup document;
  if (!document.SetDoc(reply) || !document.FindElem("")) return "no document";
  const std::string tag = document.GetTagName();
  if (tag == "Error") {
    const std::string number = document.GetAttrib("LastError");
    return "error " + (number.empty() ? "none" : number) + " \"" + document.GetAttrib("Msg") + "\"";
  }
  return reply == input ? "echo" : "<" + tag + ">";
}

}  // namespace

void FaultHost::Load() {
  library_ = dlopen(module_.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) _exit(kHostFailed);
  for (const RequestFunction function : {RequestFunction::kWhat, RequestFunction::kReflect,
                                         RequestFunction::kGetReports, RequestFunction::kGetReportInstanceNames}) {
    Find(NameOf(function), requests_[static_cast<std::size_t>(function)]);
  }
  Find("__threadbegin", thread_begin_);
  Find("__threadend", thread_end_);
  Find("__handle_version", handle_version_);
  Find("__stoprequest", stop_request_);
  Find("__free", free_);
  Find(QX_SYMBOL_CREATE_MODULE, create_module_);
  Find(QX_SYMBOL_DELETE_MODULE, delete_module_);
  Find("pAdapterModule", object_);
}

void FaultHost::Unload() {
  if (library_ != nullptr) (void)dlclose(library_);  // a failure shows in the calls after the next Load
  library_ = nullptr;
}

template <typename Function>
void FaultHost::Find(const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library_, name));
  if (function == nullptr) _exit(kHostFailed);
}

std::string FaultHost::Ask(RequestFunction function, const wcs_gendata* block, const char* input) const {
  char nothing[] = "";
  char* reply = nothing;  // so that it shows if the module does not set the reply pointer
  const int result = requests_[static_cast<std::size_t>(function)](block, input, &reply);
  std::string text = "result " + std::to_string(result) + ", ";
  if (reply == nothing) return text + "the reply pointer is not set";
  if (reply == nullptr) return text + "no reply";
  text += ReplySummary(reply, input != nullptr ? input : "");
  free_(reply);
  return text;
}

std::string FaultHost::AskWithoutReply(RequestFunction function, const wcs_gendata* block, const char* input) const {
  return "result " + std::to_string(requests_[static_cast<std::size_t>(function)](block, input, nullptr));
}

}  // namespace qx::ctl
