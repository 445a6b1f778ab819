// Tests the generic operations of the module object, which a host that has the object calls.
#include "provider/KrxAdapterModule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "markup/Markup.h"
#include "provider/FileTransferProvider.h"
#include "provider/KrxRequestParams.h"
#include "provider/Low32.h"
#include "tests/support/BlockBuilder.h"
#include "tests/support/Support.h"

namespace {

using qx::provider::CurrentThreadLow32;
using qx::provider::Low32;
using qx::test::BlockBuilder;
using qx::test::TraceCapture;
using testing::ElementsAre;

// Sets one of the version variables until the end of the scope.
class ScopedText {
 public:
  ScopedText(const char*& variable, const char* text) : variable_(variable), old_(variable) { variable_ = text; }
  ~ScopedText() { variable_ = old_; }
  ScopedText(const ScopedText&) = delete;
  ScopedText& operator=(const ScopedText&) = delete;

 private:
  const char*& variable_;
  const char* old_;
};

std::string TextOf(CMarkup& document) { return document.GetDoc(); }

std::string Hex8(std::uint32_t number) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", number);
  return text;
}

CMarkup ReplyOfANewModule() {
  CKrxAdapterModule module;
  EXPECT_TRUE(module.Init(nullptr));
  const auto block = BlockBuilder::Request("What");
  KrxRequestParams params(block->Block());
  CMarkup in;
  CMarkup out;
  EXPECT_EQ(module.What(params, in, out), 0);
  return out;
}

std::string WhatOfANewModule() {
  CMarkup reply = ReplyOfANewModule();
  EXPECT_TRUE(reply.IsWellFormed());
  return TextOf(reply);
}

TEST(KrxAdapterModule, WhatNamesTheModuleAndItsVersionTexts) {
  EXPECT_EQ(WhatOfANewModule(),
            "<QXRemConXfer version=\"1.2.3\" date=\"2026/01/31-10:20\" company=\"Norrlek\" milestone=\"-\"/>\n");
}

TEST(KrxAdapterModule, NullVersionTextsAreShownAsNotAvailable) {
  const ScopedText name(DreQXObjectName, nullptr);
  const ScopedText version(DreQXObjectVersion, nullptr);
  const ScopedText vendor(DreQXObjectVendor, nullptr);
  const ScopedText date(DreQXObjectDate, nullptr);
  const ScopedText milestone(DreQXObjectMilestone, nullptr);
  EXPECT_EQ(WhatOfANewModule(), "<N/A version=\"0.00.00\" date=\"N/A\" company=\"N/A\"/>\n");
}

TEST(KrxAdapterModule, NullNameExportNamesTheRootElementNotAvailable) {
  const ScopedText name(DreQXObjectName, nullptr);
  EXPECT_EQ(WhatOfANewModule(),
            "<N/A version=\"1.2.3\" date=\"2026/01/31-10:20\" company=\"Norrlek\" milestone=\"-\"/>\n");
}

TEST(KrxAdapterModule, NameThatNoElementCanHaveMakesAMalformedReply) {
  for (const char* impossible : {"", "1<", "a><b"}) {
    const ScopedText name(DreQXObjectName, impossible);
    const CMarkup reply = ReplyOfANewModule();
    EXPECT_FALSE(reply.IsWellFormed()) << impossible << ": " << reply.GetDoc();
  }
}

TEST(KrxAdapterModule, EmptyFileVersionIsShownAsZero) {
  const ScopedText version(DreQXObjectVersion, "");
  EXPECT_THAT(WhatOfANewModule(), testing::HasSubstr(" version=\"0.00.00\" "));
}

TEST(KrxAdapterModule, EmptyMilestoneIsLeftOut) {
  const ScopedText milestone(DreQXObjectMilestone, "");
  EXPECT_EQ(WhatOfANewModule(), "<QXRemConXfer version=\"1.2.3\" date=\"2026/01/31-10:20\" company=\"Norrlek\"/>\n");
}

