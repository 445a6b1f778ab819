// Tests the encoding and decoding of messages, and bytes that are not messages.
#include "tools/qxrelay/message/Message.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/support/Support.h"

namespace {

using qx::relay::DecodedMessage;
using qx::relay::DecodeMessage;
using qx::relay::EncodeMessage;
using qx::relay::GapReason;
using qx::relay::MessageFault;
using qx::relay::MessageHead;
using qx::relay::MessageKind;

constexpr std::uint64_t kUint64Max = std::numeric_limits<std::uint64_t>::max();

struct Texts {
  std::vector<std::uint32_t> lengths;
  std::string bytes;
};

Texts Joined(const std::vector<std::string>& texts) {
  Texts joined;
  for (const std::string& text : texts) {
    joined.lengths.push_back(static_cast<std::uint32_t>(text.size()));
    joined.bytes += text;
  }
  return joined;
}

std::string Encoded(const MessageHead& head, const std::vector<std::string>& texts = {}) {
  const Texts joined = Joined(texts);
  return EncodeMessage(head, joined.lengths, joined.bytes);
}

MessageHead RecordsHead(std::uint64_t first, std::uint64_t count) {
  MessageHead head;
  head.kind = MessageKind::kRecords;
  for (std::size_t i = 0; i < head.identity.size(); ++i) head.identity[i] = static_cast<std::uint8_t>(0xA0 + i);
  head.incarnation = 0x1122334455667788;
  head.session = 3;
  head.first = first;
  head.count = count;
  head.hash_before = 0xe5ad9b1904074ddb;
  head.store_next = first + count + 5;
  head.sent_ms = 1'700'000'000'123;
  head.ring_slots = 1000;
  head.report = "disk/sda";
  return head;
}

std::vector<std::string> TextsOf(const DecodedMessage& message) { return {message.texts.begin(), message.texts.end()}; }

TEST(RelayMessage, TheBytesAreThoseOfTheTable) {
  EXPECT_EQ(qx::test::HexDump(Encoded(RecordsHead(7, 2), {"a\r\n", "\xFF"})),
            "00000000  51 58 52 01 01 00 08 00 a0 a1 a2 a3 a4 a5 a6 a7  |QXR.............|\n"
            "00000010  a8 a9 aa ab ac ad ae af 88 77 66 55 44 33 22 11  |.........wfUD3\".|\n"
            "00000020  03 00 00 00 00 00 00 00 07 00 00 00 00 00 00 00  |................|\n"
            "00000030  02 00 00 00 00 00 00 00 db 4d 07 04 19 9b ad e5  |.........M......|\n"
            "00000040  0e 00 00 00 00 00 00 00 7b 68 e5 cf 8b 01 00 00  |........{h......|\n"
            "00000050  e8 03 00 00 00 00 00 00 64 69 73 6b 2f 73 64 61  |........disk/sda|\n"
            "00000060  03 01 61 0d 0a ff                                |..a...|\n");
}

TEST(RelayMessage, EachKindComesBack) {
  struct Row {
    MessageHead head;
    std::vector<std::string> texts;
  };
  std::vector<Row> rows = {{RecordsHead(0, 3), {"a\r\n", "", std::string("b\0c", 3)}}};
  for (const GapReason reason : {GapReason::kOverwritten, GapReason::kOverLimit, GapReason::kUnreadable}) {
    rows.push_back({RecordsHead(5, kUint64Max - 5), {}});
    rows.back().head.kind = MessageKind::kGap;
    rows.back().head.reason = reason;
  }
  rows.push_back({RecordsHead(9, 0), {}});
  rows.back().head.kind = MessageKind::kEmpty;
  for (const auto& texts : {std::vector<std::string>{}, {"[Names]\nx=1\n"}}) {
    rows.push_back({RecordsHead(0, texts.size()), texts});
    rows.back().head.kind = MessageKind::kNames;
  }
  rows.push_back({RecordsHead(0, 2), {"site=north", "role=db"}});
  rows.back().head.kind = MessageKind::kAbout;
  rows.back().head.report.clear();
  for (const Row& row : rows) {
    const std::string bytes = Encoded(row.head, row.texts);
    const DecodedMessage message = DecodeMessage(bytes);
    EXPECT_EQ(message.fault, MessageFault::kNone);
    EXPECT_EQ(message.head, row.head);
    EXPECT_EQ(TextsOf(message), row.texts);
  }
}

TEST(RelayMessage, RandomMessagesComeBack) {
  std::mt19937_64 random(qx::test::Seed("RelayMessage"));
  for (int i = 0; i < 300; ++i) {
    std::vector<std::string> texts(1 + random() % 40);
    for (std::string& text : texts) {
      text.resize(random() % (random() % 8 == 0 ? 20000 : 150));
      for (char& byte : text) byte = static_cast<char>(random());
    }
    MessageHead head = RecordsHead(random() / 2, texts.size());
    head.report = std::string(random() % 300, 'r');
    const std::string bytes = Encoded(head, texts);
    const DecodedMessage message = DecodeMessage(bytes);
    ASSERT_EQ(message.fault, MessageFault::kNone);
    ASSERT_EQ(message.head, head);
    ASSERT_EQ(TextsOf(message), texts);
    ASSERT_LE(bytes.size(),
              qx::relay::kOverheadBytesMax * texts.size() + head.report.size() + Joined(texts).bytes.size());
  }
}

TEST(RelayMessage, EachPrefixIsRefused) {
  const std::string bytes = Encoded(RecordsHead(7, 3), {"first\r\n", std::string(200, 'x'), "third\r\n"});
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    ASSERT_EQ(DecodeMessage(bytes.substr(0, size)).fault, MessageFault::kTruncated) << size;
  }
  EXPECT_EQ(DecodeMessage(bytes + "x").fault, MessageFault::kTrailing);
}

