// Compares manual pages of section 5 with the format pages: facts that are in both must be equal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;
using testing::Contains;

using Row = std::vector<std::string>;
using Table = std::vector<Row>;  // the first row has the headings

// The parts of a page in a form that can be compared.
struct Stated {
  std::vector<std::string> blocks;  // fenced ones, without the fences
  std::vector<Table> tables;
  std::string prose;  // everything else
};

// The pages that describe in full what a manual page summarises.
const std::map<std::string, std::vector<std::string>> kFormatPages = {
    {"qxini.5.scd", {"ini-files.md"}},          {"qxnames.5.scd", {"report-names.md"}},
    {"qxregistry.5.scd", {"registry-file.md"}}, {"qxrelay.ini.5.scd", {"relay.md"}},
    {"qxreport.5.scd", {"report-store.md"}},    {"qxtrace.5.scd", {"trace.md", "trace-ring.md"}},
};

std::string Without(std::string text, std::string_view characters) {
  std::erase_if(text, [&](char c) { return characters.find(c) != std::string_view::npos; });
  return text;
}

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(' ');
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

// "| `a` | b |" => "a", "b"
Row CellsOf(const std::string& line) {
  Row cells;
  std::istringstream rest(Trimmed(line).substr(1));
  for (std::string cell; std::getline(rest, cell, '|');) cells.push_back(Trimmed(Without(cell, "`")));
  return cells;
}

// " *offset*"  => " offset"
// "2 \* A\_B"  => "2 * A_B"
std::string Unmarked(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '*') continue;
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    plain += text[i];
  }
  return plain;
}

// In a manual page each cell is a line: "[[ " begins a table, "|  " a row, ":[ " and ":  " the next cell of a row. In
// other pages each row is a line.
void AddToTables(const std::string& line, bool is_manual, bool continues_table, std::vector<Table>& tables) {
  if (!is_manual) {
    if (!continues_table) tables.emplace_back();
    if (!line.starts_with("|--")) tables.back().push_back(CellsOf(line));
    return;
  }
  if (line.starts_with("[[")) tables.emplace_back();
  if (line[0] != ':') tables.back().emplace_back();
  tables.back().back().push_back(Trimmed(Unmarked(line.substr(2))));
}

bool IsOfATable(const std::string& line, bool is_manual) {
  if (!is_manual) return line.starts_with("|");
  return line.starts_with("[[ ") || line.starts_with(":[ ") || line.starts_with("|  ") || line.starts_with(":  ");
}

Stated Read(const std::string& text, bool is_manual) {
  Stated stated;
  bool in_fence = false;
  bool in_table = false;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const bool was_in_table = std::exchange(in_table, !in_fence && IsOfATable(line, is_manual));
    if (line.starts_with("```")) {
      in_fence = !in_fence;
      if (in_fence) stated.blocks.emplace_back();
    } else if (in_fence) {
      stated.blocks.back() += line + "\n";
    } else if (in_table) {
      AddToTables(line, is_manual, was_in_table, stated.tables);
    } else {
      stated.prose += line + "\n";
    }
  }
  return stated;
}

std::string TextOf(const std::string& path) { return ReadFile(std::string(QX_SOURCE_DIR) + "/docs/" + path); }

Stated ReadManual(const std::string& name) { return Read(TextOf("man/" + name), true); }

std::string FormatText(const std::string& manual) {
  std::string text;
  for (const std::string& page : kFormatPages.at(manual)) text += TextOf(page) + "\n";
  return text;
}

// The columns of `table` that have these headings, in the order of `headings`.
Table Columns(const Table& table, const Row& headings) {
  Table columns;
  for (const Row& row : table) {
    columns.emplace_back();
    for (const std::string& heading : headings) {
      const auto at = std::find(table[0].begin(), table[0].end(), heading) - table[0].begin();
      columns.back().push_back(static_cast<std::size_t>(at) < row.size() ? row[static_cast<std::size_t>(at)] : "");
    }
  }
  return columns;
}

Row SharedHeadings(const Table& a, const Table& b) {
  Row shared;
  for (const std::string& heading : a[0]) {
    if (std::find(b[0].begin(), b[0].end(), heading) != b[0].end()) shared.push_back(heading);
  }
  return shared;
}

