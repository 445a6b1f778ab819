// Reads any bytes as relay settings. Reading must not crash, and the values must be within the limits that the rest of
// the relay relies on.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/File.h"
#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/message/Subject.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const qx::file::Descriptor file(memfd_create("qxrelay", MFD_CLOEXEC));
  Require(file.IsOpen());
  Require(!qx::file::Write(file.Number(), {reinterpret_cast<const char*>(data), size}).Failed());
  qx::relay::RelayConfig config;
  const auto findings = qx::relay::ReadConfig("/proc/self/fd/" + std::to_string(file.Number()), config);
  for (const std::string& finding : findings) Require(!finding.empty());
  Require(!config.stream.servers.empty() && !config.send.include.empty());
  Require(qx::relay::IsStreamName(config.stream.name) && qx::relay::IsPrefix(config.stream.prefix));
  Require(config.host.name.empty() || qx::relay::IsHostName(config.host.name));
  Require(config.stream.replicas >= 1 && config.stream.replicas <= 5);
  Require(config.stream.age >= std::chrono::seconds(4) && config.send.timeout >= std::chrono::milliseconds(100));
  Require(config.send.batch_bytes >= 1 && config.send.poll.count() >= 1 && config.send.poll_idle.count() >= 1);
  (void)qx::relay::IsSelected(config.send, "disk/sda");
  return 0;
}
