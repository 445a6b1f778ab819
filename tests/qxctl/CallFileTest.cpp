// Tests recorded calls as files: their bytes, which files are refused, and how a difference is shown.
#include "tools/qxctl/trial/CallFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/support/Support.h"
#include "tools/qxctl/trial/CallDiff.h"

namespace qx::test {

namespace {

using ctl::BlockFromJson;
using ctl::BlockToJson;
using ctl::CallFileText;
using ctl::CallJson;
using ctl::ParseCallFile;
using ctl::RawBlock;
using ctl::RecordedCall;
using testing::HasSubstr;

// A block with every kind of element of the format.
void FillEverything(RawBlock& block) {
  krx_nested_block* const credentials =
      block.Block({block.Number(16, kKrxTypeUint16, 1), block.Element(19, 3, block.List({block.Text(25, 8, "u")}))});
  krx_nested_block* const connection = block.Block({block.Text(15, kKrxTypeString, "192.0.2.1")}, credentials);
  krx_authorization_data* const granted =
      block.Authorization("bob", {{"Operations", {"AccessPerformanceMgr", "b"}}, {nullptr, {}}});
  block.SetElements(
      {block.Element(1, kKrxTypePointer, nullptr), block.Number(2, kKrxTypeUint32, 4294967295U),
       block.Text(3, kKrxTypeString, "GetReports"), block.Element(5, kKrxTypeString, nullptr),
       block.Number(6, kKrxTypeUint8, 255), block.Number(7, kKrxTypeUint16, 65535),
       block.Element(14, kKrxTypeNested, connection),
       block.Element(61, kKrxTypePointer, block.List({block.Element(65, kKrxTypePointer, block.Validation(granted))})),
       block.Text(78, kKrxTypeString, "\xE4"), block.Element(99, 77, nullptr)});
}

RecordedCall Everything() {
  RawBlock block;
  FillEverything(block);
  RecordedCall call;
  call.function = "GetReports";
  call.block = BlockToJson(*block.Raw());
  call.input = "<ReportData Name=\"load\"/>";
  call.result = -1;
  call.state_word = 4294967295U;
  call.reply = "<Error Msg=\"\xE4\"/>\n";
  return call;
}

std::string Problem(const std::string& text) {
  RecordedCall call;
  std::string problem;
  EXPECT_FALSE(ParseCallFile(text, call, problem)) << text;
  return problem;
}

// A good file with one key changed.
std::string With(const char* key, const CallJson& value) {
  CallJson document = CallJson::parse(CallFileText(Everything()));
  document[key] = value;
  return document.dump();
}

std::string WithElement(const char* element) {
  return With("block", {{"version", 1}, {"tag", "KRX"}, {"size", 0}, {"elements", {CallJson::parse(element)}}});
}

}  // namespace

TEST(CallFile, WrittenCallIsReadBackAndWrittenAsTheSameBytes) {
  const RecordedCall call = Everything();
  const std::string text = CallFileText(call);
  RecordedCall read;
  std::string problem;
  ASSERT_TRUE(ParseCallFile(text, read, problem)) << problem;
  EXPECT_EQ(read.function, call.function);
  EXPECT_EQ(read.block, call.block);
  EXPECT_EQ(read.input, call.input);
  EXPECT_EQ(read.result, -1);
  EXPECT_EQ(read.state_word, 4294967295U);
  EXPECT_EQ(read.reply, call.reply);
  EXPECT_EQ(CallFileText(read), text);
}

TEST(CallFile, BlockBuiltFromAFileIsWrittenAsTheSameFile) {
  const CallJson json = Everything().block;
  RawBlock block;
  std::string problem;
  ASSERT_TRUE(BlockFromJson(json, block, problem)) << problem;
  EXPECT_EQ(BlockToJson(*block.Raw()).dump(2), json.dump(2));
  ASSERT_NE(block.ProviderData(), nullptr);
}

TEST(CallFile, IndexIdentifiesListAndValidationDataWhateverTheTypeIs) {
  for (const std::int32_t type : std::vector<std::int32_t>{kKrxTypeUint8, kKrxTypeUint16, kKrxTypeUint32, 3, 77}) {
    RawBlock block;
    block.SetElements({block.Element(19, type, block.List({block.Text(25, kKrxTypeString, "u")})),
                       block.Element(65, type, block.Validation(nullptr))});
    const CallJson json = BlockToJson(*block.Raw());
    EXPECT_EQ(json["elements"][0]["list"].size(), 1U) << json;
    EXPECT_TRUE(json["elements"][1].contains("validation")) << json;
    RawBlock again;
    std::string problem;
    ASSERT_TRUE(BlockFromJson(json, again, problem)) << problem;
    EXPECT_EQ(BlockToJson(*again.Raw()), json);
  }
}

TEST(CallFile, ValueIsReadBackForEveryIndexAndType) {
  alignas(8) std::array<char, 64> zeros =
      {};  // a number, an empty text, a block, list or validation data without anything
  for (std::int32_t index = 0; index < 100; ++index) {
    for (const std::int32_t type : std::vector<std::int32_t>{3, 4, 5, 6, 8, 9, 512, -1}) {
      RawBlock block;
      block.SetElements({block.Element(index, type, zeros.data())});
      const CallJson json = BlockToJson(*block.Raw());
      RawBlock again;
      std::string problem;
      ASSERT_TRUE(BlockFromJson(json, again, problem)) << json << ": " << problem;
      EXPECT_EQ(BlockToJson(*again.Raw()), json);
    }
  }
}

TEST(CallFile, BlocksWithACredentialMarkerAreRecordedAsBlocks) {
  RawBlock block;
  block.SetElements({block.Element(kKrxCredentialMarker, kKrxTypeNested, block.Block({}, nullptr))});
  const CallJson json = BlockToJson(*block.Raw());
  ASSERT_TRUE(json["elements"][0].contains("blocks")) << json;
  EXPECT_EQ(json["elements"][0]["blocks"], CallJson::parse("[[]]")) << json;
}

TEST(CallFile, TheWorkedExampleIsWhatIsWritten) {
  RawBlock block;
  block.Header().size = 112;
  block.SetElements({block.Element(1, kKrxTypePointer, nullptr), block.Number(2, kKrxTypeUint32, 1),
                     block.Text(3, kKrxTypeString, "GetReports"),
                     block.Element(14, kKrxTypeNested, block.Block({block.Text(15, kKrxTypeString, "localhost")}))});
  RecordedCall call;
  call.function = "GetReports";
  call.block = BlockToJson(*block.Raw());
  call.input = "<ReportData Name=\"none\" StartIndex=\"0\"/>";
  call.result = 12;
  call.state_word = 1;
  call.reply = "<Error Msg=\"Report data for report &apos;none&apos; could not be read\" LastError=\"2\"/>\n";
  EXPECT_EQ(CallFileText(call), DocExample("testing-modules.md", "call-file"));
}

TEST(CallFile, TagOfFourBytesHasNoNul) {
  RawBlock block;
  std::memcpy(block.Header().tag, "ABCD", 4);
  const CallJson json = BlockToJson(*block.Raw());
  EXPECT_EQ(json["tag"], "ABCD");
  RawBlock again;
  std::string problem;
  ASSERT_TRUE(BlockFromJson(json, again, problem));
  EXPECT_EQ(std::string(again.Header().tag, 4), "ABCD");
}

TEST(CallFile, EveryPrefixIsRefusedWithoutACrash) {
  const std::string text = CallFileText(Everything());
  for (std::size_t size = 0; size + 2 < text.size(); ++size) EXPECT_NE(Problem(text.substr(0, size)), "") << size;
}

TEST(CallFile, ChangedByteNeverCrashesAndAcceptedFilesAreReadBack) {
  const std::string good = CallFileText(Everything());
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const char byte : {'\0', '9', '"', '[', '{', '-', '\xFF'}) {
      std::string text = good;
      text[at] = byte;
      RecordedCall call;
      std::string problem;
      if (!ParseCallFile(text, call, problem)) continue;
      RecordedCall again;
      EXPECT_TRUE(ParseCallFile(CallFileText(call), again, problem)) << at << problem;
    }
  }
}

