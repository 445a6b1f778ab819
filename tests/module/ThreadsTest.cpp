// Tests the module on many of the service's worker threads at once.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/module/Host.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::InChild;
using qx::test::LoadedModule;
using qx::test::ServiceThread;

constexpr int kThreads = 16;

class ModuleThreads : public qx::test::ModuleTest {};

// Does everything that one worker thread does, twice. Returns a text about the first wrong reply.
std::string WorkOf(const LoadedModule& module, int number) {
  const std::string report = "r" + std::to_string(number % 4);
  for (int round = 0; round < 2; ++round) {
    ServiceThread thread(module);
    if (module.What(thread.Block()).rfind("0 <QXRemConXfer ", 0) != 0) return "What";
    const std::string echo = "<a n=\"" + std::to_string(number) + "\"/>";
    if (thread.Call("Reflect", echo.c_str()) != "0 " + echo) return "Reflect";
    for (int start = 0; start < 20; start += 5) {
      std::string records;
      for (int i = start; i < start + 5; ++i) records += report + " record " + std::to_string(i) + "\r\n";
      const std::string expected = "0 <ReportData Name=\"" + report + "\" StartIndex=\"" + std::to_string(start) +
                                   "\" NextIndex=\"" + std::to_string(start + 5) + "\"><![CDATA[" + records +
                                   "]]></ReportData>\n";
      const std::string reply = thread.Ask(report, start, 5);
      if (reply != expected) return reply;
    }
    if (thread.Ask(report, 20).rfind("1 ", 0) != 0) return "end of transfer";
    if (module.Symbol<QxHandleVersionFunction>("__handle_version")() != 30400) return "version";
  }
  return {};
}

std::string WorkOfAllThreads() {
  const LoadedModule module;
  std::vector<std::string> faults(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&module, &faults, i] { faults[static_cast<std::size_t>(i)] = WorkOf(module, i); });
  }
  module.Symbol<QxStopRequestFunction>("__stoprequest")();  // the module keeps serving
  std::string text;
  for (int i = 0; i < kThreads; ++i) {
    threads[static_cast<std::size_t>(i)].join();
    text += faults[static_cast<std::size_t>(i)];
  }
  return text;
}

TEST_F(ModuleThreads, SixteenThreadsTransferAtOnce) {
  for (int report = 0; report < 4; ++report) {
    const std::string name = "r" + std::to_string(report);
    std::vector<std::string> records;
    for (int i = 0; i < 20; ++i) records.push_back(name + " record " + std::to_string(i));
    Append(name, 20, records);
  }
  for (const int level : {0, 6}) {
    SetLevel(level);
    EXPECT_EQ(InChild(WorkOfAllThreads), "") << "trace level " << level;
  }
}

}  // namespace
