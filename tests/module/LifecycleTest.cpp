// Tests load, unload, and the calls of a host in between: creating objects, changing version texts, calls in unusual
// orders.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/module/Host.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::Exists;
using qx::test::InChild;
using qx::test::LoadedModule;
using qx::test::ReadFile;
using qx::test::ServiceThread;
using qx::test::WriteFile;
using testing::HasSubstr;
using testing::StartsWith;

constexpr bool kSanitized = QX_SANITIZED;

class ModuleLifecycle : public qx::test::ModuleTest {};

// The resources of a process, as numbers that must not grow.
struct Resources {
  int mappings = 0;
  int module_mappings = 0;
  int descriptors = 0;
  std::size_t heap_bytes = 0;
  long resident_kilobytes = 0;
};

// A coverage build writes its counts at every unload, which needs memory.
#ifdef QX_COUNTS_COVERAGE
constexpr bool kCountsCoverage = true;
#else
constexpr bool kCountsCoverage = false;
#endif

Resources ResourcesNow() {
  Resources now;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    ++now.mappings;
    if (line.find("QXRemConXfer.so") != std::string::npos) ++now.module_mappings;
  }
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++now.descriptors;
  now.heap_bytes = mallinfo2().uordblks;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) now.resident_kilobytes = std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return now;
}

// Loads the module, makes a request of each kind, and unloads it.
void LoadServeUnload() {
  const LoadedModule module;
  ServiceThread thread(module);
  (void)module.What(thread.Block());
  (void)thread.Call("Reflect", "<a/>");
  (void)thread.Ask("r1", 0);
}

TEST_F(ModuleLifecycle, ThousandLoadsAndUnloadsLeakNothing) {
  Append("r1", 10, {"a", "b"});
  SetLevel(1);
  const std::string text = InChild([] {
    for (int i = 0; i < 20; ++i) LoadServeUnload();  // the loader and the allocator reach their final size
    const Resources before = ResourcesNow();
    for (int i = 0; i < 1000; ++i) LoadServeUnload();
    const Resources after = ResourcesNow();
    std::ostringstream grown;
    if (after.module_mappings != 0) grown << "the module is still mapped\n";
    if (after.descriptors != before.descriptors) {
      grown << "descriptors " << before.descriptors << " => " << after.descriptors << "\n";
    }
    // A sanitizer keeps freed memory and its own records of every load, so only its leak check at the end is useful.
    // The kernel may split or join a few neighbouring mappings; a mapping left by each load would make a thousand.
    constexpr int kSplitMax = 4;
    if (!kSanitized && !kCountsCoverage && after.mappings > before.mappings + kSplitMax) {
      grown << "mappings " << before.mappings << " => " << after.mappings << "\n";
    }
    if (!kSanitized && after.heap_bytes > before.heap_bytes + 4096) {
      grown << "heap " << before.heap_bytes << " => " << after.heap_bytes << "\n";
    }
    if (!kSanitized && after.resident_kilobytes > before.resident_kilobytes + 512) {
      grown << "resident kB " << before.resident_kilobytes << " => " << after.resident_kilobytes << "\n";
    }
    return grown.str();
  });
  EXPECT_EQ(text, "");
}

TEST_F(ModuleLifecycle, LoadWritesHeaderAndModuleObjectInOrder) {
  SetLevel(6);
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              return module.Object() != nullptr ? "loaded" : "no object";
            }),
            "loaded");
  const std::string log = NormalisedLog();
  EXPECT_THAT(log, StartsWith("<STAMP> [<THREAD>] QXRemConXfer  QXRemConXfer Command Line Options:\n"));
  EXPECT_THAT(log, HasSubstr("<STAMP> [<THREAD>] QXRemConXfer  # End of header.\n"));
  const std::string entries = LogEntries();
  const std::string head = "<STAMP> [<THREAD>] QXRemConXfer  ";
  EXPECT_THAT(
      entries,
      StartsWith(
          head + "\n" + head +
          "----------------------------------------------------------------------------------------------------\n" +
          head + "*** KRX Provider library loaded ***\n" + head + "\n" + head +
          "KRX Provider        : DLL name:        QXRemConXfer\n" + head +
          "KRX Provider        : File Version:    <VERSION>\n" + head +
          "KRX Provider        : Company:         Norrlek\n" + head + "KRX Provider        : Milestone:       -\n" +
          head + "KRX Provider        : Build:           <DATE>\n" + head +
          "WCSP_MAIN Create    : CreateModule - allocate pAdapterModule = 0x<LOW32>\n" + head +
          "WCSP_MAIN Delete    : DeleteModule - delete pAdapterModule = 0x<LOW32>\n" + head +
          "*** KRX Provider library unload ***\n"));
}

