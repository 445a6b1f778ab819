// Scenarios for the built module: its load with the first calls, and a transfer.
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "tests/support/Support.h"
#include "tests/trust/faults.d/Scenario.h"
#include "tests/trust/tracing.d/LoadedModule.h"

namespace qx::trust {

namespace {

constexpr int kRecords = 40;

// The object is never destroyed, so the end of the process makes no calls into the module.
LoadedModule& module_object = *new LoadedModule;
bool is_loaded = false;
int result = 0;
std::string* reply = nullptr;

// Written before the region with faults, so that the sweep does not include the host's own memory.
void MakeReply() {
  reply = new std::string;
  reply->reserve(1 << 16);
}

void MakeReport() {
  for (const char* directory : {"/etc/brollan", "/var/log/brollan"}) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) std::filesystem::remove_all(entry);
  }
  MakeReportDirectory();
  CReportFileBase store;
  if (!store.Open((std::string(kReportDirectory) + "/r1").c_str(), 100)) std::abort();
  for (int i = 0; i < kRecords; ++i) {
    if (!store.writeLine(("record " + std::to_string(i)).c_str())) std::abort();
  }
  MakeReply();
}

// The reply with the first `count` records, which sends the client to the next one.
std::string ReplyOf(int count) {
  std::string text = "<ReportData Name=\"r1\" StartIndex=\"0\" NextIndex=\"" + std::to_string(count) + "\"><![CDATA[";
  for (int i = 0; i < count; ++i) text += "record " + std::to_string(i) + "\r\n";
  return text + "]]></ReportData>\r\n";
}

std::string WithoutCarriageReturns(std::string text) {
  std::erase(text, '\r');
  return text;
}

bool HasRecords(const std::string& text, int count) {
  return WithoutCarriageReturns(text) == WithoutCarriageReturns(ReplyOf(count));
}

bool HasAllRecords(const std::string& text) { return HasRecords(text, kRecords); }

bool HasSomeRecords(const std::string& text) {
  for (int count = 1; count < kRecords; ++count) {
    if (HasRecords(text, count)) return true;
  }
  return false;
}

// An error reply of the module.
bool IsRefusal() {
  if (*reply == "(null)") return result != 0;
  return (result == 1 || result == 12) && reply->find("<Error ") != std::string::npos;
}

Finding FetchAgain() {
  std::string again;
  const int result_again = module_object.Fetch("r1", 0, again);
  return result_again == 0 && HasAllRecords(again) ? Kept() : Broken("the next transfer does not work: " + again);
}

void PrepareTransfer(const std::string&) {
  MakeReport();
  if (!module_object.Load()) std::abort();
}

void RunTransfer(const std::string&) { result = module_object.Fetch("r1", 0, *reply); }

void Unload() { module_object.Unload(); }

Finding FindingOfTransfer() {
  if (result == 0 && HasAllRecords(*reply)) return Kept();
  if (IsRefusal()) return Kept();
  if (reply->empty()) return Kept();  // there was no memory for the request, so there was no call
  if (result == 0 && HasSomeRecords(*reply))
    return Noted("a shorter chunk: the reply sends the client to what is missing");
  if (result == 0 && reply->find("record 0\r\nrecord 0\r\n") != std::string::npos) {
    return Noted("slots that cannot be read lead to the start of the data file");
  }
  if (result == -1 || (result == 0 && *reply == "(null)")) return Noted("memory ran out: no reply");
  if (result == 0 && reply->find('\xFF') != std::string::npos) {
    return Noted("a record that cannot be read ends with the byte 0xFF, as at the end of the file");
  }
  return Broken("result " + std::to_string(result) + ": " + reply->substr(0, 300));
}

Finding JudgeTransfer(const std::string&) {
  const Finding finding = FindingOfTransfer();
  if (!module_object.Load()) return Broken("the module cannot be loaded again");
  const Finding next = FetchAgain();
  module_object.Unload();
  return next.kind != Finding::Kind::kKept ? next : finding;
}

void PrepareLoad(const std::string& directory) {
  MakeReport();
  setenv("QX_LOG_RINGBUF_DIR", directory.c_str(), 1);
  setenv("QX_LOG_DEBUG_LEVEL", "3", 1);
}

void RunLoad(const std::string&) {
  is_loaded = module_object.Load();
  if (is_loaded) result = module_object.Call("What", "", *reply);
}

Finding JudgeLoad(const std::string&) {
  const bool is_good = !is_loaded || result == 0 || *reply == "(null)";
  if (!is_good) return Broken("What: result " + std::to_string(result) + ": " + *reply);
  if (!module_object.Load()) return Broken("the module cannot be loaded again");
  const Finding next = FetchAgain();
  module_object.Unload();
  return next;
}

}  // namespace

std::vector<Scenario> ModuleScenarios() {
  return {
      {.name = "transfer through the module",
       .promise = "all records or a refusal; the next transfer is whole",
       .prepare = PrepareTransfer,
       .run = RunTransfer,
       .finish = Unload,
       .judge = JudgeTransfer},
      {.name = "load of the module",
       .promise = "it is loaded and answers, or dlopen fails; the next load works",
       .prepare = PrepareLoad,
       .run = RunLoad,
       .finish = Unload,
       .judge = JudgeLoad},
  };
}

}  // namespace qx::trust
