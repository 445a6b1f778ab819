// Tests the exported functions. They are linked statically, so that a test can use a module object that fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "markup/Markup.h"
#include "provider/FileTransferProvider.h"
#include "provider/KrxAdapterModule.h"
#include "provider/KrxRequestParams.h"
#include "provider/Low32.h"
#include "provider/ModuleExports.h"
#include "tests/support/BlockBuilder.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/Support.h"

namespace {

using qx::provider::Low32;
using qx::test::BlockBuilder;
using qx::test::FailingAllocation;
using qx::test::TraceCapture;

static_assert(std::is_same_v<decltype(&What), QxRequestFunction>);
static_assert(std::is_same_v<decltype(&Reflect), QxRequestFunction>);
static_assert(std::is_same_v<decltype(&GetReports), QxRequestFunction>);
static_assert(std::is_same_v<decltype(&GetReportInstanceNames), QxRequestFunction>);
static_assert(std::is_same_v<decltype(&CreateModule), QxCreateModuleFunction>);
static_assert(std::is_same_v<decltype(&DeleteModule), QxDeleteModuleFunction>);
static_assert(std::is_same_v<decltype(&ProviderClassFactory), QxProviderClassFactoryFunction>);

// Makes `module` the current module object until the end of the scope.
class CurrentModule {
 public:
  explicit CurrentModule(CKrxAdapterModule* module) : old_(pAdapterModule) { pAdapterModule = module; }
  ~CurrentModule() { pAdapterModule = old_; }
  CurrentModule(const CurrentModule&) = delete;
  CurrentModule& operator=(const CurrentModule&) = delete;

 private:
  CKrxAdapterModule* old_;
};

// One call, with its result and its reply. Before the call, the reply pointer is garbage.
struct Called {
  Called(QxRequestFunction function, const wcs_gendata* params, const char* input) {
    char garbage = 0;
    char* reply = &garbage;
    result = function(params, input, &reply);
    has_reply = reply != nullptr;
    if (!has_reply) return;
    text = reply;
    __free(reply);
  }
  int result;
  bool has_reply;
  std::string text;
};

class Exports : public testing::Test {
 protected:
  Exports() { (void)module_.Init(nullptr); }

