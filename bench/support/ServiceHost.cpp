#include "bench/support/ServiceHost.h"

#include <dlfcn.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/support/MemoryDirectory.h"
#include "sdk/Writer.h"

namespace qx::bench {

namespace {

void WriteText(const std::string& path, const std::string& text) {
  FILE* file = std::fopen(path.c_str(), "we");
  Must(file != nullptr, path.c_str());
  Must(std::fwrite(text.data(), 1, text.size(), file) == text.size(), path.c_str());
  Must(std::fclose(file) == 0, path.c_str());
}

void EnterNamespaceWithRegistry() {
  const auto uid = std::to_string(getuid());
  const auto gid = std::to_string(getgid());
  Must(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare (user namespaces must be allowed)");
  WriteText("/proc/self/setgroups", "deny");
  WriteText("/proc/self/uid_map", "0 " + uid + " 1");
  WriteText("/proc/self/gid_map", "0 " + gid + " 1");
  Must(mount("tmpfs", "/etc", "tmpfs", 0, nullptr) == 0, "mount a tmpfs over /etc");
  std::filesystem::create_directories("/etc/brollan");
  WriteText("/etc/brollan/registry",
            "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Dremlor]\n[Management]\n[Server Control]\n[Setup]\nReportRoot=s=" +
                ReportDirectory() + "\n\n\n\n\n\n\n\n");
}

template <typename Function>
void LookUp(void* handle, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(handle, name));
  if (function == nullptr) throw std::runtime_error(dlerror());
}

}  // namespace

const std::string& ReportDirectory() {
  static const std::string directory =
      std::filesystem::temp_directory_path().string() + "/qx-bench-" + std::to_string(getpid());
  return directory;
}

void PrepareService() {
  EnterNamespaceWithRegistry();
  std::filesystem::create_directories(ReportDirectory());
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(ReportDirectory(), ignored);
  });
}

std::string Record(std::uint32_t number) {
  char text[kRecordBytes + 1];
  std::snprintf(text, sizeof text, "%010u|2026-01-31 10:20:30|cpu=%03u%%|", number, number % 101);
  std::string record = text;
  record.resize(kRecordBytes, 'x');
  return record;
}

void WriteReport(const std::string& name, std::uint32_t slots) {
  const std::string path = ReportDirectory() + "/" + name;
  if (std::filesystem::exists(path + ".ind")) return;
  qx::Writer writer;
  Must(!writer.Open(path, slots, qx::WriterCheck::kLock).Failed(), "create the store");
  constexpr std::uint32_t kBatch = 1000;
  const std::uint32_t records = slots + slots / 2;
  for (std::uint32_t first = 0; first < records; first += kBatch) {
    std::vector<std::string> batch;
    for (std::uint32_t i = first; i < std::min(first + kBatch, records); ++i) batch.push_back(Record(i));
    Must(!writer.Append(batch).Failed(), "append");
  }
}

Module::Module() {
  setenv("QX_LOG_RINGBUF_DIR", ReportDirectory().c_str(), 1);
  handle_ = dlopen(QX_MODULE, RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) throw std::runtime_error(dlerror());
  LookUp(handle_, "GetReports", get_reports);
  LookUp(handle_, "What", what);
  LookUp(handle_, "__free", free_reply);
  LookUp(handle_, "__threadend", thread_end);
}

Module& TheModule() {
  static Module module;
  return module;
}

long FetchChunk(Block& block, const std::string& name, long first) {
  Module& module = TheModule();
  const std::string request = "<ReportData Name=\"" + name + "\" StartIndex=\"" + std::to_string(first) + "\"/>";
  char* reply = nullptr;
  long next = -1;
  if (module.get_reports(block.get(), request.c_str(), &reply) == 0 && reply != nullptr) {
    next = std::strtol(std::strstr(reply, "NextIndex=\"") + 11, nullptr, 10);
  }
  module.free_reply(reply);
  return next;
}

long TransferOnce(Block& block, const std::string& name) {
  long received = 0;
  for (long next = FetchChunk(block, name, 0); next >= 0; next = FetchChunk(block, name, next)) received = next;
  return received;
}

}  // namespace qx::bench
