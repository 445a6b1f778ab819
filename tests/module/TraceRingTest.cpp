// Tests the module with a trace ring: the environment alone turns it on, and after the unload the process has nothing
// of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/module/Host.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::InChild;
using qx::test::LoadedModule;
using qx::test::ReadFile;
using testing::HasSubstr;
using testing::Not;

class ModuleTraceRing : public qx::test::ModuleTest {
 protected:
  ModuleTraceRing() {
    SetLevel(2);
    SetEnvironment("TraceFileLimit", "1");
    SetEnvironment("QX_LOG_RINGBUF_WEIGHT", "2");
  }
  std::string RingPath() const { return logs_.File("log.qxremconxfer_a"); }
};

// The mappings and descriptors of the ring in this process.
std::string ResourcesOf(const std::string& path) {
  int mappings = 0;
  int descriptors = 0;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) mappings += line.find(path) != std::string::npos ? 1 : 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the descriptor of this listing
    descriptors += std::filesystem::read_symlink(entry.path(), gone) == path ? 1 : 0;
  }
  return std::to_string(mappings) + " " + std::to_string(descriptors) + ";";
}

TEST_F(ModuleTraceRing, EnvironmentTurnsTheRingOnAndUnloadReleasesIt) {
  EXPECT_EQ(InChild([this] {
              std::string text;
              {
                const LoadedModule module;
                const auto block = BlockBuilder::Request("What");
                (void)module.What(block->Block());
                text = ResourcesOf(RingPath());
              }
              return text + ResourcesOf(RingPath());
            }),
            "1 1;0 0;");
  const std::string ring = ReadFile(RingPath());
  EXPECT_EQ(ring.size(), 2U * 256 * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)));
  EXPECT_EQ(ring.substr(275, 16), "0000000000000001");
  EXPECT_EQ(ring.substr(std::stoul(ring.substr(515, 16)), 16), "## TRACE-END ##\n");
  EXPECT_THAT(ring, HasSubstr("### Start of work cycle. (00000001) ###\n"));
  EXPECT_THAT(ring, HasSubstr("### End of initialization. ###\n"));
  EXPECT_THAT(ring, HasSubstr("*** KRX Provider library unload ***"));
}

TEST_F(ModuleTraceRing, LogHasOnlyTheHeaderBlockWhileTheRingIsTheTarget) {
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              return std::string();
            }),
            "");
  const std::string log = ReadFile(LogPath());
  EXPECT_THAT(log, HasSubstr("Trace Target               : 2\n"));
  EXPECT_THAT(log, Not(HasSubstr("KRX Provider library unload")));
}

TEST_F(ModuleTraceRing, SecondLoadContinuesInTheSameFile) {
  for (int load = 1; load <= 2; ++load) {
    EXPECT_EQ(InChild([] {
                const LoadedModule module;
                return std::string();
              }),
              "");
  }
  const std::string ring = ReadFile(RingPath());
  EXPECT_EQ(ring.substr(275, 16), "0000000000000002");
  EXPECT_THAT(ring, HasSubstr("### Start of work cycle. (00000001) ###\n"));
  EXPECT_THAT(ring, HasSubstr("### Start of work cycle. (00000002) ###\n"));
}

}  // namespace
