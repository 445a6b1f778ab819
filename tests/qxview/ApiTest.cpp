// Tests the documents of the API, and the events that the server sends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxview/ViewServer.h"
#include "tests/support/Support.h"
#include "tools/qxctl/doctor/Explanations.h"

namespace qx::test {

namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr milliseconds kSoon{5000};

class ViewApi : public testing::Test {
 protected:
  ViewApi() {
    for (const char* const name : {"reports", "reports/host1", "traces"})
      std::filesystem::create_directory(dir_.File(name));
  }

  // "2026-01-31 10:20:SS cpu=N% load=0.N"
  void Append(int first, int end, const std::string& report = "load", std::uint32_t slots = 50) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("reports/" + report).c_str(), slots));
    for (int i = first; i < end; ++i) {
      char text[80];
      std::snprintf(text, sizeof text, "2026-01-31 10:%02d:%02d cpu=%d%% load=0.%d", 20 + i / 60, i % 60, i, i % 10);
      ASSERT_TRUE(store.writeLine(text));
    }
  }
  void Remove(const std::string& report) {
    for (const char* const ending : {".ind", ".dat"}) std::filesystem::remove(dir_.File("reports/" + report + ending));
  }
  void Trace(const std::string& time, const std::string& text) {
    std::ofstream file(dir_.File("traces/log.one"), std::ios::app);
    file << "2026-01-31 " << time << " [0A1B2C3D] QxTrace       " << text << "\n";
  }

  void Start() {
    server_ = std::make_unique<ViewServer>(ViewServer::Words{"--reports", dir_.File("reports"), "--traces",
                                                             dir_.File("traces"), "--state", dir_.File("state")});
    if (cookie_.empty()) {
      ASSERT_EQ(server_->LogIn().status, 204);
      cookie_ = server_->Cookie();
    }
  }

  // Requests a document, and adds it to those whose schema is checked.
  json Get(const std::string& schema, const std::string& target) {
    const WebReply reply = server_->Get(target);
    documents_ += schema + " " + reply.body + (reply.body.ends_with('\n') ? "" : "\n");
    json document = json::parse(reply.body, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << reply.body;
    return document;
  }

  // Opens a stream of a report that begins after the newest record.
  WebConnection Follow(const std::string& report, const std::string& more = "") {
    const std::string cursor = Get("qxview-records", "records?report=" + report)["cursor"];
    return server_->Events("view=report&report=" + report + "&after=" + cursor + more);
  }

  // The faults of the documents so far, according to their schemas.
  [[nodiscard]] std::string Faults() const {
    WriteFile(dir_.File("documents"), documents_);
    const std::string source = QX_SOURCE_DIR;
    const std::string command = "/usr/bin/python3 -W ignore " + source + "/tests/qxview/check_documents.py " + source +
                                "/docs/schemas <" + dir_.File("documents") + " >" + dir_.File("faults") + " 2>&1";
    const int code = std::system(command.c_str());
    return ReadFile(dir_.File("faults")) + (code == 0 ? "" : "failed");
  }

  // The data of the next event with this name.
  static json Next(WebConnection& stream, const std::string& name) {
    const std::string head = "event: " + name + "\ndata: ";
    if (!stream.WaitFor(head, kSoon)) return {};
    const std::size_t at = stream.Text().find(head) + head.size();
    EXPECT_TRUE(stream.WaitFor("\n\n", kSoon));
    std::string data = stream.Text().substr(at);
    while (data.find("\n\n") == std::string::npos && stream.WaitFor(data + "\n\n", milliseconds(50))) continue;
    json document = json::parse(stream.Text().substr(at, stream.Text().find("\n\n", at) - at), nullptr, false);
    stream.Clear();
    return document;
  }

  static std::vector<std::uint64_t> Indices(const json& document) {
    std::vector<std::uint64_t> indices;
    for (const json& record : document.value("records", json::array())) indices.push_back(record["index"]);
    return indices;
  }

  TempDir dir_;
  std::unique_ptr<ViewServer> server_;
  std::string cookie_;
  std::string documents_;
};

}  // namespace

