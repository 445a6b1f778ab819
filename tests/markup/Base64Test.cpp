#include <gtest/gtest.h>

#include <random>
#include <string>

#include "markup/Markup.h"
#include "tests/support/Support.h"

namespace {

std::string Encode(const std::string& bytes) {
  return CMarkup::EncodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

TEST(Base64, TextOfEachLengthIsPadded) {
  const std::pair<const char*, const char*> rows[] = {{"", ""},
                                                      {"f", "Zg=="},
                                                      {"fo", "Zm8="},
                                                      {"foo", "Zm9v"},
                                                      {"foob", "Zm9vYg=="},
                                                      {"fooba", "Zm9vYmE="},
                                                      {"foobar", "Zm9vYmFy"},
                                                      {"\xFB\xFF\xFE", "+//+"}};
  for (const auto& [bytes, text] : rows) {
    EXPECT_EQ(Encode(bytes), text);
    unsigned char out[16] = {};
    const int size = CMarkup::DecodeBase64(text, out, sizeof out);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), static_cast<std::size_t>(size)), bytes);
  }
  EXPECT_EQ(CMarkup::EncodeBase64(nullptr, 5), "");
}

TEST(Base64, WhiteSpaceIsSkippedAndPaddingIsOptional) {
  unsigned char out[8];
  EXPECT_EQ(CMarkup::DecodeBase64(" Zm\r\n9v\tYg = = ", out, 8), 4);
  EXPECT_EQ(CMarkup::DecodeBase64("Zm8", out, 8), 2);
  EXPECT_EQ(CMarkup::DecodeBase64("Zg", out, 8), 1);
  EXPECT_EQ(out[0], 'f');
}

TEST(Base64, InvalidTextIsRefused) {
  unsigned char out[8];
  for (const char* text : {"Z", "Zm9vY", "Zg=", "Zg===", "=", "====", "Zm9v=", "Zm8=x", "Zm9*", "Zm-_", "Zm9\x80"}) {
    EXPECT_EQ(CMarkup::DecodeBase64(text, out, 8), -1) << text;
  }
}

TEST(Base64, TooSmallBufferStaysUntouched) {
  unsigned char out[3] = {7, 7, 7};
  EXPECT_EQ(CMarkup::DecodeBase64("Zm9v", out, 2), -1);
  EXPECT_EQ(CMarkup::DecodeBase64("Zm9v", out, -1), -1);
  EXPECT_EQ(out[0], 7);
  EXPECT_EQ(CMarkup::DecodeBase64("Zm9v", out, 3), 3);
  EXPECT_EQ(CMarkup::DecodeBase64("Zm9v", nullptr, 0), 3);
  EXPECT_EQ(CMarkup::DecodeBase64(nullptr, out, 3), 0);
}

TEST(Base64, RandomBytesAreDecodedAsTheyWereEncoded) {
  std::mt19937_64 random(qx::test::Seed("Base64"));
  for (int i = 0; i < 2000; ++i) {
    std::string bytes(random() % 50, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    std::string out(bytes.size(), '\0');
    const int size = CMarkup::DecodeBase64(Encode(bytes).c_str(), reinterpret_cast<unsigned char*>(out.data()), 50);
    ASSERT_EQ(size, static_cast<int>(bytes.size()));
    ASSERT_EQ(out, bytes);
  }
}

}  // namespace