TEST(KrxAdapterModule, VersionTextsAreEscapedInTheReply) {
  const ScopedText vendor(DreQXObjectVendor, "A \"B\" & <C>");
  EXPECT_THAT(WhatOfANewModule(), testing::HasSubstr(" company=\"A &quot;B&quot; &amp; &lt;C&gt;\" "));
}

TEST(KrxAdapterModule, InitCopiesTheTextsEachTime) {
  char name[] = "First";
  CKrxAdapterModule module;
  {
    const ScopedText variable(DreQXObjectName, name);
    EXPECT_TRUE(module.Init(nullptr));
    std::strcpy(name, "Gone!");
  }
  const auto block = BlockBuilder::Request("What");
  KrxRequestParams params(block->Block());
  CMarkup in;
  CMarkup first;
  (void)module.What(params, in, first);
  EXPECT_THAT(TextOf(first), testing::StartsWith("<First "));
  EXPECT_TRUE(module.Init(nullptr));
  CMarkup second;
  (void)module.What(params, in, second);
  EXPECT_THAT(TextOf(second), testing::StartsWith("<QXRemConXfer "));
}

TEST(KrxAdapterModule, InitTracesTheVersionTexts) {
  CKrxAdapterModule module;
  const TraceCapture trace(6);
  char path[] = "/opt/x";
  EXPECT_TRUE(module.Init(path));
  EXPECT_EQ(trace.Text(),
            "\n"
            "----------------------------------------------------------------------------------------------------\n"
            "*** KRX Provider library loaded ***\n"
            "\n"
            "KRX Provider        : DLL name:        QXRemConXfer\n"
            "KRX Provider        : File Version:    1.2.3\n"
            "KRX Provider        : Company:         Norrlek\n"
            "KRX Provider        : Milestone:       -\n"
            "KRX Provider        : Build:           2026/01/31-10:20\n");
}

TEST(KrxAdapterModule, InitTracesNoEmptyMilestone) {
  const ScopedText milestone(DreQXObjectMilestone, nullptr);
  CKrxAdapterModule module;
  const TraceCapture trace(3);
  EXPECT_TRUE(module.Init(nullptr));
  EXPECT_EQ(trace.Text(),
            "\n"
            "----------------------------------------------------------------------------------------------------\n"
            "*** KRX Provider library loaded ***\n"
            "KRX Provider        : DLL name:        QXRemConXfer\n"
            "KRX Provider        : File Version:    1.2.3\n"
            "KRX Provider        : Company:         Norrlek\n"
            "KRX Provider        : Build:           2026/01/31-10:20\n");
}

TEST(KrxAdapterModule, InitAtLevelOneTracesTheLoadOnly) {
  CKrxAdapterModule module;
  const TraceCapture trace(1);
  EXPECT_TRUE(module.Init(nullptr));
  EXPECT_EQ(trace.Text(), "\n*** KRX Provider library loaded ***\n");
}

// A module object, a request block and two documents.
class AdapterModule : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(module_.Init(nullptr)); }

  CKrxAdapterModule module_;
  std::unique_ptr<BlockBuilder> block_ = BlockBuilder::Request("Reflect");
  CMarkup in_;
  CMarkup out_;
};

TEST_F(AdapterModule, WhatIgnoresTheInput) {
  KrxRequestParams params(block_->Block());
  EXPECT_FALSE(in_.SetDoc("<a><b></a>"));
  EXPECT_EQ(module_.What(params, in_, out_), 0);
  EXPECT_THAT(TextOf(out_), testing::StartsWith("<QXRemConXfer "));
}

TEST_F(AdapterModule, WhatTracesCallOriginAndOutput) {
  KrxRequestParams params(block_->Block());
  const TraceCapture trace(2);
  EXPECT_EQ(module_.What(params, in_, out_), 0);
  EXPECT_EQ(trace.Text(),
            "WCSP_MAIN What      : KRX function call: Reflect\n"
            "WCSP_MAIN What      :   from: QxTest@192.0.2.1\n"
            "WCSP_MAIN What      : -> output data: <QXRemConXfer version=\"1.2.3\" date=\"2026/01/31-10:20\" "
            "company=\"Norrlek\" milestone=\"-\"/>\n");
}

