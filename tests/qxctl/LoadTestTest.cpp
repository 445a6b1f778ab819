// Tests qxctl module load-test: a good module passes, and each fault of a bad module is found.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/qxctl/RunQxctl.h"
#include "tools/qxctl/trial/LatencyHistogram.h"

namespace qx::test {

namespace {

using ctl::LatencyHistogram;
using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;

class QxctlLoadTestThreads : public testing::Test, protected QxctlFixture {
 protected:
  QxctlLoadTestThreads() { MakeReport("load", 9, {"one", "two", "three", "four", "five"}); }

  Ran LoadTest(std::vector<std::string> arguments, const std::string& fault = "") const {
    Start start = StartHere();
    start.environment["ASAN_OPTIONS"] = "detect_leaks=0:quarantine_size_mb=1";  // the test itself must find the leak
    if (!fault.empty()) {
      start.environment["QX_REAL_MODULE"] = ModulePath();
      start.environment["QX_MODULE"] = QX_FAULTY_MODULE;
      start.environment["QX_FAULT"] = fault;
    }
    arguments.insert(arguments.begin(), {"module", "load-test", "--threads", "4"});
    return Qxctl(arguments, start);
  }

  // The kinds of the findings.
  std::vector<std::string> Findings(const std::string& fault, std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.end(), {"--requests", "2000", "--json"});
    const Ran ran = LoadTest(arguments, fault);
    EXPECT_EQ(ran.code, 1) << ran.err;
    std::vector<std::string> kinds;
    const json figures = json::parse(ran.out);
    for (const json& finding : figures["findings"]) kinds.push_back(finding["kind"]);
    return kinds;
  }
};

}  // namespace

TEST(LatencyHistogram, EmptyHistogramHasNoTimes) {
  const LatencyHistogram histogram;
  EXPECT_EQ(histogram.Count(), 0U);
  EXPECT_EQ(histogram.Percentile(0.5), 0U);
  EXPECT_TRUE(histogram.Octaves().empty());
}

TEST(LatencyHistogram, TimesBelowSixtyFourNanosecondsAreExact) {
  LatencyHistogram histogram;
  for (std::uint64_t ns = 0; ns < 64; ++ns) histogram.Add(ns);
  for (unsigned percent = 1; percent <= 100; ++percent) {
    EXPECT_EQ(histogram.Percentile(percent / 100.0), (percent * 64 + 99) / 100 - 1) << percent;
  }
}

TEST(LatencyHistogram, PercentileIsAtMostOneThirtySecondAboveTheTrueOne) {
  for (std::uint64_t ns = 1; ns < std::uint64_t{1} << 62; ns += ns / 7 + 1) {
    LatencyHistogram histogram;
    histogram.Add(ns);
    histogram.Add(~std::uint64_t{0});  // so that the maximum does not cut the bucket
    EXPECT_GE(histogram.Percentile(0.5), ns);
    EXPECT_LE(histogram.Percentile(0.5) - ns, ns / 32) << ns;
  }
}

TEST(LatencyHistogram, LongestTimeIsTheLastPercentile) {
  LatencyHistogram histogram;
  histogram.Add(1000001);
  histogram.Add(3);
  EXPECT_EQ(histogram.Percentile(1), 1000001U);
  EXPECT_EQ(histogram.Max(), 1000001U);
}

TEST(LatencyHistogram, SumOfHistogramsHasEveryTime) {
  LatencyHistogram one;
  LatencyHistogram other;
  for (const std::uint64_t ns : {100U, 120U, 5000U}) one.Add(ns);
  for (const std::uint64_t ns : {127U, 128U}) other.Add(ns);
  one.Add(other);
  EXPECT_EQ(one.Count(), 5U);
  const std::vector<LatencyHistogram::Bucket> octaves = one.Octaves();
  ASSERT_EQ(octaves.size(), 7U);
  EXPECT_EQ(octaves.front().from_ns, 64U);
  EXPECT_EQ(octaves.front().to_ns, 127U);
  EXPECT_EQ(octaves.front().count, 3U);
  EXPECT_EQ(octaves[1].count, 1U);
  EXPECT_EQ(octaves[2].count, 0U);
  EXPECT_EQ(octaves.back().count, 1U);
}