TEST(CallFile, InvalidCallFileIsRefusedWithTheReason) {
  EXPECT_THAT(Problem(""), HasSubstr("not a JSON object"));
  EXPECT_THAT(Problem("[]"), HasSubstr("not a JSON object"));
  EXPECT_THAT(Problem(std::string(100000, '[')), HasSubstr("not a JSON object"));
  EXPECT_THAT(Problem("{\"format\":" + std::string(40, '[') + std::string(40, ']') + "}"), HasSubstr("32 levels"));
  EXPECT_THAT(Problem(std::string(ctl::kCallFileMax + 1, ' ')), HasSubstr("16 MiB"));
  EXPECT_THAT(Problem(With("format", "other")), HasSubstr("qxctl-call-1"));
  EXPECT_THAT(Problem(With("function", "__free")), HasSubstr("function"));
  EXPECT_THAT(Problem(With("more", 1)), HasSubstr("unknown key, \"more\""));
  EXPECT_THAT(Problem(With("input", nullptr)), HasSubstr("input"));
  EXPECT_THAT(Problem(With("input", std::string("a\0b", 3))), HasSubstr("NUL"));
  EXPECT_THAT(Problem(With("result", 2147483648)), HasSubstr("32 bits"));
  EXPECT_THAT(Problem(With("result", "0")), HasSubstr("integer"));
  EXPECT_THAT(Problem(With("stateWord", -1)), HasSubstr("stateWord"));
  EXPECT_THAT(Problem(With("replyBase64", "?")), HasSubstr("base64"));
  EXPECT_THAT(Problem(With("block", nullptr)), HasSubstr("block"));
}