TEST_F(AdapterModule, WhatOfAnEmptyBlockTracesEmptyTexts) {
  BlockBuilder empty;
  KrxRequestParams params(empty.Block());
  const TraceCapture trace(2);
  EXPECT_EQ(module_.What(params, in_, out_), 0);
  ASSERT_EQ(trace.Entries().size(), 3U);
  EXPECT_EQ(trace.Entries()[0], "WCSP_MAIN What      : KRX function call: ");
  EXPECT_EQ(trace.Entries()[1], "WCSP_MAIN What      :   from: @");
}

TEST_F(AdapterModule, ReflectCopiesAWellFormedInput) {
  KrxRequestParams params(block_->Block());
  const std::string text = "<?xml version=\"1.0\"?>\r\n<a x='1'>\n  <b>&amp;<![CDATA[<]]></b><!-- c -->\n</a>\n";
  ASSERT_TRUE(in_.SetDoc(text));
  EXPECT_EQ(module_.Reflect(params, in_, out_), 0);
  EXPECT_EQ(TextOf(out_), text);
  EXPECT_TRUE(out_.IsWellFormed());
  EXPECT_EQ(TextOf(in_), text);
}

TEST_F(AdapterModule, ReflectTracesInputAndOutput) {
  KrxRequestParams params(block_->Block());
  ASSERT_TRUE(in_.SetDoc("<a>%s%n</a>"));
  const TraceCapture trace(6);
  EXPECT_EQ(module_.Reflect(params, in_, out_), 0);
  EXPECT_EQ(trace.Text(),
            "WCSP_MAIN Reflect   : KRX function call: Reflect\n"
            "WCSP_MAIN Reflect   :   from: QxTest@192.0.2.1\n"
            "WCSP_MAIN Reflect   : -> input data:  <a>%s%n</a>\n"
            "WCSP_MAIN Reflect   : -> output data: <a>%s%n</a>\n");
}

TEST_F(AdapterModule, ReflectOfIllFormedInputLeavesTheOutputEmpty) {
  KrxRequestParams params(block_->Block());
  for (const char* text : {"", "text", "<a>", "<a></b>", "<a/><b/>"}) {
    EXPECT_FALSE(in_.SetDoc(text));
    const TraceCapture trace(3);
    EXPECT_EQ(module_.Reflect(params, in_, out_), 0) << text;
    EXPECT_EQ(TextOf(out_), "") << text;
    EXPECT_FALSE(out_.IsWellFormed()) << text;
    ASSERT_EQ(trace.Entries().size(), 3U) << text;
    EXPECT_EQ(trace.Entries()[2], "WCSP_MAIN Reflect   : -> no valid XML input data - ignored") << text;
  }
}

TEST_F(AdapterModule, ThreadHooksTraceTheLowHalfOfTheThreadId) {
  const TraceCapture trace(4);
  module_.__threadbegin();
  int user_data = 0;
  module_.__threadend(&user_data);
  const std::string id = std::to_string(static_cast<int>(CurrentThreadLow32()));
  EXPECT_THAT(trace.Entries(), ElementsAre("WCSP ThreadBegin    : start of thread with id=" + id,
                                           "WCSP ThreadEnd      : end of thread with id=" + id));
}

TEST_F(AdapterModule, HandleVersionDoesNotDependOnTheVersionTexts) {
  const ScopedText version(DreQXObjectVersion, "9.9.9");
  const TraceCapture trace(4);
  EXPECT_EQ(module_.__handle_version(), 30400);
  EXPECT_EQ(trace.Text(), "WCSP HandleVersion  : current adapter library version = V3.04.00 (0x76C0)\n");
}