TEST_F(QxctlLoadTestThreads, GoodModulePassesWithAllFourRequests) {
  const Ran ran = LoadTest({"--requests", "2000", "--report", "load", "--records", "2", "--exact", "--json"});
  EXPECT_EQ(ran.code, 0) << ran.err << ran.out;
  const json figures = json::parse(ran.out);
  EXPECT_EQ(figures["requests"], 2000);
  EXPECT_EQ(figures["warmUpRequests"], 200);
  EXPECT_EQ(figures["threads"], 4);
  EXPECT_EQ(figures["failures"], 0);
  EXPECT_EQ(figures["unmapped"], true);
  EXPECT_EQ(figures["descriptors"]["beforeLoad"], figures["descriptors"]["afterUnload"]);
  EXPECT_TRUE(figures["findings"].empty());
  EXPECT_GT(figures["latency"]["maxSeconds"], 0);
  std::uint64_t in_histogram = 0;
  for (const json& bucket : figures["latency"]["histogram"]) in_histogram += bucket["requests"].get<std::uint64_t>();
  EXPECT_EQ(in_histogram, 2000U);
}

TEST_F(QxctlLoadTestThreads, TextHasALineForEachFigure) {
  const Ran ran = LoadTest({"--requests", "400"});
  EXPECT_EQ(ran.code, 0) << ran.err << ran.out;
  for (const char* const line :
       {"requests      400 in ", "failures      0\n", "rate          ", "latency       p50 ", ", p99.9 ",
        "memory        resident ", "descriptors   ", "unload        the module is unmapped"}) {
    EXPECT_THAT(ran.out, HasSubstr(line));
  }
}

TEST_F(QxctlLoadTestThreads, DurationEndsTheLoad) {
  const Ran ran = LoadTest({"--duration", "0.2", "--mix", "what", "--json"});
  EXPECT_EQ(ran.code, 0) << ran.err << ran.out;
  EXPECT_GT(json::parse(ran.out)["requests"], 0);
}

TEST_F(QxctlLoadTestThreads, RepliesOfAnotherModuleAreReportedFailures) {
  const Ran ran = LoadTest({"--requests", "2000"}, "wrong-reply");
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr("What: another reply than the first time; result 0, reply <Other/>"));
  EXPECT_THAT(Findings("wrong-reply"), Contains("failures"));
}

TEST_F(QxctlLoadTestThreads, LeakedMemoryIsFound) {
  EXPECT_THAT(Findings("leak-memory", {"--growth", "4096"}), Contains("memory"));
}

TEST_F(QxctlLoadTestThreads, LeakedDescriptorsAreFound) {
  EXPECT_THAT(Findings("leak-descriptors", {"--mix", "reflect"}), testing::ElementsAre("descriptors"));
  EXPECT_THAT(Findings("leak-one"), testing::ElementsAre("descriptors")) << "a single one, at the unload";
}

TEST_F(QxctlLoadTestThreads, ModuleThatStaysMappedIsFound) { EXPECT_THAT(Findings("stay-mapped"), Contains("unload")); }

TEST_F(QxctlLoadTestThreads, ServingARefusedCallerIsAFailure) {
  const Ran refused = LoadTest({"--requests", "100", "--report", "load", "--user", "bob"});
  EXPECT_EQ(refused.code, 5) << "nothing to measure: the first poll is refused";
  EXPECT_THAT(refused.err, HasSubstr("AccessPerformanceMgr"));
}

TEST_F(QxctlLoadTestThreads, MissingReportIsNotFound) {
  EXPECT_EQ(LoadTest({"--requests", "100", "--report", "none"}).code, 4);
}

TEST_F(QxctlLoadTestThreads, EmptyReportIsATransferWithoutRecords) {
  MakeReport("empty", 9, {});
  const Ran ran = LoadTest({"--requests", "400", "--report", "empty", "--mix", "reports,names"});
  EXPECT_EQ(ran.code, 0) << ran.err;
}

TEST_F(QxctlLoadTestThreads, ReportsWithoutANameIsAUsageError) {
  EXPECT_EQ(LoadTest({"--mix", "reports"}).code, 2);
  EXPECT_EQ(LoadTest({"--mix", "other"}).code, 2);
  EXPECT_EQ(LoadTest({"--requests", "1", "--duration", "1"}).code, 2);
  EXPECT_EQ(LoadTest({"--threads", "0"}).code, 2);
}

}  // namespace qx::test
