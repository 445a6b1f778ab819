// Uses any bytes as the instance names file of a report. The reply must be well formed, with as many names as it
// states.
//
// Input: the file.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/provider/World.h"
#include "markup/Markup.h"
#include "provider/ModuleExports.h"
#include "tests/support/BlockBuilder.h"

namespace {

using qx::fuzz::InWorld;
using qx::fuzz::World;
using qx::fuzz::Wrong;

// Writes the file in place: some file systems write a file to the disk at once if it was emptied first.
void WriteNames(const World& world, const void* bytes, std::size_t size) {
  const std::string path = world.Directory() + "/Reports/r1.names";
  const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (file < 0 || pwrite(file, bytes, size, 0) != static_cast<ssize_t>(size)) Wrong("no names file");
  if (ftruncate(file, static_cast<off_t>(size)) != 0) Wrong("a names file with more after it");
  close(file);
}

void CheckReply(const char* reply) {
  CMarkup document;
  if (!document.SetDoc(reply)) Wrong("a reply that is not well formed");
  if (!document.FindElem("ReportInstanceNames")) Wrong("a reply without its root");
  if (document.GetAttrib("Name") != "r1" || document.GetAttrib("Version") != "1") Wrong("another report's names");
  int instances = 0;
  for (; document.FindChildElem("Instance"); ++instances) (void)document.GetChildData();
  if (document.GetAttrib("NrInstances") != std::to_string(instances)) Wrong("another number of instances");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const World world;
  const InWorld in_world(world);
  WriteNames(world, data, size);

  const auto block = qx::test::BlockBuilder::Request("fuzz");
  char* reply = nullptr;
  if (GetReportInstanceNames(block->Block(), "<ReportInstanceNames Name=\"r1\"/>", &reply) != 0) Wrong("no names");
  if (reply != nullptr) CheckReply(reply);
  __free(reply);
  __threadend(block->Entry(0)->value);
  return 0;
}