TEST_F(ModuleLifecycle, EntriesOfTheLoadSurviveEveryWrap) {
  SetLevel(6);
  SetEnvironment("QX_LOG_FILE_MAX_SIZE", "20000");
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              const auto block = BlockBuilder::Request("What");
              for (int i = 0; i < 200; ++i) (void)module.What(block->Block());
              return std::string();
            }),
            "");
  const std::string log = NormalisedLog();
  EXPECT_THAT(log, HasSubstr("------ WRAP ----- Cycle="));
  EXPECT_THAT(log, HasSubstr("*** KRX Provider library loaded ***"));
  EXPECT_THAT(log, HasSubstr("WCSP_MAIN Create    : CreateModule - allocate pAdapterModule = 0x<LOW32>\n"));
}

TEST_F(ModuleLifecycle, LoadWithoutTracingWritesNoHeader) {
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              return std::string();
            }),
            "");
  EXPECT_EQ(ReadFile(LogPath()), "");
}

TEST_F(ModuleLifecycle, HeaderGoesToStandardErrorOnlyOnRequest) {
  const auto stderr_of_a_load = [] {
    return InChild([] {
      const LoadedModule module;
      return std::string();
    });
  };
  SetLevel(1);
  EXPECT_EQ(stderr_of_a_load(), "");
  SetEnvironment("QX_LOG_NOHDR_TOSDTERR", "0");
  EXPECT_THAT(stderr_of_a_load(), HasSubstr("# End of header."));
  SetLevel(0);
  EXPECT_EQ(stderr_of_a_load(), "") << "with tracing off there is no header at all";
}

TEST_F(ModuleLifecycle, PrivateTraceDirectoryKeepsTheLogOfARunningService) {
  WriteFile("/var/log/brollan/log.qxremconxfer", "the service's");
  SetLevel(6);
  EXPECT_EQ(InChild([] {
              LoadServeUnload();
              return std::string();
            }),
            "");
  EXPECT_EQ(ReadFile("/var/log/brollan/log.qxremconxfer"), "the service's");
}

TEST_F(ModuleLifecycle, TraceSettingsFileStartsTracingInTheDefaultDirectory) {
  WriteFile("/etc/norrlek/QuaxelSuite/TraceConfig/provider.ini", "[qxremconxfer]\nFileDebugLevel=1\n[EndOfFile]\n");
  EXPECT_EQ(InChild([] {
              unsetenv("QX_LOG_RINGBUF_DIR");
              unsetenv("QX_LOG_DEBUG_LEVEL");
              const LoadedModule module;
              return std::string();
            }),
            "");
  EXPECT_THAT(ReadFile("/var/log/brollan/log.qxremconxfer"), HasSubstr("*** KRX Provider library loaded ***"));
}

TEST_F(ModuleLifecycle, ModuleServesWithAnUnwritableTraceDirectory) {
  SetLevel(6);
  SetEnvironment("QX_LOG_RINGBUF_DIR", "/nowhere/at/all");
  EXPECT_THAT(InChild([] {
                const LoadedModule module;
                return module.What(BlockBuilder::Request("What")->Block());
              }),
              StartsWith("0 <QXRemConXfer "));
}

TEST_F(ModuleLifecycle, NullVersionTextsShowInTheNextModuleObject) {
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              for (const char* variable : {"DreQXObjectName", "DreQXObjectVersion", "DreQXObjectVendor",
                                           "DreQXObjectDate", "DreQXObjectMilestone"}) {
                *module.Text(variable) = nullptr;
              }
              CKrxAdapterModule* const first = module.Object();
              std::string text =
                  std::to_string(module.Symbol<QxCreateModuleFunction>(QX_SYMBOL_CREATE_MODULE)(nullptr));
              text += module.Object() != first ? " another " : " the same ";
              const auto block = BlockBuilder::Request("What");
              text += module.What(block->Block());
              // The earlier object still exists; the host must delete it.
              module.Symbol<QxDeleteModuleFunction>(QX_SYMBOL_DELETE_MODULE)();
              module.Object() = first;
              text += module.What(block->Block()).substr(0, 16);
              return text;
            }),
            "1 another 0 <N/A version=\"0.00.00\" date=\"N/A\" company=\"N/A\"/>\n0 <QXRemConXfer ");
}