TEST_F(AdapterModule, FreeTracesTwiceAndAcceptsNull) {
  const TraceCapture trace(6);
  char* text = CKrxAdapterModule::ReplyString("text");
  const std::string address = Hex8(Low32(text));
  module_.__free(text);
  module_.__free(nullptr);
  EXPECT_THAT(trace.Entries(), ElementsAre("WCSP_MAIN           : ReplyString - duplicated pString = " + address,
                                           "WCSP_MAIN Free      : Delete memory at " + address,
                                           "WCSP_MAIN           : FreeReplyString - free address " + address,
                                           "WCSP_MAIN Free      : Delete memory at 0x00000000",
                                           "WCSP_MAIN           : FreeReplyString - free address 0x00000000"));
}

TEST_F(AdapterModule, ReplyStringDuplicatesAndReturnsNullForNull) {
  const std::string text = "<a/>";
  char* copy = CKrxAdapterModule::ReplyString(text.c_str());
  EXPECT_STREQ(copy, text.c_str());
  EXPECT_NE(copy, text.c_str());
  std::free(copy);  // a host must use __free; `free` proves here that it is malloc memory
  EXPECT_EQ(CKrxAdapterModule::ReplyString(nullptr), nullptr);
}

TEST_F(AdapterModule, AllocReplyStringIsFreeable) {
  const TraceCapture trace(6);
  void* reply = CKrxAdapterModule::AllocReplyString(100);
  ASSERT_NE(reply, nullptr);
  std::memset(reply, 'x', 100);
  CKrxAdapterModule::FreeReplyString(reply);
  EXPECT_EQ(trace.Entries().at(0), "WCSP_MAIN           : AllocReplyString - allocate pString = " + Hex8(Low32(reply)));
}

TEST_F(AdapterModule, ReplyHelpersTraceNothingBelowLevelSix) {
  const TraceCapture trace(5);
  module_.__free(CKrxAdapterModule::ReplyString("text"));
  CKrxAdapterModule::FreeReplyString(CKrxAdapterModule::AllocReplyString(1));
  EXPECT_EQ(trace.Text(), "");
}

TEST_F(AdapterModule, StopRequestCallsTheHookAndIsTraced) {
  class Stoppable : public CKrxAdapterModule {
   public:
    void OnServiceStop() override { ++stops; }
    int stops = 0;
  };
  Stoppable module;
  const TraceCapture trace(1);
  module.__stoprequest();
  EXPECT_EQ(module.stops, 1);
  module.__stoprequest();
  EXPECT_EQ(module.stops, 2);
  EXPECT_EQ(trace.Entries().at(0), "WCSP StopRequest    : ## Service shutdown initiated");
}

// After the address of the table and five texts comes the flag.
TEST_F(AdapterModule, StopRequestSetsTheFlagAfterTheFiveTexts) {
  const auto flag = [this] {
    return static_cast<int>(
        *(reinterpret_cast<const unsigned char*>(&module_) + sizeof(void*) + 5 * sizeof(std::string)));
  };
  EXPECT_EQ(flag(), 0);
  module_.__stoprequest();
  EXPECT_EQ(flag(), 1);
  module_.__stoprequest();
  EXPECT_EQ(flag(), 1);
}

TEST_F(AdapterModule, LoadHooksOfTheBaseClassDoNothing) {
  const TraceCapture trace(6);
  EXPECT_TRUE(module_.OnLoad());
  module_.OnUnload();
  module_.OnServiceStop();
  EXPECT_EQ(trace.Text(), "");
}

TEST_F(AdapterModule, RequestErrorReplacesTheDocument) {
  ASSERT_TRUE(out_.SetDoc("<a><b/></a>"));
  module_.SetRequestError(out_, "it broke", 13);
  EXPECT_EQ(TextOf(out_), "<Error Msg=\"it broke\" LastError=\"13\"/>\n");
  EXPECT_TRUE(out_.IsWellFormed());
}

