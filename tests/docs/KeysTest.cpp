// Compares the keys of JSON documents: docs/json-documents.md must describe those of the schemas, and no others.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string InDocs(const std::string& path) { return std::string(QX_SOURCE_DIR) + "/docs/" + path; }

// The names of all properties, also of nested ones, without the "...Base64" of texts that are not UTF-8.
void AddKeys(const json& schema, std::set<std::string>& keys) {
  for (const auto& [word, value] : schema.items()) {
    if (word == "properties") {
      for (const auto& [key, unused] : value.items()) {
        if (!key.ends_with("Base64")) keys.insert(key);
      }
    }
    if (value.is_structured()) AddKeys(value, keys);
  }
}

std::set<std::string> KeysOfSchemas() {
  std::set<std::string> keys;
  for (const fs::directory_entry& entry : fs::directory_iterator(InDocs("schemas"))) {
    AddKeys(json::parse(ReadFile(entry.path())), keys);
  }
  return keys;
}

// The words between backticks in `text`.
std::set<std::string> CodeIn(const std::string& text) {
  std::set<std::string> words;
  std::istringstream rest(text);
  bool is_code = false;
  for (std::string word; std::getline(rest, word, '`'); is_code = !is_code) {
    if (is_code) words.insert(word);
  }
  return words;
}

struct Described {
  std::set<std::string> first;  // code in the first column of tables whose heading is "key"
  std::set<std::string> all;    // code in all tables
};

Described ReadTables(const std::string& page) {
  Described described;
  bool has_keys = false;
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("| ")) has_keys = has_keys && line.starts_with("|");
    if (!line.starts_with("| ")) continue;
    if (line.starts_with("| key |")) has_keys = true;
    if (has_keys) described.first.merge(CodeIn(line.substr(0, line.find(" | "))));
    described.all.merge(CodeIn(line));
  }
  return described;
}

}  // namespace

TEST(DocsKeys, EveryKeyOfASchemaIsDescribedInJsonDocuments) {
  const std::set<std::string> described = ReadTables(ReadFile(InDocs("json-documents.md"))).all;
  const std::set<std::string> keys = KeysOfSchemas();
  EXPECT_GE(keys.size(), 100U);
  for (const std::string& key : keys) EXPECT_EQ(described.count(key), 1U) << key;
}

TEST(DocsKeys, EveryKeyInJsonDocumentsIsInASchema) {
  const std::set<std::string> keys = KeysOfSchemas();
  for (const std::string& key : ReadTables(ReadFile(InDocs("json-documents.md"))).first) {
    EXPECT_EQ(keys.count(key), 1U) << key;
  }
}

TEST(DocsKeys, KeysOfNestedSchemasAndTablesAreFound) {
  std::set<std::string> keys;
  AddKeys(json::parse(R"({"properties": {"a": {"items": {"properties": {"b": {}, "bBase64": {}}}}}})"), keys);
  EXPECT_EQ(keys, (std::set<std::string>{"a", "b"}));
  const Described described =
      ReadTables("| key | value |\n|---|---|\n| `a`, `b` | `c` |\n\n| `kind` |\n|---|\n| `d` |\n");
  EXPECT_EQ(described.first, keys);
  EXPECT_EQ(described.all, (std::set<std::string>{"a", "b", "c", "d", "kind"}));
}

}  // namespace qx::test
