// Compares the index of a report with a plain list of its records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/support/Support.h"
#include "tools/qxview/report/Columns.h"
#include "tools/qxview/report/Gaps.h"
#include "tools/qxview/report/RecordTail.h"
#include "tools/qxview/report/ReportIndex.h"

namespace qx::view {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Value {
  std::int64_t place;
  double value;
};

double MaxOf(const std::vector<Value>& values) {
  double max = -std::numeric_limits<double>::infinity();
  for (const Value& each : values) max = std::max(max, each.value);
  return max;
}

}  // namespace

TEST(ViewColumns, KeepEverySpikeOfAMillionValues) {
  std::mt19937_64 random(20260101);
  Columns columns;
  std::vector<Value> values;
  for (std::int64_t i = 0; i < 200'000; ++i) {
    const Value value = {i * 977, i == 123'456 ? 1e6 : static_cast<double>(random() % 100)};
    values.push_back(value);
    columns.Add(value.place, value.value);
  }
  ASSERT_LE(columns.All().size(), Columns::kCountMax);
  ASSERT_GE(columns.All().size(), Columns::kCountMax / 4);
  double max = 0;
  for (const Column& column : columns.All()) {
    max = std::max(max, column.max);
    EXPECT_LE(column.min, column.last);
    EXPECT_LE(column.last, column.max);
  }
  EXPECT_EQ(max, MaxOf(values));
  EXPECT_EQ(columns.All().back().last, values.back().value);
  EXPECT_EQ(columns.All().back().place, values.back().place);
}

TEST(ViewColumns, AgreeWithAPlainListForValuesInAnyOrder) {
  std::mt19937_64 random(20260102);
  Columns columns;
  std::vector<Value> values;
  for (int i = 0; i < 10'000; ++i) {
    const Value value = {static_cast<std::int64_t>(random() % 1'000'000), static_cast<double>(random() % 1000)};
    values.push_back(value);
    columns.Add(value.place, value.value);
  }
  const std::int64_t width = columns.Width();
  for (std::size_t i = 0; i < columns.All().size(); i += 50) {
    const Column& column = columns.All()[i];
    const std::int64_t begin = column.first / width * width;
    double min = std::numeric_limits<double>::infinity();
    double max = -min;
    for (const Value& value : values) {
      if (value.place < begin || value.place >= begin + width) continue;
      min = std::min(min, value.value);
      max = std::max(max, value.value);
    }
    ASSERT_EQ(column.min, min);
    ASSERT_EQ(column.max, max);
  }
}

TEST(ViewColumns, FarApartPlacesNeedNoMoreMemory) {
  Columns columns;
  constexpr std::int64_t kEnd = std::numeric_limits<std::int64_t>::max() / 2;
  for (std::int64_t i = 0; i < 20'000; ++i) columns.Add(i % 2 == 0 ? i : kEnd - i, 1);
  EXPECT_LE(columns.All().size(), Columns::kCountMax);
  columns.DropBefore(kEnd - 100'000);
  EXPECT_FALSE(columns.All().empty());
}

TEST(ViewGaps, RegularReportHasOneWhereItPaused) {
  Pauses pauses;
  for (std::int64_t i = 0; i < 100; ++i) pauses.Add(i * 1000);
  EXPECT_THAT(pauses.Gaps(), IsEmpty());
  for (std::int64_t i = 0; i < 100; ++i) pauses.Add(700'000 + i * 1000);
  EXPECT_THAT(pauses.Gaps(), ElementsAre(Gap{.from = 99'000, .to = 700'000}));
}

TEST(ViewGaps, PausesBetweenBurstsAreNoGaps) {
  Pauses pauses;
  for (std::int64_t burst = 0; burst < 200; ++burst) {
    for (std::int64_t i = 0; i < 20; ++i) pauses.Add(burst * 600'000 + i);
  }
  EXPECT_THAT(pauses.Gaps(), IsEmpty());
  pauses.Add(500 * 600'000);
  EXPECT_EQ(pauses.Gaps().size(), 1U);
}

namespace {

class ViewReport : public testing::Test {
 protected:
  [[nodiscard]] std::string Path() const { return dir_.File("load"); }

  void Append(int first, int end, const std::string& stamp = "2026-01-31 10:", std::uint32_t slots = kSlots) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(Path().c_str(), slots));
    for (int i = first; i < end; ++i) ASSERT_TRUE(store.writeLine(TextOf(i, stamp).c_str()));
  }

  static std::string TextOf(int i, const std::string& stamp) {
    char text[64];
    std::snprintf(text, sizeof text, "%02d:%02d cpu=%d%% load=0.%d", i / 60 % 60, i % 60, i, i % 10);
    return stamp.empty() ? "cpu=" + std::to_string(i) : stamp + text;
  }

  Chart Draw(ReportIndex& index, const ChartRequest& request) {
    Drawing drawing = {.request = request};
    while (!drawing.work.is_done) Step(index, drawing);
    return drawing.chart;
  }

  template <typename Work>
  void Step(ReportIndex& index, Work& work) {
    const Error error = work.work.is_done ? Error() : index.Step(work, ++steps_ % 3 == 0);
    ASSERT_FALSE(error.Failed()) << error.text;
  }

  // The number of rows of a chart. The files may be damaged.
  [[nodiscard]] std::size_t RowsOfAnyFile() const {
    ReportIndex index(Path());
    Drawing drawing = {.request = {.fields = {"cpu"}}};
    while (!drawing.work.is_done && !index.Step(drawing, true).Failed()) continue;
    return drawing.chart.rows.size();
  }

  static constexpr std::uint32_t kSlots = 100;
  test::TempDir dir_;
  int steps_ = 0;  // every third step is the last one of a turn
};

// All values of a chart whose columns have one value each.
std::vector<double> ValuesOf(const Chart& chart, std::size_t field = 0) {
  std::vector<double> values;
  for (const ChartRow& row : chart.rows) {
    if (row.values[field].has_value()) values.push_back(row.values[field]->last);
  }
  return values;
}

// The values must be successive numbers, up to the last one before `end`.
void ExpectSuccessive(const std::vector<double>& values, std::uint64_t end) {
  ASSERT_FALSE(values.empty());
  EXPECT_EQ(values.back() + 1, static_cast<double>(end));
  for (std::size_t i = 1; i < values.size(); ++i) ASSERT_EQ(values[i], values[i - 1] + 1) << i;
}

}  // namespace

TEST_F(ViewReport, OnlyNewRecordsAreAddedToAChart) {
  Append(0, 5);
  ReportIndex index(Path());
  EXPECT_THAT(ValuesOf(Draw(index, {.fields = {"cpu"}})), ElementsAre(0, 1, 2, 3, 4));
  Append(5, 8);
  const Chart chart = Draw(index, {.fields = {"cpu", "load"}});
  EXPECT_THAT(ValuesOf(chart), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
  EXPECT_EQ(chart.cursor.next, 8U);
  EXPECT_THAT(ValuesOf(chart, 1), ElementsAre(0, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7)) << "a field that comes later";
}

TEST_F(ViewReport, RingThatWrapsDropsItsOldestColumns) {
  Append(0, 90);
  ReportIndex index(Path());
  (void)Draw(index, {.fields = {"cpu"}});
  Append(90, 250);
  const std::vector<double> values = ValuesOf(Draw(index, {.fields = {"cpu"}}));
  EXPECT_EQ(values.front(), 150);
  EXPECT_EQ(values.back(), 249);
  EXPECT_EQ(values.size(), 100U);
}

TEST_F(ViewReport, ReportThatIsStartedOverIsReadAgain) {
  Append(0, 50);
  ReportIndex index(Path());
  (void)Draw(index, {.fields = {"cpu"}});
  std::filesystem::remove(Path() + ".ind");
  std::filesystem::remove(Path() + ".dat");
  Append(60, 120, "2026-02-01 11:");
  const std::vector<double> values = ValuesOf(Draw(index, {.fields = {"cpu"}}));
  EXPECT_EQ(values.front(), 60);
  EXPECT_EQ(values.size(), 60U);
}

TEST_F(ViewReport, RecordsWithoutTimesAreDrawnByNumber) {
  Append(0, 7, "");
  ReportIndex index(Path());
  const Chart chart = Draw(index, {.fields = {"cpu"}});
  EXPECT_FALSE(chart.has_times);
  EXPECT_EQ(chart.range.from, 0);
  EXPECT_EQ(chart.range.to, 6);
  EXPECT_EQ(chart.rows.back().place, 6);
  Append(7, 9);
  EXPECT_TRUE(Draw(index, {.fields = {"cpu"}}).has_times) << "stamps appear later";
}

TEST_F(ViewReport, RangeIsDrawnFromItsRecords) {
  Append(0, 100);
  ReportIndex index(Path());
  const Chart all = Draw(index, {.fields = {"cpu"}});
  const std::int64_t from = all.range.from + 20'000;
  const Chart chart = Draw(index, {.fields = {"cpu"}, .from = from, .to = from + 4000});
  EXPECT_THAT(ValuesOf(chart), ElementsAre(20, 21, 22, 23, 24));
  std::vector<std::uint64_t> numbers;
  RangeReading reading = {.range = {.from = from, .to = from + 2000},
                          .begin = [&] { numbers.clear(); },
                          .take = [&](const PassedRecord& record) { numbers.push_back(record.number); }};
  while (!reading.work.is_done) Step(index, reading);
  EXPECT_EQ(reading.cursor.next, 100U);
  EXPECT_THAT(numbers, ElementsAre(20, 21, 22));
}

// Several requests for one report take steps in turn, while the report grows and its ring wraps.
TEST_F(ViewReport, InterleavedRequestsGetWhatEachWouldGetAlone) {
  Append(0, 60);
  ReportIndex index(Path(), 7);
  std::vector<double> numbers;
  RangeReading reading = {
      .range = {},
      .begin = [&] { numbers.clear(); },
      .take = [&](const PassedRecord& record) { numbers.push_back(static_cast<double>(record.number)); }};
  std::vector<Drawing> drawings = {{.request = {.fields = {"cpu"}}}};
  int rounds = 0;
  for (int end = 60; end < 220; end += 8) {
    if (end == 92 || end == 188) drawings.push_back({.request = {.fields = {"load", "cpu"}}});
    drawings.push_back({.request = {.fields = {"cpu"}}});
    for (Drawing& drawing : drawings) Step(index, drawing);
    Step(index, reading);
    rounds += drawings.front().work.is_done ? 0 : 1;
    Append(end, end + 8);
  }
  EXPECT_GT(rounds, 2) << "the work takes several steps";
  for (Drawing& drawing : drawings) {
    while (!drawing.work.is_done) Step(index, drawing);
    const std::vector<double> values = ValuesOf(drawing.chart, drawing.request.fields.size() - 1);
    ExpectSuccessive(values, drawing.chart.cursor.next);
    if (drawing.request.fields.size() < 2) continue;
    const std::vector<double> loads = ValuesOf(drawing.chart);
    ASSERT_EQ(loads.size(), values.size());
    for (std::size_t i = 0; i < loads.size(); ++i) EXPECT_EQ(loads[i], std::fmod(values[i], 10) / 10);
  }
  while (!reading.work.is_done) Step(index, reading);
  ExpectSuccessive(numbers, reading.cursor.next);
}

TEST_F(ViewReport, StartOverBetweenTwoStepsBeginsTheWorkAgain) {
  Append(0, 2500, "2026-01-31 10:", 3000);
  ReportIndex index(Path(), 100);
  std::vector<std::uint64_t> numbers;
  Drawing drawing = {.request = {.fields = {"cpu"}}};
  RangeReading reading = {.range = {},
                          .begin = [&] { numbers.clear(); },
                          .take = [&](const PassedRecord& record) { numbers.push_back(record.number); }};
  while (!reading.work.is_passing) Step(index, reading);
  ASSERT_FALSE(reading.work.is_done);
  Step(index, drawing);
  std::filesystem::remove(Path() + ".ind");
  std::filesystem::remove(Path() + ".dat");
  Append(60, 90, "2026-02-01 11:");
  while (!reading.work.is_done) Step(index, reading);
  while (!drawing.work.is_done) Step(index, drawing);
  EXPECT_EQ(reading.work.begins, 2);
  EXPECT_EQ(numbers.size(), 30U);
  EXPECT_EQ(ValuesOf(drawing.chart).front(), 60);
  EXPECT_EQ(ValuesOf(drawing.chart).size(), 30U);
}

TEST_F(ViewReport, HostileFilesAreAFailureOrAnEmptyChart) {
  Append(0, 100);
  const std::string index_bytes = test::ReadFile(Path() + ".ind");
  for (std::size_t byte = 0; byte < 32; ++byte) {
    for (const char value : {'\x7F', '\xFF'}) {
      std::string changed = index_bytes;
      changed[byte] = value;
      test::WriteFile(Path() + ".ind", changed);
      EXPECT_LE(RowsOfAnyFile(), 100U);
      EXPECT_LE(RecordTail(Path()).Read(std::nullopt, 50).records.size(), 50U);
    }
  }
  for (std::size_t size = 0; size < index_bytes.size(); size += 7) {
    test::WriteFile(Path() + ".ind", index_bytes.substr(0, size));
    (void)RowsOfAnyFile();
    (void)RecordTail(Path()).Read(std::nullopt, 50);
  }
}

TEST_F(ViewReport, TailContinuesAfterItsCursorAndSaysWhatIsLost) {
  Append(0, 10);
  RecordTail tail(Path());
  EXPECT_TRUE(tail.HasMoved());
  const RecordPage first = tail.Read(std::nullopt, 3);
  EXPECT_TRUE(first.is_reset);
  EXPECT_EQ(first.omitted, 7U);
  EXPECT_EQ(first.records.front().number, 7U);
  EXPECT_FALSE(tail.HasMoved());
  Append(10, 12);
  EXPECT_TRUE(tail.HasMoved());
  const RecordPage next = tail.Read(first.cursor, 500);
  EXPECT_FALSE(next.is_reset);
  EXPECT_EQ(next.records.size(), 2U);
  EXPECT_EQ(next.records.front().text, "2026-01-31 10:00:10 cpu=10% load=0.0\r\n");
  Append(12, 212);
  const RecordPage lost = tail.Read(next.cursor, 500);
  EXPECT_FALSE(lost.is_reset);
  EXPECT_EQ(lost.lost, 100U);
  EXPECT_EQ(lost.records.size(), 100U);
  std::filesystem::remove(Path() + ".ind");
  std::filesystem::remove(Path() + ".dat");
  EXPECT_TRUE(tail.HasMoved()) << "it is missing";
  EXPECT_EQ(tail.Read(lost.cursor, 500).error, ENOENT);
  Append(0, 212, "2026-02-01 11:");
  EXPECT_TRUE(tail.HasMoved());
  EXPECT_TRUE(tail.Read(lost.cursor, 500).is_reset) << "another record has that number";
}

TEST(ViewCursor, TextIsReadBackAndOthersAreRefused) {
  const Cursor cursor = {.next = 1204, .hash = 0xe5ad9b1904074ddb};
  EXPECT_EQ(TextOf(cursor), "1204-e5ad9b1904074ddb");
  EXPECT_EQ(CursorOf(TextOf(cursor)), cursor);
  for (const char* const text : {"", "-", "12", "x-1", "1-", "1-zz", "-1-2", "99999999999999999999-1"}) {
    EXPECT_EQ(CursorOf(text), std::nullopt) << text;
  }
}

}  // namespace qx::view
