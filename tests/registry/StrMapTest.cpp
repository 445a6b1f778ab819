#include "registry/StrMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "registry/RegistryValue.h"
#include "tests/support/Support.h"

namespace {

RegistryValue Number(std::int32_t number) {
  RegistryValue value;
  value.slot.number = number;
  value.type = REG_DWORD;
  return value;
}

bool Put(CStrMap& map, std::string_view name, std::int32_t number) {
  RegistryValue displaced;
  return map.Put(name, Number(number), displaced);
}

std::string Names(const CStrMap& map) {
  std::string names;
  for (const StrMapEntry& entry : map.Entries()) names += std::string(entry.name) + " ";
  return names;
}

int Compare(const char* left, const char* right) {
  const StrMapEntry entries[2] = {{const_cast<char*>(left), {}}, {const_cast<char*>(right), {}}};
  return CStrMap::compare(&entries[0], &entries[1]);
}

TEST(StrMap, ComparesNamesAsUnsignedBytesWithNullLast) {
  EXPECT_LT(Compare("B", "a"), 0);
  EXPECT_GT(Compare("b", "B"), 0);
  EXPECT_EQ(Compare("same", "same"), 0);
  EXPECT_LT(Compare("ab", "abc"), 0);
  EXPECT_LT(Compare("z", "\xC3\xA4"), 0);
  EXPECT_LT(Compare("", "a"), 0);
  EXPECT_LT(Compare("\xFF", nullptr), 0);
  EXPECT_GT(Compare(nullptr, "\xFF"), 0);
  EXPECT_EQ(Compare(nullptr, nullptr), 0);
}

TEST(StrMap, IsEmptyWithoutAnArrayAtFirst) {
  const CStrMap map;
  EXPECT_EQ(map.Entries().data(), nullptr);
  EXPECT_EQ(map.Capacity(), 0);
  EXPECT_EQ(map.Find("x"), nullptr);
}

TEST(StrMap, StaysSortedByByteValueWhateverTheOrderOfInsertion) {
  CStrMap map;
  for (const char* name : {"m", "a", "B", "", "zz", "z", "\xFF", "b"}) EXPECT_TRUE(Put(map, name, 1));
  EXPECT_EQ(Names(map), " B a b m z zz \xFF ");
}

TEST(StrMap, GrowsBySixteenSlotsBeyondTheCount) {
  CStrMap map;
  for (int i = 0; i < 100; ++i) {
    const int expected = i % 16 == 0 ? i + 16 : map.Capacity();
    ASSERT_TRUE(Put(map, std::to_string(i), i));
    EXPECT_EQ(map.Capacity(), expected);
  }
}

TEST(StrMap, UnusedSlotsAreZero) {
  CStrMap map;
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(Put(map, std::to_string(i), i));
  for (int i = 0; i < 7; ++i) (void)map.Remove(map.Find(std::to_string(i)));
  const StrMapEntry* slot = map.Entries().data();
  for (int i = 33; i < map.Capacity(); ++i) {
    EXPECT_EQ(slot[i].name, nullptr);
    EXPECT_EQ(slot[i].value.slot.pointer, nullptr);
    EXPECT_EQ(slot[i].value.type, 0);
  }
}

TEST(StrMap, ReplacementKeepsSlotAndNameAndReturnsTheOldValue) {
  CStrMap map;
  ASSERT_TRUE(Put(map, "x", 1));
  const StrMapEntry* entry = map.Find("x");
  const char* name = entry->name;
  RegistryValue displaced;
  EXPECT_TRUE(map.Put("x", Number(2), displaced));
  EXPECT_EQ(displaced.slot.number, 1);
  EXPECT_EQ(displaced.type, REG_DWORD);
  EXPECT_EQ(map.Find("x"), entry);
  EXPECT_EQ(entry->name, name);
  EXPECT_EQ(entry->value.slot.number, 2);
  EXPECT_TRUE(map.Put("y", Number(3), displaced));
  EXPECT_EQ(displaced.type, 0);
}

TEST(StrMap, NamesAreCaseSensitiveAndComparedWhole) {
  CStrMap map;
  ASSERT_TRUE(Put(map, "Name", 1));
  EXPECT_EQ(map.Find("name"), nullptr);
  EXPECT_EQ(map.Find("Nam"), nullptr);
  EXPECT_EQ(map.Find("Names"), nullptr);
  EXPECT_NE(map.Find("Name"), nullptr);
}

TEST(StrMap, LastOfAppendedEqualNamesStays) {
  CStrMap map;
  int number = 0;
  for (const char* name : {"b", "a", "b", "c", "a", "b"}) ASSERT_TRUE(map.Append(name, Number(++number)));
  map.SortAppended();
  EXPECT_EQ(Names(map), "a b c ");
  EXPECT_EQ(map.Find("a")->value.slot.number, 5);
  EXPECT_EQ(map.Find("b")->value.slot.number, 6);
  EXPECT_EQ(map.Find("c")->value.slot.number, 4);
}

TEST(StrMap, NamesAppendedInFallingOrderAreSorted) {
  CStrMap falling;
  int number = 0;
  for (const char* name : {"d", "c", "b", "a"}) ASSERT_TRUE(falling.Append(name, Number(++number)));
  falling.SortAppended();
  EXPECT_EQ(Names(falling), "a b c d ");
  EXPECT_EQ(falling.Find("a")->value.slot.number, 4);

  CStrMap with_equal_names;
  for (const char* name : {"d", "c", "c", "a"}) ASSERT_TRUE(with_equal_names.Append(name, Number(++number)));
  with_equal_names.SortAppended();
  EXPECT_EQ(Names(with_equal_names), "a c d ");
  EXPECT_EQ(with_equal_names.Find("c")->value.slot.number, 7);
}

TEST(StrMap, DroppedDuplicatesAreFreed) {
  CStrMap map;
  for (int i = 0; i < 3; ++i) {
    RegistryValue text;
    text.type = REG_SZ;
    text.slot.pointer = qx::registry::NewText("a text that is long enough to be seen leaking");
    ASSERT_TRUE(map.Append("x", text));
  }
  map.SortAppended();
  ASSERT_EQ(map.Entries().size(), 1U);
  qx::registry::FreeValue(map.Entries()[0].value);
}

TEST(StrMap, AgreesWithAPlainMapOverRandomInsertionsAndRemovals) {
  std::mt19937_64 random(qx::test::Seed("StrMap"));
  CStrMap map;
  std::map<std::string, std::int32_t> model;
  for (int step = 0; step < 20000; ++step) {
    const std::string name = std::to_string(random() % 300);
    if (random() % 3 != 0) {
      ASSERT_TRUE(Put(map, name, step));
      model[name] = step;
    } else if (StrMapEntry* entry = map.Find(name)) {
      EXPECT_EQ(map.Remove(entry).slot.number, model[name]);
      model.erase(name);
    } else {
      EXPECT_EQ(model.count(name), 0U);
    }
    ASSERT_EQ(map.Entries().size(), model.size());
  }
  auto expected = model.begin();
  for (const StrMapEntry& entry : map.Entries()) {
    EXPECT_EQ(entry.name, expected->first);
    EXPECT_EQ(entry.value.slot.number, expected->second);
    ++expected;
  }
}

}  // namespace