TEST_F(ViewApi, EveryDocumentMatchesItsSchema) {
  Append(0, 30);
  Append(0, 5, "host1/empty time", 5);
  WriteFile(dir_.File("reports/half.ind"), "x");
  WriteFile(dir_.File("reports/load.names"),
            "[Quaxel Report Instances]\nVersion=1\nName=load\n\n[Names]\n1=North\n2=South <R&D>\n");
  Trace("10:20:30.123", "## WARNING! slow");
  Trace("10:20:31.123", "done");
  Start();
  Get("qxview-overview", "overview");
  Get("qxview-overview", "overview?report=load");
  Get("qxctl-report-info", "report?report=load");
  Get("qxctl-names", "names?report=load");
  Get("qxview-fields", "fields?report=load");
  Get("qxview-chart", "chart?report=load&field=cpu&field=load&columns=7");
  Get("qxview-chart", "chart?report=load&field=nothing");
  Get("qxview-records", "records?report=load&newest=3");
  Get("qxview-records", "records?report=host1%2Fempty%20time&filter=CPU%3D3");
  Get("qxview-traces", "traces?newest=10");
  Get("qxctl-doctor", "findings");
  Get("qxview-changes", "changes?view=overview");
  Get("qxview-changes", "changes?view=health");
  Get("qxview-changes", "changes?view=report&report=load&traces=1&after=0-0");
  Get("qxview-failure", "chart?report=none");
  Get("qxctl-names", "names?report=host1%2Fempty%20time");
  Get("qxview-failure", "nothing");
  EXPECT_EQ(Faults(), "");
  documents_ = "qxview-failure {\"code\":\"QX6\"}\n";
  EXPECT_THAT(Faults(), HasSubstr("failed")) << "a fault is noticed";
}

