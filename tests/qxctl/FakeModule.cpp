// A provider module that follows instructions and records its calls: for replies that no good module sends, and to
// check the service's side of the contract.
//
// QX_FAKE names its directory. The nth request (from 1) is answered by the file "reply.n": the first line is the
// result, the rest is the reply; without a rest there is no reply. Without the file, the result is 1 and there is no
// reply. Each call adds a line to the file "calls".
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "provider/ModuleExports.h"

namespace {

char g_thread_data;  // its address is what a real module keeps in element 1
pthread_t g_thread;
int g_requests = 0;

std::string FilePath(const std::string& name) { return std::string(std::getenv("QX_FAKE")) + "/" + name; }

void Log(const std::string& line) { std::ofstream(FilePath("calls"), std::ios::app) << line << "\n"; }

struct LogsLoading {
  LogsLoading() {
    const char* const directory = std::getenv("QX_LOG_RINGBUF_DIR");
    std::ofstream(std::string(directory) + "/log.qxremconxfer") << "opened\n";  // as the real one does
    std::ofstream(FilePath("trace-directory")) << directory;
    Log("load");
  }
  ~LogsLoading() { Log("unload"); }
};

LogsLoading g_logs_loading;

std::string TextOf(const krx_element& element) {
  return element.value != nullptr ? static_cast<const char*>(element.value) : "null";
}

std::string SecurityOf(const krx_element& element) {
  const auto* const list = static_cast<const krx_element_list*>(element.value);
  std::string text;
  for (int i = 0; i < list->element_count; ++i) {
    const auto* const data = static_cast<const krx_validation_data*>(list->elements[i]->value);
    const krx_authorization_data& granted = *data->authorization;
    text +=
        std::to_string(list->elements[i]->index) + " user " + (granted.user_id != nullptr ? granted.user_id : "null");
    for (int d = 0; d < granted.department_count; ++d) {
      const krx_department& department = *granted.departments[d];
      text += " [" + std::string(department.name);
      for (int p = 0; p < department.privilege_count; ++p) text += std::string(" ") + department.privileges[p];
      text += "]";
    }
  }
  return "{" + text + "}";
}

std::string ConnectionOf(const krx_element& element) {
  const auto* const block = static_cast<const krx_nested_block*>(element.value);
  std::string text;
  for (int i = 0; i < block->element_count; ++i) {
    text += std::to_string(block->elements[i]->index) + "=" + TextOf(*block->elements[i]);
  }
  return "{" + text + "}";
}

std::string ValueOf(krx_element& element) {
  switch (element.index) {
    case kKrxProviderData:
      return element.value == &g_thread_data ? "kept" : "null";
    case kKrxThreadId:
      return std::to_string(*static_cast<const std::uint32_t*>(element.value));
    case kKrxConnection:
      return ConnectionOf(element);
    case kKrxSecurityInterceptor:
      return SecurityOf(element);
    default:
      return TextOf(element);
  }
}

// "KRX 30400 [1=null 2=1 3=What 5=qxctl 14={15=localhost}]"
std::string Describe(const wcs_gendata& block) {
  std::string text = std::string(block.tag, strnlen(block.tag, 4)) + " " + std::to_string(block.version) + " [";
  for (int i = 0; i < block.element_count; ++i) {
    krx_element& element = *block.elements[i];
    text += (i > 0 ? " " : "") + std::to_string(element.index) + "=" + ValueOf(element);
    if (element.index == kKrxProviderData && element.type == kKrxTypePointer) element.value = &g_thread_data;
  }
  return text + "]";
}

int Answer(const char* name, const wcs_gendata* params, const char* input, char** reply) {
  const std::string number = std::to_string(++g_requests);
  Log(std::string(name) + (pthread_equal(g_thread, pthread_self()) != 0 ? " " : " other thread ") + Describe(*params));
  std::ofstream(FilePath("request." + number)) << input;
  *reply = nullptr;
  std::ifstream file(FilePath("reply." + number), std::ios::binary);
  if (!file) return 1;
  std::string result;
  std::getline(file, result);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  if (!text.empty()) *reply = strdup(text.c_str());
  return static_cast<int>(std::strtol(result.c_str(), nullptr, 10));
}

}  // namespace

int What(const wcs_gendata* params, const char* input, char** reply) { return Answer("What", params, input, reply); }
int Reflect(const wcs_gendata* params, const char* input, char** reply) {
  return Answer("Reflect", params, input, reply);
}
int GetReports(const wcs_gendata* params, const char* input, char** reply) {
  return Answer("GetReports", params, input, reply);
}

int GetReportInstanceNames(const wcs_gendata* params, const char* input, char** reply) {
  return Answer("GetReportInstanceNames", params, input, reply);
}

void __threadbegin(void) {
  g_thread = pthread_self();
  Log("threadbegin");
}
void __threadend(void* user_data) {
  Log(std::string("threadend ") + (user_data == &g_thread_data ? "kept" : user_data == nullptr ? "null" : "other"));
}
void __free(void* p) {
  Log(p != nullptr ? "free" : "free null");
  std::free(p);
}