TEST_F(AdapterModule, RequestErrorWithCodeZeroHasNoLastError) {
  module_.SetRequestError(out_, "No more records available (no error)", 0);
  EXPECT_EQ(TextOf(out_), "<Error Msg=\"No more records available (no error)\"/>\n");
}

TEST_F(AdapterModule, RequestErrorCodeIsUnsignedDecimal) {
  module_.SetRequestError(out_, "x", 4294967295U);
  EXPECT_EQ(TextOf(out_), "<Error Msg=\"x\" LastError=\"4294967295\"/>\n");
}

TEST_F(AdapterModule, RequestErrorEscapesItsMessage) {
  module_.SetRequestError(out_, "<a> & \"b\"", 0);
  EXPECT_EQ(TextOf(out_), "<Error Msg=\"&lt;a&gt; &amp; &quot;b&quot;\"/>\n");
  CMarkup read;
  ASSERT_TRUE(read.SetDoc(TextOf(out_)));
  ASSERT_TRUE(read.FindElem("Error"));
  EXPECT_EQ(read.GetAttrib("Msg"), "<a> & \"b\"");
}

TEST_F(AdapterModule, RequestErrorWithoutMessageHasAnEmptyOne) {
  module_.SetRequestError(out_, "", 0);
  EXPECT_EQ(TextOf(out_), "<Error Msg=\"\"/>\n");
  module_.SetRequestError(out_, nullptr, 2);
  EXPECT_EQ(TextOf(out_), "<Error Msg=\"\" LastError=\"2\"/>\n");
}

TEST_F(AdapterModule, SecondRequestErrorReplacesTheFirst) {
  module_.SetRequestError(out_, "first", 1);
  module_.SetRequestError(out_, "second", 0);
  EXPECT_EQ(TextOf(out_), "<Error Msg=\"second\"/>\n");
}

// The outcome of CheckRequestParams over a block.
struct Checked {
  explicit Checked(BlockBuilder& block) {
    CKrxAdapterModule module;
    KrxRequestParams params(block.Block());
    ok = module.CheckRequestParams(params, text, code);
  }
  bool ok;
  std::string text = "untouched";
  unsigned code = 4711;
};

TEST(CheckRequestParams, ValidBlockLeavesTextAndCodeUnchanged) {
  const Checked checked(*BlockBuilder::Request("GetReports"));
  EXPECT_TRUE(checked.ok);
  EXPECT_EQ(checked.text, "untouched");
  EXPECT_EQ(checked.code, 4711U);
}

TEST(CheckRequestParams, OtherTagsAreRefusedWithTheTagInTheText) {
  struct Case {
    char tag[4];
    const char* shown;
  };
  for (const Case& c : {Case{{'K', 'R', 'Y', 0}, "KRY"}, Case{{0, 0, 0, 0}, ""}, Case{{'k', 'r', 'x', 0}, "krx"},
                        Case{{'K', 'R', 'X', 'X'}, "???"}, Case{{'K', 0, 0, 0}, "K"}}) {
    const auto block = BlockBuilder::Request("GetReports");
    std::memcpy(block->Header().tag, c.tag, 4);
    const Checked checked(*block);
    EXPECT_FALSE(checked.ok);
    EXPECT_EQ(checked.text,
              std::string("RequestParams structure do not contain a valid krx_gendata structure: ") + c.shown);
    EXPECT_EQ(checked.code, 13U);
  }
}

TEST(CheckRequestParams, BlockWithoutElementsIsRefused) {
  BlockBuilder block;
  const Checked checked(block);
  EXPECT_FALSE(checked.ok);
  EXPECT_EQ(checked.text, "krx_gendata structure does not have elements");
  EXPECT_EQ(checked.code, 13U);
}