TEST_F(ViewApi, ReportNameNeedNotBeUtf8) {
  Append(0, 5, "host1/caf\xe9");
  Start();
  const std::string name = "report=host1/caf%E9";
  const std::string base64 = "aG9zdDEvY2Fm6Q==";
  const json row = Get("qxview-overview", "overview")["reports"][0];
  EXPECT_EQ(row["report"], nullptr);
  EXPECT_EQ(row["reportBase64"], base64);
  EXPECT_EQ(Get("qxview-overview", "overview?" + name)["reports"].size(), 1U);
  EXPECT_EQ(Get("qxview-fields", "fields?" + name)["fields"].size(), 2U);
  EXPECT_EQ(Get("qxview-chart", "chart?field=cpu&" + name)["reportBase64"], base64);
  EXPECT_THAT(Indices(Get("qxview-records", "records?" + name)), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_EQ(Get("qxctl-names", "names?" + name)["reportBase64"], base64);
  Get("qxctl-report-info", "report?" + name);
  Get("qxview-changes", "changes?view=report&after=0-0&" + name);
  Get("qxview-failure", "chart?report=no%E9");
  EXPECT_EQ(Faults(), "");
  const WebReply text = server_->Get("text?" + name);
  EXPECT_EQ(text.Header("Content-Disposition"), "attachment; filename=\"host1_caf_.txt\"");
  EXPECT_THAT(text.body, HasSubstr("cpu=4%"));
  WebConnection stream = server_->Events("view=report&after=0-0&" + name);
  EXPECT_EQ(Next(stream, "records")["reportBase64"], base64);
}

TEST_F(ViewApi, ChartHasMinimumMaximumAndLastOfEachColumn) {
  Append(0, 40);
  Start();
  const json chart = Get("qxview-chart", "chart?report=load&field=cpu&field=load&columns=2");
  EXPECT_EQ(chart["axis"], "time");
  EXPECT_EQ(chart["columns"].size(), 2U);
  EXPECT_EQ(chart["columns"][0]["values"], json::parse("[[0,19,19],[0,0.9,0.9]]"));
  EXPECT_EQ(chart["columns"][1]["values"], json::parse("[[20,39,39],[0,0.9,0.9]]"));
  EXPECT_EQ(chart["to"].get<std::int64_t>() - chart["from"].get<std::int64_t>(), 39'000);
}

TEST_F(ViewApi, OverviewIsWorstFirst) {
  Append(0, 3, "b-old");
  Append(0, 3, "a-sound");
  WriteFile(dir_.File("reports/z-half.ind"), std::string(28, '\0'));
  std::filesystem::last_write_time(dir_.File("reports/b-old.ind"),
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(3));
  Start();
  const json overview = Get("qxview-overview", "overview");
  std::vector<std::string> names;
  for (const json& row : overview["reports"]) names.push_back(row["report"]);
  EXPECT_THAT(names, ElementsAre("b-old", "z-half", "a-sound"));
  EXPECT_EQ(overview["reports"][0]["findings"], json::parse("[\"QX308\"]"));
  EXPECT_GE(overview["reports"][0]["silentSeconds"], 10'800);
  EXPECT_EQ(overview["reports"][1]["findings"], json::parse("[\"QX304\"]"));
  EXPECT_EQ(overview["reports"][2]["severity"], "ok");
}

TEST_F(ViewApi, NewRecordsComeWithoutAsking) {
  Append(0, 3);
  Start();
  const std::string cursor = Get("qxview-records", "records?report=load")["cursor"];
  Append(3, 5);
  WebConnection stream = server_->Events("view=report&report=load&after=" + cursor);
  EXPECT_THAT(Indices(Next(stream, "records")), ElementsAre(3, 4)) << "what came since the cursor";
  Append(5, 6);
  const json document = Next(stream, "records");
  EXPECT_THAT(Indices(document), ElementsAre(5));
  EXPECT_EQ(document["reset"], false);
  EXPECT_EQ(document["records"][0]["fields"]["cpu"], 5);
}

TEST_F(ViewApi, FilterOfAStreamLeavesOutOtherRecords) {
  Append(0, 1);
  Start();
  WebConnection stream = Follow("load", "&filter=CPU%3D4%25");
  Append(1, 6);
  EXPECT_THAT(Indices(Next(stream, "records")), ElementsAre(4));
}

TEST_F(ViewApi, RingThatWrapsReportsWhatIsLost) {
  Append(0, 10, "small", 5);
  Start();
  const std::string cursor = Get("qxview-records", "records?report=small")["cursor"];
  Append(10, 18, "small", 5);
  const json document = Get("qxview-records", "records?report=small&after=" + cursor);
  EXPECT_EQ(document["lost"], 3);
  EXPECT_THAT(Indices(document), ElementsAre(13, 14, 15, 16, 17));
}

TEST_F(ViewApi, ReportThatIsStartedOverResetsItsPages) {
  Append(0, 10);
  Start();
  WebConnection stream = Follow("load");
  ASSERT_TRUE(stream.WaitFor("event: overview", kSoon));
  stream.Clear();
  Remove("load");
  Append(20, 23);
  const json document = Next(stream, "records");
  EXPECT_EQ(document["reset"], true);
  EXPECT_THAT(Indices(document), ElementsAre(0, 1, 2));
}

TEST_F(ViewApi, PageContinuesAfterARestartOfTheServer) {
  Append(0, 3);
  Start();
  WebConnection stream = Follow("load");
  Append(3, 4);
  ASSERT_TRUE(stream.WaitFor("event: records", kSoon));
  const std::size_t at = stream.Text().rfind("id: ") + 4;
  const std::string id = stream.Text().substr(at, stream.Text().find('\n', at) - at);
  const std::string host = "localhost:" + std::to_string(server_->Port());
  EXPECT_EQ(server_->End(SIGTERM), 0);
  EXPECT_TRUE(stream.WaitForEnd(kSoon));
  Append(4, 6);
  Start();
  server_->UseCookie(cookie_);
  WebConnection again(server_->Port());
  ASSERT_TRUE(again.Send(server_->Bytes(
      {.target = "/api/v1/events?view=report&report=load", .headers = {{"Host", host}, {"Last-Event-ID", id}}})));
  EXPECT_THAT(Indices(Next(again, "records")), ElementsAre(4, 5));
}

TEST_F(ViewApi, ChangesAreTheSameEventsOnce) {
  Append(0, 3);
  Start();
  const json first = Get("qxview-changes", "changes?view=report&report=load");
  EXPECT_THAT(first["events"][0]["event"], "overview");
  Append(3, 5);
  const json next =
      Get("qxview-changes", "changes?view=report&report=load&after=" + first["cursor"].get<std::string>());
  EXPECT_EQ(next["events"][0]["event"], "records");
  EXPECT_THAT(Indices(next["events"][0]["data"]), ElementsAre(3, 4));
  EXPECT_EQ(Faults(), "");
}

TEST_F(ViewApi, TracesOfAllFilesAreMergedAndFollowed) {
  Trace("10:20:30.100", "first");
  Trace("10:20:32.100", "## ERROR! third");
  WriteFile(dir_.File("traces/log.two"), "2026-01-31 10:20:31.100 [0A1B2C3D] Other         second\n");
  Start();
  const json all = Get("qxview-traces", "traces");
  std::vector<std::string> texts;
  for (const json& entry : all["entries"]) texts.push_back(entry["text"]);
  EXPECT_THAT(texts, ElementsAre("first", "second", "## ERROR! third"));
  EXPECT_EQ(Get("qxview-traces", "traces?level=error")["entries"].size(), 1U);
  WebConnection stream = server_->Events("view=traces&after=" + all["cursor"].get<std::string>());
  Trace("10:20:33.100", "fourth");
  const json document = Next(stream, "traces");
  EXPECT_EQ(document["reset"], false);
  EXPECT_EQ(document["entries"][0]["text"], "fourth");
  const json after = Get("qxview-traces", "traces?after=" + all["cursor"].get<std::string>());
  EXPECT_EQ(after["entries"].size(), 1U);
  EXPECT_EQ(Get("qxview-traces", "traces?after=0.0")["reset"], true) << "a cursor of another run";
  EXPECT_EQ(Faults(), "");
}

// Only the newest entry of a log may come again, because a follower waits until this entry is complete.
TEST_F(ViewApi, EntriesOfANewTraceFileAreShownOnce) {
  Trace("10:20:30.100", "first");
  Start();
  (void)Get("qxview-traces", "traces");  // from now on the files are followed
  const std::string head = "2026-01-31 10:20:31.100 [0A1B2C3D] Other         ";
  WriteFile(dir_.File("traces/log.two"), head + "second\n" + head + "newest\n");
  const json all = Get("qxview-traces", "traces");
  EXPECT_EQ(all["entries"].size(), 3U);
  WebConnection stream = server_->Events("view=traces&after=" + all["cursor"].get<std::string>());
  WriteFile(dir_.File("traces/log.three"), head + "third\n");
  ASSERT_TRUE(stream.WaitFor("third", kSoon)) << "after the next search for files";
  EXPECT_THAT(stream.Text(), Not(HasSubstr("second")));
}

// The entries of two files alternate; 250 entries of each have the same millisecond as an entry of the other.
TEST_F(ViewApi, MoreThanAThousandTracesArePagedBackToTheOldest) {
  std::string logs[2];
  std::vector<std::string> expected;
  for (int i = 0; i < 2500; ++i) {
    char line[80];
    const int ms = i - (i % 10 == 1 ? 1 : 0);
    std::snprintf(line, sizeof line, "2026-01-31 10:20:%02d.%03d [0A1B2C3D] QxTrace       entry %d\n", ms / 1000,
                  ms % 1000, i);
    logs[i % 2] += line;
    expected.push_back("entry " + std::to_string(i));
  }
  WriteFile(dir_.File("traces/log.a"), logs[0]);
  WriteFile(dir_.File("traces/log.b"), logs[1]);
  Start();
  std::vector<std::string> texts;
  int requests = 0;
  for (json page = Get("qxview-traces", "traces?newest=1000");;
       page = Get("qxview-traces", "traces?newest=1000&before=" + page["before"].get<std::string>())) {
    std::vector<std::string> found;
    for (const json& entry : page["entries"]) found.push_back(entry["text"]);
    texts.insert(texts.begin(), found.begin(), found.end());
    Trace("10:30:00.000", "later");
    if (++requests > 3 || !page.contains("before")) break;
  }
  EXPECT_EQ(requests, 3);
  EXPECT_EQ(texts, expected);
  EXPECT_EQ(server_->Get("traces?before=1.2.x").status, 400);
  EXPECT_EQ(Faults(), "");
}

TEST_F(ViewApi, PlaceOfAnOverwrittenTraceIsItsTime) {
  for (int i = 0; i < 6; ++i) Trace("10:20:3" + std::to_string(i) + ".000", "entry " + std::to_string(i));
  WriteFile(dir_.File("traces/log.two"), "2026-01-31 10:20:33.500 [0A1B2C3D] Other         in between\n");
  Start();
  const std::string before = Get("qxview-traces", "traces?newest=3")["before"];
  std::filesystem::remove(dir_.File("traces/log.two"));
  const json page = Get("qxview-traces", "traces?newest=3&level=&before=" + before);
  EXPECT_EQ(page["entries"].size(), 3U);
  EXPECT_EQ(page["entries"][2]["text"], "entry 3");
}

TEST_F(ViewApi, DownloadHasEveryRecordOfTheReport) {
  Append(0, 3000, "long", 2000);
  Start();
  std::string expected;
  for (const auto& [first, end] : {std::pair{1000, 3000}}) {
    for (int i = first; i < end; ++i) expected += "cpu=" + std::to_string(i) + "%";
  }
  const std::string text = server_->Get("text?report=long").body;
  std::string found;
  for (std::size_t at = text.find("cpu="); at != std::string::npos; at = text.find("cpu=", at + 1)) {
    found += text.substr(at, text.find('%', at) + 1 - at);
  }
  EXPECT_EQ(found, expected);
  EXPECT_EQ(server_->Get("text?report=long&filter=cpu%3D2999%25").body, "2026-01-31 10:69:59 cpu=2999% load=0.9\r\n");
}

TEST_F(ViewApi, PagesAreServedWithTagsAndTheChartsLibrary) {
  Start();
  const WebReply page = server_->Ask({.target = "/"});
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.Header("Content-Type"), "text/html; charset=utf-8");
  const WebReply script = server_->Ask({.target = "/assets/main.js"});
  EXPECT_EQ(script.Header("Content-Type"), "text/javascript; charset=utf-8");
  EXPECT_EQ(script.body, ReadFile(std::string(QX_SOURCE_DIR) + "/tools/qxview/web/main.js"));
  const WebReply same =
      server_->Ask({.target = "/assets/main.js", .headers = {{"If-None-Match", script.Header("ETag")}}});
  EXPECT_EQ(same.status, 304);
  EXPECT_THAT(same.body, IsEmpty());
  EXPECT_THAT(server_->Ask({.target = "/assets/dygraph.min.js"}).body, HasSubstr("Dygraph"));
}

TEST(ViewCodes, EachIsExplainedAndInThePage) {
  const std::string page = ReadFile(std::string(QX_SOURCE_DIR) + "/docs/qxview-api.md");
  int codes = 0;
  for (const ctl::Explanation& one : ctl::AllExplanations()) {
    if (one.kind != ctl::ExplainedKind::kView) continue;
    ++codes;
    EXPECT_THAT(page, HasSubstr("| `" + std::string(one.code) + "` | ")) << one.code;
    EXPECT_THAT(page, HasSubstr(std::string(one.meaning))) << one.code;
  }
  EXPECT_EQ(codes, 12);
}

}  // namespace qx::test