struct ChangeRow {
  const char* what;
  std::size_t offset;
  std::string bytes;
  MessageFault fault;
};

TEST(RelayMessage, ValuesThatNoSenderWritesAreRefused) {
  const std::string good = Encoded(RecordsHead(7, 2), {"a\r\n", "b\r\n"});
  const ChangeRow rows[] = {
      {"mark", 0, "qXR", MessageFault::kForeign},
      {"version", 3, "\x02", MessageFault::kVersion},
      {"kind 6", 4, "\x06", MessageFault::kValue},
      {"kind 0", 4, std::string(1, '\0'), MessageFault::kValue},
      {"gap without a reason", 4, "\x02", MessageFault::kValue},
      {"reason without a gap", 5, "\x01", MessageFault::kValue},
      {"reason 4", 4, "\x02\x04", MessageFault::kValue},
      {"empty with a count", 4, "\x03", MessageFault::kValue},
      {"names with two", 4, "\x04", MessageFault::kValue},
      {"about with a report", 4, "\x05", MessageFault::kValue},
      {"name of 65535", 6, "\xFF\xFF", MessageFault::kValue},
      {"first that overflows", 40, "\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF", MessageFault::kValue},
      {"count 0", 48, std::string(1, '\0'), MessageFault::kValue},
      {"count beyond the bytes", 48, "\xFF\xFF\xFF\xFF", MessageFault::kTruncated},
      {"count that overflows", 48, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", MessageFault::kValue},
      {"not zero", 84, "\x01", MessageFault::kValue},
      {"name with ..", 88, "../etc/x", MessageFault::kValue},
      {"absolute name", 88, "/etc/xxx", MessageFault::kValue},
      {"longer text", 96, "\x04", MessageFault::kTruncated},
      {"shorter text", 96, "\x02", MessageFault::kTrailing},
      {"length of two bytes for 3", 96, std::string("\x83\0", 2), MessageFault::kValue},
      {"length of more than five bytes", 96, "\xFF\xFF\xFF\xFF\xFF\xFF", MessageFault::kValue},
  };
  ASSERT_EQ(DecodeMessage(good).fault, MessageFault::kNone);
  for (const ChangeRow& row : rows) {
    std::string bytes = good;
    bytes.replace(row.offset, row.bytes.size(), row.bytes);
    const DecodedMessage message = DecodeMessage(bytes);
    EXPECT_EQ(message.fault, row.fault) << row.what;
    EXPECT_TRUE(message.texts.empty()) << row.what;
    EXPECT_EQ(message.head, MessageHead()) << row.what;
  }
}

TEST(RelayMessage, LengthsAreVarintsOfTheFewestBytes) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{127}, std::size_t{128}, std::size_t{16383},
                                 std::size_t{16384}, std::size_t{2097152}}) {
    const MessageHead head = RecordsHead(0, 1);
    const std::string bytes = Encoded(head, {std::string(size, 'x')});
    const std::size_t expected = size < 128 ? 1 : size < 16384 ? 2 : size < 2097152 ? 3 : 4;
    EXPECT_EQ(bytes.size() - qx::relay::kHeadBytes - head.report.size() - size, expected);
    EXPECT_EQ(DecodeMessage(bytes).fault, MessageFault::kNone);
  }
}

TEST(RelayMessage, EachFaultHasAText) {
  for (int i = 0; i <= static_cast<int>(MessageFault::kValue); ++i) {
    EXPECT_FALSE(TextOfFault(static_cast<MessageFault>(i)).empty());
  }
}

}  // namespace