TEST(CheckRequestParams, MissingOrZeroThreadIdIsRefused) {
  BlockBuilder missing;
  missing.Pointer(1, nullptr);
  BlockBuilder zero;
  zero.Number(2, 0);
  BlockBuilder text;
  text.Text(2, "77");
  BlockBuilder negative_count;
  negative_count.Number(2, 77);
  negative_count.Header().element_count = -1;
  for (BlockBuilder* block : {&missing, &zero, &text, &negative_count}) {
    const Checked checked(*block);
    EXPECT_FALSE(checked.ok);
    EXPECT_EQ(checked.text, "krx_gendata thread id is 0");
    EXPECT_EQ(checked.code, 13U);
  }
}

TEST(CheckRequestParams, TagIsCheckedBeforeElementsAndThreadId) {
  BlockBuilder block;
  std::memcpy(block.Header().tag, "ABC", 4);
  EXPECT_EQ(Checked(block).text, "RequestParams structure do not contain a valid krx_gendata structure: ABC");
}

TEST(CheckRequestParams, AnyVersionPasses) {
  for (const std::uint32_t version : {0U, 10000U, 30400U, 0xFFFFFFFFU}) {
    const auto block = BlockBuilder::Request("GetReports");
    block->Header().version = version;
    EXPECT_TRUE(Checked(*block).ok) << version;
  }
}

TEST(CheckRequestParams, PassingCheckIsTraced) {
  int thread_data = 0;
  const auto block = BlockBuilder::Request("GetReports");
  block->Entry(0)->value = &thread_data;
  const TraceCapture trace(5);
  EXPECT_TRUE(Checked(*block).ok);
  EXPECT_THAT(trace.Entries(), ElementsAre("WCSP CheckParams    : Check KRX request parameters...",
                                           "WCSP CheckParams    :   KRX thread ID = 77, current thread ID = " +
                                               std::to_string(static_cast<int>(CurrentThreadLow32())),
                                           "WCSP CheckParams    : All checks OK"));
}

TEST(CheckRequestParams, BlockWithoutProviderDataIsDumped) {
  BlockBuilder block;
  block.Number(2, 77);
  block.Header().version = 20315;
  block.Header().size = -1;
  const TraceCapture trace(4);
  EXPECT_TRUE(Checked(block).ok);
  EXPECT_EQ(trace.Text(),
            "WCSP CheckParams    : Check KRX request parameters...\n"
            "WCSP CheckParams    : Expected krx_gendata header structure:\n"
            "                    :   tag:              KRX\n"
            "                    :   current version:  3.4.0\n"
            "                    :   expected version: 1.7.1\n"
            "WCSP CheckParams    : Got a valid krx_gendata structure:\n"
            "                    :   tag:           KRX\n"
            "                    :   version:       2.3.15\n"
            "                    :   size:          -1 bytes\n"
            "                    :   element count: 1\n"
            "WCSP CheckParams    : All checks OK\n");
}

TEST(CheckRequestParams, VersionIsDecodedInSignedArithmetic) {
  const auto shown = [](std::uint32_t version) {
    BlockBuilder block;
    block.Number(2, 77);
    block.Header().version = version;
    const TraceCapture trace(4);
    EXPECT_TRUE(Checked(block).ok);
    return trace.Entries().at(7);
  };
  EXPECT_EQ(shown(30400), "                    :   version:       3.4.0");
  EXPECT_EQ(shown(2147483647), "                    :   version:       214748.36.47");
  EXPECT_EQ(shown(0xFFFFFFFFU), "                    :   version:       0.0.-1");
  EXPECT_EQ(shown(0x80000000U), "                    :   version:       -214748.-36.-48");
}

TEST(CheckRequestParams, RefusedTagIsNotDumped) {
  BlockBuilder block;
  std::memcpy(block.Header().tag, "ABC", 4);
  const TraceCapture trace(6);
  EXPECT_FALSE(Checked(block).ok);
  EXPECT_EQ(trace.Text(), "WCSP CheckParams    : Check KRX request parameters...\n");
}

// Calls virtual functions by slot number, like a caller that was compiled with another build of this class.
using Slot = void (*)();

