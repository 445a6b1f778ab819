// Calls in an order that no service uses: an end before a beginning, a call made twice, the data of another thread.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tools/qxctl/trial/FaultCases.h"

namespace qx::ctl {

namespace {

constexpr char kIdentified[] = "result 0, <QXRemConXfer>";
constexpr unsigned kThreads = 8;

std::string AskWhat(FaultHost& host) {
  RawBlock block;
  block.SetElements(GoodElements(block));
  return host.Ask(RequestFunction::kWhat, block.Raw(), "");
}

// Makes a request of a thread whose module data is `data`; the request updates `data`.
std::string AskWithData(FaultHost& host, void*& data) {
  RawBlock block;
  block.SetElements(GoodElements(block));
  block.ProviderData()->value = data;
  std::string text = AskNoReport(host, block);
  data = block.ProviderData()->value;
  return text;
}

std::string EndThenAsk(FaultHost& host) {
  void* data = nullptr;
  host.BeginThread();
  (void)AskWithData(host, data);
  host.EndThread(data);
  data = nullptr;
  std::string text = AskWithData(host, data);
  host.EndThread(data);
  return text;
}

std::string BeginTwice(FaultHost& host) {
  host.BeginThread();
  host.BeginThread();
  void* data = nullptr;
  std::string text = AskWithData(host, data);
  host.EndThread(data);
  return text;
}

// The end of a thread without data must free nothing, even if it is called twice.
std::string EndTwice(FaultHost& host) {
  host.EndThread(nullptr);
  host.BeginThread();
  host.EndThread(nullptr);
  host.EndThread(nullptr);
  return AskWhat(host);
}

std::string AskWithoutBegin(FaultHost& host) {
  void* data = nullptr;
  std::string text = AskWithData(host, data);
  host.EndThread(data);
  return text;
}

// One thread continues with another thread's data, as if a host gave its threads new numbers.
std::string DataOfAnotherThread(FaultHost& host) {
  void* data = nullptr;
  std::thread([&] { (void)AskWithData(host, data); }).join();
  std::string text = AskWithData(host, data);
  std::thread([&] { host.EndThread(data); }).join();
  return text;
}

std::string StopThenAsk(FaultHost& host) {
  host.StopRequest();
  host.StopRequest();
  return AskWhat(host);
}

std::string DeleteThenCreate(FaultHost& host) {
  host.DeleteModule();
  std::string text = host.HasObject() ? "the object is still there, " : "no object, ";
  text += "created " + std::to_string(host.CreateModule()) + ", ";
  return text + AskWhat(host);
}

std::string DeleteTwice(FaultHost& host) {
  host.DeleteModule();
  host.DeleteModule();
  return host.HasObject() ? "the object is still there" : "no object";
}

std::string CreateTwice(FaultHost& host) {
  std::string text = "created " + std::to_string(host.CreateModule());
  text += ", created " + std::to_string(host.CreateModule());
  return text + ", " + AskWhat(host);
}

std::string Reload(FaultHost& host) {
  constexpr int kTimes = 5;
  std::string text;
  for (int i = 0; i < kTimes; ++i) {
    text = AskWhat(host);
    host.Unload();
    host.Load();
  }
  return text;
}

// Unloads the module while a thread has not ended, so its data is not freed.
std::string UnloadWithoutEnd(FaultHost& host) {
  void* data = nullptr;
  (void)AskWithData(host, data);
  host.Unload();
  host.Load();
  return AskWhat(host);
}

// Makes requests of one thread. Each document contains the thread's number, which must be in the reply.
unsigned CountWrongReplies(FaultHost& host, unsigned number) {
  constexpr unsigned kRequests = 100;
  unsigned wrong = 0;
  void* data = nullptr;
  const std::string document = "<a n=\"" + std::to_string(number) + "\"/>";
  for (unsigned i = 0; i < kRequests; ++i) {
    RawBlock block;
    block.SetElements(GoodElements(block, number + 1));
    if (host.Ask(RequestFunction::kReflect, block.Raw(), document.c_str()) != "result 0, echo") ++wrong;
    if (AskWithData(host, data) != kNoReportOutcome) ++wrong;
    if (i % 10 != 0) continue;
    host.EndThread(data);
    data = nullptr;
  }
  host.EndThread(data);
  return wrong;
}

// Threads call, end and call again at the same time, without a begin.
std::string Interleaved(FaultHost& host) {
  std::atomic<unsigned> wrong{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&host, &wrong, i] { wrong += CountWrongReplies(host, i); });
  }
  for (std::thread& thread : threads) thread.join();
  return std::to_string(wrong) + " replies of other calls";
}

}  // namespace

void AddOrderFaults(std::vector<FaultCase>& cases) {
  cases.insert(
      cases.end(),
      {{"order", "request-before-begin", "Calls on a thread without a begin", kNoReportOutcome, AskWithoutBegin},
       {"order", "begin-twice", "Begins a thread twice", kNoReportOutcome, BeginTwice},
       {"order", "end-first", "Ends a thread before it began, and again", kIdentified, EndTwice},
       {"order", "request-after-end", "Calls on a thread that has ended", kNoReportOutcome, EndThenAsk},
       {"order", "data-of-another", "Hands in the data of another thread", kNoReportOutcome, DataOfAnotherThread},
       {"order", "free-null", "Frees a null reply", kIdentified,
        [](FaultHost& host) {
          host.Free(nullptr);
          return AskWhat(host);
        }},
       {"order", "version", "Asks for the version of the calling rules", "30400",
        [](FaultHost& host) { return std::to_string(host.HandleVersion()); }},
       {"order", "request-after-stop", "Calls after the stop request", kIdentified, StopThenAsk},
       {"order", "delete-create", "Deletes the module object, creates one and calls",
        std::string("no object, created 1, ") + kIdentified, DeleteThenCreate},
       {"order", "delete-twice", "Deletes the module object twice", "no object", DeleteTwice},
       {"order", "create-twice", "Creates two more module objects and calls",
        std::string("created 1, created 1, ") + kIdentified, CreateTwice},
       {"order", "reload", "Unloads and loads five times", kIdentified, Reload},
       {"order", "unload-without-end", "Unloads while a thread has not ended", kIdentified, UnloadWithoutEnd},
       {"order", "interleaved", "Eight threads that call and end at the same time", "0 replies of other calls",
        Interleaved}});
}

}  // namespace qx::ctl