  CFileTransferProvider module_;
  CurrentModule current_{&module_};
  std::unique_ptr<BlockBuilder> block_ = BlockBuilder::Request("What");
};

TEST_F(Exports, WhatRepliesWhateverTheInput) {
  for (const char* input : {static_cast<const char*>(nullptr), "", "<a", "<a/>", "\xFF\xFE"}) {
    const Called called(What, block_->Block(), input);
    EXPECT_EQ(called.result, 0);
    EXPECT_EQ(called.text,
              "<QXRemConXfer version=\"1.2.3\" date=\"2026/01/31-10:20\" company=\"Norrlek\" milestone=\"-\"/>\n");
  }
}

TEST_F(Exports, ReflectRepliesWithAWellFormedInputOnly) {
  const Called echoed(Reflect, block_->Block(), "<a b=\"1\">text</a>");
  EXPECT_EQ(echoed.result, 0);
  EXPECT_EQ(echoed.text, "<a b=\"1\">text</a>");
  for (const char* input : {static_cast<const char*>(nullptr), "", "<a>", "<a/><b/>", "no markup"}) {
    const Called refused(Reflect, block_->Block(), input);
    EXPECT_EQ(refused.result, 0);
    EXPECT_FALSE(refused.has_reply);
  }
}

TEST_F(Exports, RepliesOfTwoCallsAreTwoTexts) {
  char* first = nullptr;
  char* second = nullptr;
  EXPECT_EQ(What(block_->Block(), "", &first), 0);
  EXPECT_EQ(What(block_->Block(), "", &second), 0);
  EXPECT_NE(first, second);
  EXPECT_STREQ(first, second);
  __free(first);
  EXPECT_EQ(second[0], '<');
  __free(second);
}

TEST_F(Exports, NullReplyPointerDropsTheTextAndKeepsTheResult) {
  const TraceCapture trace(6);
  EXPECT_EQ(What(block_->Block(), "", nullptr), 0);
  const auto entries = trace.Entries();
  ASSERT_GE(entries.size(), 2U);
  EXPECT_THAT(entries[entries.size() - 2], testing::StartsWith("WCSP_MAIN           : ReplyString - duplicated "));
  EXPECT_THAT(entries.back(), testing::StartsWith("WCSP_MAIN           : FreeReplyString - free address "));
}

TEST_F(Exports, NullBlockFailsWithoutReply) {
  for (const QxRequestFunction function : {What, Reflect, GetReports, GetReportInstanceNames}) {
    const Called called(function, nullptr, "<a/>");
    EXPECT_EQ(called.result, -1);
    EXPECT_FALSE(called.has_reply);
    EXPECT_EQ(function(nullptr, nullptr, nullptr), -1);
  }
}

TEST_F(Exports, DocumentWithTwoRootsHasNoReplyAndKeepsTheResult) {
  class TwoRoots : public CKrxAdapterModule {
   public:
    int What(KrxRequestParams&, CMarkup&, CMarkup& out) override {
      SetRequestError(out, "refused", 1313);
      EXPECT_TRUE(out.AddElem("ReportData"));
      return 401;
    }
  };
  TwoRoots module;
  const CurrentModule current(&module);
  const Called called(What, block_->Block(), "");
  EXPECT_EQ(called.result, 401);
  EXPECT_FALSE(called.has_reply);
}

TEST_F(Exports, EmptyOutputHasNoReplyAndKeepsTheResult) {
  class Silent : public CKrxAdapterModule {
   public:
    int Reflect(KrxRequestParams&, CMarkup&, CMarkup&) override { return 42; }
  };
  Silent module;
  const CurrentModule current(&module);
  const Called called(Reflect, block_->Block(), "<a/>");
  EXPECT_EQ(called.result, 42);
  EXPECT_FALSE(called.has_reply);
}

// Every operation throws an exception of its own type.
class Throwing : public CKrxAdapterModule {
 public:
  int What(KrxRequestParams&, CMarkup&, CMarkup& out) override {
    (void)out.AddElem("Half");
    throw std::runtime_error("what");
  }
  int Reflect(KrxRequestParams&, CMarkup&, CMarkup&) override { throw 5; }
  void __free(void*) override { throw std::bad_alloc(); }
  void __threadbegin() override { throw std::bad_alloc(); }
  void __threadend(void*) override { throw 5; }
  int __handle_version() override { throw std::runtime_error("version"); }
  void OnServiceStop() override { throw std::runtime_error("stop"); }
};

TEST_F(Exports, ExceptionEndsARequestWithMinusOneAndANullReply) {
  Throwing module;
  const CurrentModule current(&module);
  for (const QxRequestFunction function : {What, Reflect}) {
    const Called called(function, block_->Block(), "<a/>");
    EXPECT_EQ(called.result, -1);
    EXPECT_FALSE(called.has_reply);
    EXPECT_EQ(function(block_->Block(), "", nullptr), -1);
  }
}

TEST_F(Exports, HooksThrowNoException) {
  Throwing module;
  const CurrentModule current(&module);
  EXPECT_NO_THROW(__threadbegin());
  EXPECT_NO_THROW(__threadend(nullptr));
  EXPECT_NO_THROW(__stoprequest());
  EXPECT_NO_THROW(__free(nullptr));
  EXPECT_EQ(__handle_version(), -1);
}

TEST_F(Exports, EveryFailedAllocationOfARequestEndsInMinusOneOrTheWholeReply) {
  const std::string whole = Called(What, block_->Block(), "<a/>").text;
  for (const QxRequestFunction function : {What, Reflect, GetReports, GetReportInstanceNames}) {
    int nth = 1;
    for (bool failed = true; failed; ++nth) {
      char* reply = nullptr;
      int result = 0;
      {
        const FailingAllocation failing({.nth = nth, .bytes_min = 1});
        result = function(block_->Block(), "<ReportData Name=\"none\" StartIndex=\"0\"/>", &reply);
        failed = failing.HasFailed();
      }
      if (reply == nullptr) {
        EXPECT_EQ(result, -1) << nth;
      } else if (function == What) {
        EXPECT_EQ(reply, whole) << nth;
      }
      __free(reply);
    }
    EXPECT_GT(nth, 3) << "the sweep hit no allocation";
  }
  __threadend(block_->Entry(0)->value);
}

constexpr char kNoDuplicate[] =
    "WCSP_MAIN           : ## FATAL ERROR in ReplyString(): strdup() failed when returning reply data";

// An instruction: the first malloc of exactly `bytes` bytes fails.
qx::test::AllocationFault MallocOf(std::size_t bytes) {
  return {.allocator = qx::test::Allocator::kMalloc, .bytes_min = bytes, .bytes_max = bytes};
}

TEST_F(Exports, ReplyThatCannotBeDuplicatedIsNullAndTracedAsFatal) {
  const std::string whole = Called(What, block_->Block(), "").text;
  for (const int level : {1, 6}) {
    const TraceCapture trace(level);
    char garbage = 0;
    char* reply = &garbage;
    {
      const FailingAllocation failing(MallocOf(whole.size() + 1));
      EXPECT_EQ(What(block_->Block(), "", &reply), 0);
      EXPECT_TRUE(failing.HasFailed());
    }
    EXPECT_EQ(reply, nullptr);
    ASSERT_EQ(trace.Entries().size(), level == 1 ? 1U : 5U);
    EXPECT_EQ(trace.Entries().back(), kNoDuplicate);
  }
}

TEST_F(Exports, TextThatCannotBeDuplicatedIsNullAndTracedAsFatal) {
  for (const int level : {0, 1, 6}) {
    const TraceCapture trace(level);
    const FailingAllocation failing(MallocOf(sizeof "some reply"));
    EXPECT_EQ(CKrxAdapterModule::ReplyString("some reply"), nullptr);
    std::string expected;
    if (level == 6) expected = "WCSP_MAIN           : ReplyString - duplicated pString = 0x00000000\n";
    if (level != 0) expected += std::string(kNoDuplicate) + "\n";
    EXPECT_EQ(trace.Text(), expected);
  }
}

// A service cancels its thread in the middle of a request: the unwinding must reach the first frame of the thread.
TEST_F(Exports, ForcedUnwindingPassesThroughARequest) {
  class Exiting : public CKrxAdapterModule {
   public:
    int What(KrxRequestParams&, CMarkup&, CMarkup& out) override {
      (void)out.AddElem("Half");
      pthread_exit(&exit_value);
    }
    char exit_value = 0;
  };
  Exiting module;
  const CurrentModule current(&module);
  struct Work {
    wcs_gendata* block;
    char* reply;
    bool returned;
  } work{block_->Block(), nullptr, false};
  pthread_t thread{};
  ASSERT_EQ(pthread_create(
                &thread, nullptr,
                [](void* argument) -> void* {
                  auto* w = static_cast<Work*>(argument);
                  (void)What(w->block, "", &w->reply);
                  w->returned = true;
                  return nullptr;
                },
                &work),
            0);
  void* exit_value = nullptr;
  ASSERT_EQ(pthread_join(thread, &exit_value), 0);
  EXPECT_EQ(exit_value, &module.exit_value);
  EXPECT_FALSE(work.returned);
  EXPECT_EQ(work.reply, nullptr);
}

TEST_F(Exports, HooksReachTheCurrentModuleObject) {
  class Counting : public CFileTransferProvider {
   public:
    void __threadbegin() override { begun = true; }
    void __threadend(void* data) override { ended_with = data; }
    int __handle_version() override { return 7; }
    void OnServiceStop() override { stopped = true; }
    void __free(void* p) override { freed = p; }
    bool begun = false;
    bool stopped = false;
    void* ended_with = nullptr;
    void* freed = nullptr;
  };
  Counting module;
  const CurrentModule current(&module);
  int datum = 0;
  __threadbegin();
  __threadend(&datum);
  __stoprequest();
  __free(&module);
  EXPECT_TRUE(module.begun);
  EXPECT_EQ(module.ended_with, &datum);
  EXPECT_EQ(__handle_version(), 7);
  EXPECT_TRUE(module.stopped);
  EXPECT_EQ(module.freed, &module);
}

TEST_F(Exports, CreateModuleMakesANewObjectCurrentAndKeepsTheEarlierOne) {
  CKrxAdapterModule* const before = pAdapterModule;
  const TraceCapture trace(6);
  char path[] = "/opt/x";
  EXPECT_EQ(CreateModule(path), 1);
  EXPECT_NE(pAdapterModule, before);
  EXPECT_NE(dynamic_cast<CFileTransferProvider*>(pAdapterModule), nullptr);
  char line[100];
  std::snprintf(line, sizeof line, "WCSP_MAIN Create    : CreateModule - allocate pAdapterModule = 0x%08X",
                Low32(pAdapterModule));
  EXPECT_EQ(trace.Entries().back(), line);
  EXPECT_EQ(before->__handle_version(), 30400);  // the module object still exists
  DeleteModule();
  EXPECT_EQ(pAdapterModule, nullptr);
}

TEST_F(Exports, CreateModuleAcceptsANullPath) {
  EXPECT_EQ(CreateModule(nullptr), 1);
  DeleteModule();
}

TEST_F(Exports, FactoryMakesAnInitialisedObjectThatIsNotCurrent) {
  CKrxAdapterModule* const before = pAdapterModule;
  const std::unique_ptr<CKrxAdapterModule> made(ProviderClassFactory(nullptr));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(pAdapterModule, before);
  const CurrentModule current(made.get());
  EXPECT_THAT(Called(What, block_->Block(), "").text, testing::StartsWith("<QXRemConXfer "));
}

TEST_F(Exports, FailedAllocationLeavesNoModuleObject) {
  const FailingAllocation failing({.bytes_min = 1});
  EXPECT_EQ(CreateModule(nullptr), 0);
  EXPECT_EQ(pAdapterModule, nullptr);
}

TEST_F(Exports, FailedInitLeavesNoModuleObject) {
  static const char long_name[] = "a name that does not fit into a string object itself";
  const char* const old = DreQXObjectName;
  DreQXObjectName = long_name;
  {
    const FailingAllocation failing({.nth = 2, .bytes_min = 1});  // the first allocation is the object
    EXPECT_EQ(CreateModule(nullptr), 0);
    EXPECT_TRUE(failing.HasFailed());
  }
  DreQXObjectName = old;
  EXPECT_EQ(pAdapterModule, nullptr);
}

TEST_F(Exports, DeleteModuleCallsTheUnloadHookThenDeletes) {
  class Unloading : public CKrxAdapterModule {
   public:
    explicit Unloading(std::string& log) : log_(log) {}
    ~Unloading() override { log_ += "deleted;"; }
    void OnUnload() override { log_ += "unloaded;"; }

   private:
    std::string& log_;
  };
  std::string log;
  pAdapterModule = new Unloading(log);
  char line[100];
  std::snprintf(line, sizeof line, "WCSP_MAIN Delete    : DeleteModule - delete pAdapterModule = 0x%08X",
                Low32(pAdapterModule));
  const TraceCapture trace(6);
  DeleteModule();
  EXPECT_EQ(log, "unloaded;deleted;");
  EXPECT_EQ(pAdapterModule, nullptr);
  EXPECT_EQ(trace.Text(), std::string(line) + "\n*** KRX Provider library unload ***\n");
}

TEST_F(Exports, DeleteModuleWithoutAnObjectOnlyTraces) {
  pAdapterModule = nullptr;
  const TraceCapture trace(6);
  DeleteModule();
  EXPECT_EQ(trace.Text(),
            "WCSP_MAIN Delete    : DeleteModule - delete pAdapterModule = 0x00000000\n"
            "*** KRX Provider library unload ***\n");
}

}  // namespace