Slot SlotAt(const CKrxAdapterModule& module, std::size_t number) {
  const Slot* slots = nullptr;
  std::memcpy(&slots, static_cast<const void*>(&module), sizeof slots);
  return slots[number];
}

TEST(KrxAdapterModuleSlots, OperationsHaveTheirFixedOrder) {
  CKrxAdapterModule module;
  ASSERT_TRUE(module.Init(nullptr));
  const auto block = BlockBuilder::Request("x");
  KrxRequestParams params(block->Block());
  CMarkup in;
  ASSERT_TRUE(in.SetDoc("<a/>"));
  const TraceCapture trace(6);
  const auto last = [&] { return trace.Entries().empty() ? std::string() : trace.Entries().back(); };

  // Slots 0 and 1 are the destructors.
  EXPECT_TRUE(reinterpret_cast<bool (*)(CKrxAdapterModule*)>(SlotAt(module, 2))(&module));
  reinterpret_cast<void (*)(CKrxAdapterModule*)>(SlotAt(module, 3))(&module);
  reinterpret_cast<void (*)(CKrxAdapterModule*)>(SlotAt(module, 4))(&module);
  EXPECT_EQ(trace.Text(), "");

  using Request = int (*)(CKrxAdapterModule*, KrxRequestParams&, CMarkup&, CMarkup&);
  CMarkup what;
  EXPECT_EQ(reinterpret_cast<Request>(SlotAt(module, 5))(&module, params, in, what), 0);
  EXPECT_THAT(TextOf(what), testing::StartsWith("<QXRemConXfer "));
  CMarkup reflection;
  EXPECT_EQ(reinterpret_cast<Request>(SlotAt(module, 6))(&module, params, in, reflection), 0);
  EXPECT_EQ(TextOf(reflection), "<a/>");

  reinterpret_cast<void (*)(CKrxAdapterModule*, void*)>(SlotAt(module, 7))(&module, nullptr);
  EXPECT_EQ(last(), "WCSP_MAIN           : FreeReplyString - free address 0x00000000");
  reinterpret_cast<void (*)(CKrxAdapterModule*)>(SlotAt(module, 8))(&module);
  EXPECT_THAT(last(), testing::StartsWith("WCSP ThreadBegin    : "));
  reinterpret_cast<void (*)(CKrxAdapterModule*, void*)>(SlotAt(module, 9))(&module, nullptr);
  EXPECT_THAT(last(), testing::StartsWith("WCSP ThreadEnd      : "));
  EXPECT_EQ(reinterpret_cast<int (*)(CKrxAdapterModule*)>(SlotAt(module, 10))(&module), 30400);
}

TEST(KrxAdapterModuleSlots, ProviderReplacesTheDestructorPairAndThreadEndOnly) {
  const CKrxAdapterModule base;
  const CFileTransferProvider provider;
  for (std::size_t slot = 0; slot <= 10; ++slot) {
    const bool replaced = slot <= 1 || slot == 9;
    EXPECT_EQ(SlotAt(base, slot) != SlotAt(provider, slot), replaced) << slot;
  }
}

TEST(KrxAdapterModuleThreads, OperationsRunOnSixteenThreadsAtOnce) {
  CKrxAdapterModule module;
  ASSERT_TRUE(module.Init(nullptr));
  const auto work = [&module] {
    module.__threadbegin();
    for (int i = 0; i < 50; ++i) {
      const auto block = BlockBuilder::Request("What");
      KrxRequestParams params(block->Block());
      CMarkup in;
      (void)in.SetDoc("<a/>");
      CMarkup out;
      EXPECT_EQ(module.What(params, in, out), 0);
      CMarkup echo;
      EXPECT_EQ(module.Reflect(params, in, echo), 0);
      module.__free(CKrxAdapterModule::ReplyString(TextOf(echo).c_str()));
    }
    module.__stoprequest();
    module.__threadend(nullptr);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