TEST(CallFile, ElementThatWouldMisleadAModuleIsRefused) {
  EXPECT_THAT(Problem(WithElement(R"({"index": 61, "type": 3, "number": 4096})")),
              HasSubstr("a module reads a pointer"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 3, "type": 8, "number": 4096})")),
              HasSubstr("a module reads a pointer"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 14, "type": 512, "number": 1})")),
              HasSubstr("a module reads a pointer"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 2, "type": 6, "pointer": null})")), HasSubstr("needs a value"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 2, "type": 6, "text": "1"})")), HasSubstr("another type than 8"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 61, "type": 512, "blocks": [[]]})")),
              HasSubstr("another type than 512"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 3, "type": 3, "list": []})")), HasSubstr("cannot have"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 3, "type": 3, "validation": {}})")), HasSubstr("cannot have"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 3, "type": 3, "pointer": 7})")), HasSubstr("known kind"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 3, "type": 3})")), HasSubstr("other keys"));
  EXPECT_THAT(Problem(WithElement(R"({"index": 3, "type": 8, "text": "a\u0000b"})")), HasSubstr("NUL"));
}

TEST(CallFile, NestingAndNumbersOfElementsAreBounded) {
  CallJson element = {{"index", 14}, {"type", 512}, {"blocks", {CallJson::array()}}};
  CallJson deep = element;
  for (int i = 0; i < 8; ++i) deep = {{"index", 14}, {"type", 512}, {"blocks", {{deep}}}};
  EXPECT_THAT(Problem(WithElement(deep.dump().c_str())), HasSubstr("8 deep"));
  CallJson chain = element;
  for (int i = 0; i < 64; ++i) chain["blocks"].push_back(CallJson::array());
  EXPECT_THAT(Problem(WithElement(chain.dump().c_str())), HasSubstr("64 blocks"));
  CallJson block = {{"version", 1}, {"tag", "KRX"}, {"size", 0}, {"elements", CallJson::array()}};
  for (std::size_t i = 0; i <= ctl::kCallElementsMax; ++i) block["elements"].push_back(element);
  EXPECT_THAT(Problem(With("block", block)), HasSubstr("4096 elements"));
}

TEST(CallDiff, EqualRepliesHaveNoDifference) {
  EXPECT_EQ(ctl::ReplyDiff("a", "a"), "");
  EXPECT_EQ(ctl::ReplyDiff(std::nullopt, std::nullopt), "");
}

TEST(CallDiff, FirstDifferenceIsShownWithItsPosition) {
  EXPECT_EQ(ctl::ReplyDiff("one\ntwo\nthree", "one\ntwX\nthree"),
            "reply differs at byte 6, line 2 column 3\n  recorded one\\x0Atwo\\x0Athree\n  now      "
            "one\\x0AtwX\\x0Athree");
  EXPECT_EQ(ctl::ReplyDiff("abc", "Xbc"), "reply differs at byte 0, line 1 column 1\n  recorded abc\n  now      Xbc");
  EXPECT_EQ(ctl::ReplyDiff("abc", "ab"), "reply differs at byte 2, line 1 column 3\n  recorded abc\n  now      ab");
  EXPECT_EQ(ctl::ReplyDiff("abc", std::nullopt), "reply: recorded 3 bytes, now none");
  EXPECT_THAT(ctl::ReplyDiff(std::string(100, 'a'), std::string(100, 'a') + "b"),
              HasSubstr("now      ..." + std::string(40, 'a') + "b"));
}

TEST(CallDiff, IgnoredAttributesAreRemovedEverywhere) {
  EXPECT_EQ(ctl::WithoutAttributes("<A version=\"1\" x=\"y\"><B version=\"2\"/></A>", {"version"}),
            "<A version=\"*\" x=\"y\"><B version=\"*\"/></A>");
  EXPECT_EQ(ctl::WithoutAttributes("<A version=\"1", {"version"}), "<A version=\"1");
  EXPECT_EQ(ctl::WithoutAttributes("<A subversion=\"1\"/>", {"version"}), "<A subversion=\"1\"/>");
}

}  // namespace qx::test
