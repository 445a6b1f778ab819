// Tests the application's own weight variable, which has at most 47 characters, whatever the application's name.
#include <gtest/gtest.h>

#include <string>

#include "tests/debug/TraceFixture.h"

namespace {

using qx::test::TraceSetup;

constexpr std::size_t kNameMax = 47;

// The weight with which an application of this name starts, if only the variable `name` is set, to 3.
std::uint32_t WeightFrom(const std::string& name, const std::string& app_name) {
  TraceSetup setup;
  setup.SetEnv(name.c_str(), "3");
  EXPECT_TRUE(setup.Trace().Init(app_name.c_str()));
  return setup.Trace().Settings().ring_weight;
}

TEST(WeightVariable, NameThatFitsIsUsedWhole) {
  const std::string prefix = "QX_LOG_RINGBUF_WEIGHT_";
  const std::string fits(kNameMax - prefix.size(), 'A');
  EXPECT_EQ(WeightFrom(prefix + fits, fits), 3U);
}

TEST(WeightVariable, LongerNameIsCut) {
  const std::string prefix = "QX_LOG_RINGBUF_WEIGHT_";
  const std::string fits(kNameMax - prefix.size(), 'A');
  EXPECT_EQ(WeightFrom(prefix + fits, fits + "aa"), 3U);
  EXPECT_EQ(WeightFrom(prefix + fits + "AA", fits + "aa"), 0U);
}

}  // namespace
