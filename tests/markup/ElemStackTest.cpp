#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>

#include "markup/ElemStack.h"
#include "markup/Names.h"
#include "tests/support/Support.h"

namespace {

TEST(ElemStack, CapacityIsSevenAndDoublesWhenFull) {
  ElemStack stack(false);
  EXPECT_EQ(stack.Capacity(), 0U);
  for (std::uint32_t i = 0; i < 29; ++i) {
    stack.Push("a", i);
    EXPECT_EQ(stack.Capacity(), i < 7 ? 7U : i < 14 ? 14U : i < 28 ? 28U : 56U);
  }
  EXPECT_EQ(stack.Top().elem, 28U);
  EXPECT_EQ(stack[3].elem, 3U);
}

// The plain walk compares the name with every open tag, the innermost first.
TEST(ElemStack, InnermostMatchIsThatOfAPlainWalk) {
  std::mt19937_64 random(qx::test::Seed("ElemStack"));
  const std::string names[] = {
      "a",  "b",   "ab", "a=b",     "a=b=c", "a[1]", "a[1", "A", "a=B", "=", std::string("a\0b", 3),
      "b/", "b c", "]",  "abcdefgh"};
  for (const bool ignore_case : {false, true}) {
    ElemStack stack(ignore_case);
    std::deque<std::string> plain;
    for (int i = 0; i < 20000; ++i) {
      const std::string& name = names[random() % std::size(names)];
      const auto action = random() % 8;
      if (action < 3 && plain.size() < 40) {
        stack.Push(name, 0);
        plain.push_back(name);
      } else if (action < 6 && !plain.empty()) {
        stack.Pop();
        plain.pop_back();
      }
      std::size_t expected = ElemStack::kNone;
      for (std::size_t depth = plain.size(); depth-- > 0 && expected == ElemStack::kNone;) {
        if (qx::markup::StoredNameMatches(plain[depth], name, ignore_case)) expected = depth;
      }
      ASSERT_EQ(stack.FindInnermost(name), expected) << name;
      ASSERT_EQ(stack.Depth(), plain.size());
    }
  }
}

}  // namespace