TEST_F(ModuleLifecycle, VersionVariablesHoldTheBuildsTexts) {
  EXPECT_THAT(
      InChild([] {
        const LoadedModule module;
        std::string text;
        for (const char* variable :
             {"DreQXObjectName", "DreQXObjectVersion", "DreQXObjectVendor", "DreQXObjectDate", "DreQXObjectMilestone",
              "DreQXObjectPath", "DreQXObjectDescription", "DreQXObjectProductName", "DreQXObjectLegalCopyright"}) {
          text += std::string(*module.Text(variable)) + "|";
        }
        return text;
      }),
      testing::MatchesRegex(
          "QXRemConXfer\\|[0-9]+\\.[0-9]+\\.[0-9]+\\|Norrlek\\|[0-9]{4}/[0-9]{2}/[0-9]{2}-[0-9]{2}:[0-9]{2}\\|-\\|"
          "/opt/norrlek/QuaxelSuite/KRX/Provider/QXRemConXfer\\|Quaxel QXRemConXfer Provider\\|QuaxelSuite\\|"
          "Copyright \\(C\\) Norrlek\\|"));
}

TEST_F(ModuleLifecycle, UnloadSucceedsWithoutAnObjectAfterAFailedReplacement) {
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              module.Symbol<QxDeleteModuleFunction>(QX_SYMBOL_DELETE_MODULE)();
              module.Symbol<QxDeleteModuleFunction>(QX_SYMBOL_DELETE_MODULE)();
              return module.Object() == nullptr ? "none" : "some";
            }),
            "none");
}

TEST_F(ModuleLifecycle, HooksMayBeCalledInAnyOrder) {
  Append("r1", 4, {"a"});
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              module.ThreadEnd(nullptr);  // an end before the begin
              module.Symbol<QxStopRequestFunction>("__stoprequest")();
              module.Symbol<QxStopRequestFunction>("__stoprequest")();
              const auto block = BlockBuilder::Request("GetReports");
              // Calls without __threadbegin, calls after the stop request, and the continuation of a transfer that was
              // never begun.
              std::string text =
                  module.Call("GetReports", block->Block(), "<ReportData Name=\"r1\" StartIndex=\"1\"/>");
              text += module.Call("GetReports", block->Block(), "<ReportData Name=\"r1\"/>");
              module.ThreadEnd(block->Entry(0)->value);
              block->Entry(0)->value = nullptr;
              module.ThreadBegin();
              text += module.Call("GetReports", block->Block(), "<ReportData Name=\"r1\" NrRecords=\"0\"/>");
              module.ThreadEnd(block->Entry(0)->value);
              module.Symbol<QxFreeFunction>("__free")(nullptr);
              return text;
            }),
            "1 <Error Msg=\"No more records available (no error)\"/>\n"
            "0 <ReportData Name=\"r1\" StartIndex=\"0\" NextIndex=\"1\"><![CDATA[a\r\n]]></ReportData>\n"
            "1 <Error Msg=\"No more records available (no error)\"/>\n");
}

TEST_F(ModuleLifecycle, TwoLoadsShareOneModule) {
  EXPECT_EQ(InChild([] {
              const LoadedModule first;
              const LoadedModule second;
              return first.Object() == second.Object() ? "one" : "two";
            }),
            "one");
}

TEST_F(ModuleLifecycle, UnloadLeavesTheTraceOfItsEndInTheLog) {
  SetLevel(2);
  EXPECT_EQ(InChild([] {
              LoadServeUnload();
              return std::string();
            }),
            "");
  const std::string log = NormalisedLog();
  const std::size_t unload = log.find("*** KRX Provider library unload ***");
  ASSERT_NE(unload, std::string::npos);
  // The tree that the report request loaded is destroyed after the module object, with a trace.
  EXPECT_THAT(log.substr(unload), HasSubstr("CRegistryNode::deleteNode \"HKEY_LOCAL_MACHINE\""));
}

TEST_F(ModuleLifecycle, DescriptorsOfTheModuleAreClosedInChildrenOfTheService) {
  Append("r1", 4, {"a"});
  SetLevel(1);
  EXPECT_EQ(InChild([] {
              const LoadedModule module;
              ServiceThread thread(module);
              (void)thread.Ask("r1", 0);  // log and both report files are open now
              std::string text;
              for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
                const int number = std::stoi(entry.path().filename());
                const std::string target = std::filesystem::read_symlink(entry.path());
                const bool ours = target.find("log.qxremconxfer") != std::string::npos ||
                                  target.find("/etc/brollan/") != std::string::npos;
                if (!ours) continue;
                text += std::filesystem::path(target).filename().string();
                text += (fcntl(number, F_GETFD) & FD_CLOEXEC) != 0 ? " closed;" : " inherited;";
              }
              return text.find("inherited") == std::string::npos && text.find("r1.dat closed;") != std::string::npos
                         ? std::string("all closed")
                         : text;
            }),
            "all closed");
}

}  // namespace
