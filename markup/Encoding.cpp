#include "markup/Encoding.h"

#include <string>

#include "markup/BucketTable.h"
#include "markup/EncodingNames.h"
#include "markup/Markup.h"

namespace {

using namespace qx::markup;

constexpr BucketFormat kFormat = {.buckets = kEncodingNameBuckets, .length_digits = 2, .number_digits = 5};
constexpr auto kPool =
    MakeBucketPool<BucketPoolBytes(kEncodingNames, kFormat), kEncodingNameBuckets>(kEncodingNames, kFormat);

}  // namespace

constexpr std::array<const char*, kEncodingNameBuckets> EncodingNameTable = PointersInto(kPool);

constexpr std::array<BomTableRow, 4> CMarkup::BomTable = {{
    {{0xEF, 0xBB, 0xBF, 0}, 3, "UTF-8", 4},
    {{0xFF, 0xFE, 0, 0}, 2, "UTF-16LE", 1},
    {{0xFE, 0xFF, 0, 0}, 2, "UTF-16BE", 0x80},
    {{0, 0, 0, 0}, 0, nullptr, 0},
}};

namespace qx::markup {

int FindCodePage(std::string_view name) {
  std::string lower;
  for (const char c : name) lower += ToLower(c);
  return FindInBuckets(EncodingNameTable, kFormat, lower, -1);
}

}  // namespace qx::markup

int CMarkup::GetEncodingCodePage(MCD_CSTR name) { return name == nullptr ? -1 : FindCodePage(name); }