// Whether a table of the page has at least two of these columns, with the same rows.
bool HasTable(const Stated& page, const Table& table) {
  return std::any_of(page.tables.begin(), page.tables.end(), [&](const Table& other) {
    const Row shared = SharedHeadings(table, other);
    return shared.size() >= 2 && Columns(table, shared) == Columns(other, shared);
  });
}

// Numbers of three and more digits, and names with a point or slash between underscores.
//   "At most 1023 characters in _/etc/brollan/registry.old_" => "1023", "registry.old"
std::vector<std::string> FactsOf(const std::string& prose) {
  std::vector<std::string> facts;
  std::istringstream words(Without(prose, "\\,;()"));
  for (std::string word; words >> word;) {
    if (word.ends_with('.')) word.pop_back();
    const bool is_number = word.size() >= 3 && word.find_first_not_of("0123456789") == std::string::npos;
    const bool is_name = word.size() > 2 && word.starts_with('_') && word.ends_with('_') &&
                         word.find_first_of("./") != std::string::npos;
    if (is_number) facts.push_back(word);
    if (is_name) facts.push_back(word.substr(1, word.size() - 2));
  }
  return facts;
}

// Whether the page has the number or the name of the file, with or without its directory.
bool States(const std::string& page, const std::string& fact) {
  const std::string name = "`" + fs::path(fact).filename().string() + "`";
  return page.find(fact) != std::string::npos || page.find(name) != std::string::npos;
}

}  // namespace

TEST(DocsManual, EveryManualPageOfSection5HasItsFormatPages) {
  for (const fs::directory_entry& entry : fs::directory_iterator(std::string(QX_SOURCE_DIR) + "/docs/man")) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(kFormatPages.count(name) == 1 || !name.ends_with(".5.scd")) << name;
  }
}

TEST(DocsManual, BlocksAreThoseOfTheFormatPages) {
  for (const auto& [manual, pages] : kFormatPages) {
    const Stated format = Read(FormatText(manual), false);
    for (const std::string& block : ReadManual(manual).blocks) EXPECT_THAT(format.blocks, Contains(block)) << manual;
  }
}

TEST(DocsManual, TablesHaveTheRowsOfTheFormatPages) {
  std::size_t count = 0;
  for (const auto& [manual, pages] : kFormatPages) {
    const Stated format = Read(FormatText(manual), false);
    for (const Table& table : ReadManual(manual).tables) {
      EXPECT_TRUE(HasTable(format, table)) << manual << ": the table of " << testing::PrintToString(table[0]);
      ++count;
    }
  }
  EXPECT_GE(count, 6U);
}

TEST(DocsManual, LimitsAndFileNamesAreThoseOfTheFormatPages) {
  std::size_t count = 0;
  for (const auto& [manual, pages] : kFormatPages) {
    const std::string format = Without(FormatText(manual), ",");
    for (const std::string& fact : FactsOf(ReadManual(manual).prose)) {
      EXPECT_TRUE(States(format, fact)) << manual << ": " << fact;
      ++count;
    }
  }
  EXPECT_GE(count, 12U);
}

TEST(DocsManual, ReadFindsBlocksTablesAndProse) {
  const Stated manual = Read("a\n```\nx\n```\n[[ *k*\n:[ *v*\n|  A\\_B\n:  2 \\* 3\n", true);
  const Stated page = Read("a\n```ini\nx\n```\n| v | n | k |\n|---|---|---|\n| 2 * 3 | 0 | `A_B` |\n", false);
  const Table rows = {{"k", "v"}, {"A_B", "2 * 3"}};
  EXPECT_EQ(manual.prose + page.prose, "a\na\n");
  EXPECT_EQ(manual.blocks, page.blocks);
  EXPECT_EQ(Columns(manual.tables[0], {"k", "v"}), rows);
  EXPECT_EQ(Columns(page.tables[0], {"k", "v"}), rows);
}

TEST(DocsManual, ChangedTableIsNoticed) {
  const Stated page = Read("| k | n | v |\n|---|---|---|\n| a | 0 | b |\n", false);
  EXPECT_TRUE(HasTable(page, {{"k", "v"}, {"a", "b"}}));
  EXPECT_FALSE(HasTable(page, {{"k", "v"}, {"a", "c"}}));
  EXPECT_FALSE(HasTable(page, {{"k", "v"}, {"a", "b"}, {"c", "d"}}));
  EXPECT_FALSE(HasTable(page, {{"k", "w"}, {"a", "b"}}));
}

}  // namespace qx::test
