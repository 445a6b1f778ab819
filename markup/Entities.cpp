#include "markup/Entities.h"

#include "markup/BucketTable.h"
#include "markup/EntityNames.h"

namespace {

using namespace qx::markup;

constexpr BucketFormat kFormat = {.buckets = kPredefEntityBuckets, .length_digits = 1, .number_digits = 4};
constexpr auto kPool =
    MakeBucketPool<BucketPoolBytes(kEntityNames, kFormat), kPredefEntityBuckets>(kEntityNames, kFormat);

}  // namespace

constexpr std::array<const char*, kPredefEntityBuckets> PredefEntityTable = PointersInto(kPool);

namespace qx::markup {

int FindPredefEntity(std::string_view name) { return FindInBuckets(PredefEntityTable, kFormat, name, 0); }

}  // namespace qx::markup
