// Tests how the server's answers to a publish are understood.
#include "tools/qxrelay/stream/PublishReply.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qx::relay::ReplyKind;
using qx::relay::ReplyToPublish;

struct AnswerRow {
  std::string answer;
  ReplyKind kind;
  std::uint64_t sequence;
};

TEST(RelayPublishReply, AnswersAreReadAndOthersAreRefusals) {
  const AnswerRow rows[] = {
      {R"({"stream":"QX","seq":7})", ReplyKind::kStored, 7},
      {R"({"stream":"QX","seq":7,"duplicate":true,"domain":"d"})", ReplyKind::kStored, 7},
      {R"({"error":{"code":400,"err_code":10071,"description":"wrong last sequence: 3"},"stream":"QX","seq":0})",
       ReplyKind::kWrongLast, 0},
      {R"({"error":{"code":503,"err_code":10077,"description":"full"},"stream":"QX","seq":9})", ReplyKind::kRefused, 0},
      {R"({"error":{"err_code":"10071"}})", ReplyKind::kRefused, 0},
      {R"({"error":7})", ReplyKind::kRefused, 0},
      {R"({"seq":0})", ReplyKind::kRefused, 0},
      {R"({"seq":"7"})", ReplyKind::kRefused, 0},
      {R"({"stream":"QX"})", ReplyKind::kRefused, 0},
      {R"([1])", ReplyKind::kRefused, 0},
      {"{\"seq\":7", ReplyKind::kRefused, 0},
      {"", ReplyKind::kRefused, 0},
      {"\xFF", ReplyKind::kRefused, 0},
  };
  for (const AnswerRow& row : rows) {
    const auto reply = ReplyToPublish(5, row.answer);
    EXPECT_EQ(reply.kind, row.kind) << row.answer;
    EXPECT_EQ(reply.sequence, row.sequence) << row.answer;
    EXPECT_EQ(reply.token, 5U);
    EXPECT_EQ(reply.text.empty(), row.kind == ReplyKind::kStored) << row.answer;
  }
  EXPECT_EQ(ReplyToPublish(5, rows[3].answer).text, "full");
}

}  // namespace
