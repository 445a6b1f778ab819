#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include "markup/Encoding.h"
#include "markup/EncodingNames.h"
#include "markup/Entities.h"
#include "markup/EntityNames.h"
#include "markup/Markup.h"

namespace {

std::string Lower(std::string_view name) {
  std::string lower(name);
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return lower;
}

struct Entry {
  std::string name;
  int number;
};

std::vector<Entry> Entries(const char* bucket, int length_digits, int number_digits) {
  std::vector<Entry> entries;
  std::string text = bucket;
  for (std::size_t at = 0; at < text.size();) {
    const auto length = static_cast<std::size_t>(std::stoi(text.substr(at, static_cast<std::size_t>(length_digits))));
    const int number =
        std::stoi(text.substr(at + static_cast<std::size_t>(length_digits), static_cast<std::size_t>(number_digits)));
    at += static_cast<std::size_t>(length_digits + number_digits);
    entries.push_back({text.substr(at, length), number});
    at += length;
  }
  return entries;
}

TEST(PredefEntityTable, EntriesAreLengthCodePointAndLowerCaseName) {
  EXPECT_EQ(PredefEntityTable.size(), 130U);
  const auto bucket_of = [](const char* name) {
    return std::string(PredefEntityTable[static_cast<std::size_t>(CMarkup::x_Hash(name, 130))]);
  };
  EXPECT_NE(bucket_of("sup1").find("40185sup1"), std::string::npos);
  EXPECT_NE(bucket_of("delta").find("50948delta", bucket_of("delta").find("50916delta")), std::string::npos);
  EXPECT_NE(bucket_of("rarr").find("48594rarr", bucket_of("rarr").find("48658rarr")), std::string::npos);
}

TEST(PredefEntityTable, EveryNameOfTheListIsInItsBucketOnce) {
  std::size_t entries = 0;
  for (int bucket = 0; bucket < 130; ++bucket) {
    for (const Entry& entry : Entries(PredefEntityTable[static_cast<std::size_t>(bucket)], 1, 4)) {
      EXPECT_EQ(CMarkup::x_Hash(entry.name.c_str(), 130), bucket) << entry.name;
      ++entries;
    }
  }
  EXPECT_EQ(entries, std::size(qx::markup::kEntityNames));
  EXPECT_EQ(entries, 253U);
}

TEST(PredefEntityTable, FirstOfTwoNamesThatDifferInCaseWins) {
  std::map<std::string, int> first;
  for (const auto& row : qx::markup::kEntityNames) first.emplace(Lower(row.name), row.code);
  for (const auto& row : qx::markup::kEntityNames) {
    EXPECT_EQ(qx::markup::FindPredefEntity(Lower(row.name)), first[Lower(row.name)]) << row.name;
  }
  // Of two names that differ only in case, the one with more capitals comes first.
  std::map<std::string, long> capitals;
  for (const auto& row : qx::markup::kEntityNames) {
    const long count = std::count_if(row.name.begin(), row.name.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
    const auto [at, added] = capitals.emplace(Lower(row.name), count);
    if (!added) {
      EXPECT_GT(at->second, count) << row.name;
    }
  }
}

TEST(PredefEntityTable, UnknownNameOrNameWithBytesAbove127IsNotFound) {
  EXPECT_EQ(qx::markup::FindPredefEntity("\xFF\xFF"), 0);
  EXPECT_EQ(qx::markup::FindPredefEntity("amp\xFF"), 0);
  EXPECT_EQ(qx::markup::FindPredefEntity(""), 0);
  EXPECT_EQ(qx::markup::FindPredefEntity("am"), 0);
  EXPECT_EQ(qx::markup::FindPredefEntity("AMP"), 0);  // callers pass lower case
}

TEST(Hash, IsTheSumOfSignedBytesModuloTheSize) {
  EXPECT_EQ(CMarkup::x_Hash("amp", 130), ('a' + 'm' + 'p') % 130);
  EXPECT_EQ(CMarkup::x_Hash("\xFF\x80", 130), -129);
  EXPECT_EQ(CMarkup::x_Hash("\xFF", 155), -1);
  EXPECT_EQ(CMarkup::x_Hash("", 130), 0);
  EXPECT_EQ(CMarkup::x_Hash(nullptr, 130), 0);
  EXPECT_EQ(CMarkup::x_Hash("a", 0), 0);
}

TEST(EncodingNameTable, EntriesAreLengthCodePageAndLowerCaseName) {
  EXPECT_EQ(EncodingNameTable.size(), 155U);
  const std::string bucket_of_ksc = EncodingNameTable[static_cast<std::size_t>(CMarkup::x_Hash("ksc_5601", 155))];
  EXPECT_NE(bucket_of_ksc.find("0800949ksc_5601"), std::string::npos);
  std::size_t entries = 0;
  for (int bucket = 0; bucket < 155; ++bucket) {
    for (const Entry& entry : Entries(EncodingNameTable[static_cast<std::size_t>(bucket)], 2, 5)) {
      EXPECT_EQ(CMarkup::x_Hash(entry.name.c_str(), 155), bucket) << entry.name;
      EXPECT_EQ(entry.name, Lower(entry.name));
      EXPECT_EQ(CMarkup::GetEncodingCodePage(entry.name.c_str()), entry.number);
      ++entries;
    }
  }
  EXPECT_EQ(entries, std::size(qx::markup::kEncodingNames));
}

TEST(EncodingNameTable, NamesAreFoundInAnyCase) {
  EXPECT_EQ(CMarkup::GetEncodingCodePage("UTF-8"), 65001);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("utf-16LE"), 1200);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("ISO-8859-1"), 28591);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("ISO-8859-15"), 28605);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("Windows-1252"), 1252);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("Shift_JIS"), 932);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("us-ascii"), 20127);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("none"), -1);
  EXPECT_EQ(CMarkup::GetEncodingCodePage(""), -1);
  EXPECT_EQ(CMarkup::GetEncodingCodePage(nullptr), -1);
  EXPECT_EQ(CMarkup::GetEncodingCodePage("\xFF\xFF"), -1);
}

TEST(BomTable, HasThreeMarksAndARowOfZeros) {
  const auto& table = CMarkup::BomTable;
  EXPECT_EQ(std::memcmp(table[0].bytes, "\xEF\xBB\xBF", 3), 0);
  EXPECT_EQ(table[0].count, 3);
  EXPECT_STREQ(table[0].encoding, "UTF-8");
  EXPECT_EQ(table[0].flag, 4);
  EXPECT_EQ(std::memcmp(table[1].bytes, "\xFF\xFE", 2), 0);
  EXPECT_STREQ(table[1].encoding, "UTF-16LE");
  EXPECT_EQ(table[1].flag, 1);
  EXPECT_EQ(std::memcmp(table[2].bytes, "\xFE\xFF", 2), 0);
  EXPECT_STREQ(table[2].encoding, "UTF-16BE");
  EXPECT_EQ(table[2].flag, 0x80);
  EXPECT_EQ(table[3].count, 0);
  EXPECT_EQ(table[3].encoding, nullptr);
  EXPECT_EQ(table[3].flag, 0);
}

}  // namespace
