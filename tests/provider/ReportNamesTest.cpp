// Tests the instance names of a report: the reply to a call for each kind of names file, and its trace.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/provider/TraceLines.h"
#include "tests/provider/TransferFixture.h"

namespace {

using qx::test::BlockBuilder;
using qx::test::DocExample;
using qx::test::OpenDescriptors;
using qx::test::Records;
using qx::test::Reply;
using qx::test::ServiceThread;
using qx::test::TraceCapture;
using qx::test::TraceLines;
using qx::test::Upto;
using qx::test::WriteFile;

constexpr char kRefusal[] =
    "<Error Msg=\"Required security privilege &quot;AccessPerformanceMgr&quot; missing - access not granted!\" "
    "LastError=\"1313\"/>\n";
const Reply kNotFound{12, "<Error Msg=\"Report instance names file not found\" LastError=\"2\"/>\n", true};

std::string Request(const std::string& name) { return "<ReportInstanceNames Name=\"" + name + "\"/>"; }

Reply Call(ServiceThread& thread, const std::string& input) {
  KrxRequestParams params(thread.Block());
  CMarkup in;
  (void)in.SetDoc(input.c_str());
  CMarkup out;
  CFileTransferProvider provider;
  const int result = provider.GetReportInstanceNames(params, in, out);
  return {result, out.GetDoc(), out.IsWellFormed()};
}

class ReportNames : public qx::test::TransferFixture {
 protected:
  void NamesFile(const std::string& name, const std::string& text) const {
    WriteFile(directory_.File(name + ".names"), text);
  }
  // A file of version 1 with `entries` in its section of names.
  void Names(const std::string& name, const std::string& entries) const {
    NamesFile(name, "[Quaxel Report Instances]\nVersion=1\nName=" + name + "\n\n[Names]\n" + entries);
  }
  Reply Ask(const std::string& name) {
    ServiceThread thread;
    return Call(thread, Request(name));
  }
};

// A list of one instance with the key 1.
Reply OneInstance(const std::string& escaped_name) {
  return {0,
          "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"1\">\n<Instance Nr=\"1\">" + escaped_name +
              "</Instance>\n</ReportInstanceNames>\n",
          true};
}

TEST_F(ReportNames, KeysAndValuesOfTheNamesSectionAreTheInstances) {
  Names("r", "1=North\n2=South\n");
  EXPECT_EQ(Ask("r"), (Reply{0,
                             "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"2\">\n"
                             "<Instance Nr=\"1\">North</Instance>\n"
                             "<Instance Nr=\"2\">South</Instance>\n"
                             "</ReportInstanceNames>\n",
                             true}));
}

TEST_F(ReportNames, InstancesAreListedInTheOrderOfTheFile) {
  Names("r", "b=2\na=1\n10=3\n9=4\n");
  EXPECT_EQ(Ask("r").document,
            "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"4\">\n"
            "<Instance Nr=\"b\">2</Instance>\n<Instance Nr=\"a\">1</Instance>\n"
            "<Instance Nr=\"10\">3</Instance>\n<Instance Nr=\"9\">4</Instance>\n</ReportInstanceNames>\n");
}

TEST_F(ReportNames, MarkupInAnInstanceNameIsEscapedOnce) {
  Names("r", "1=a<b & c>\"d\" 'e' &amp ]]>\n");
  EXPECT_EQ(Ask("r"), OneInstance("a&lt;b &amp; c&gt;\"d\" 'e' &amp;amp ]]&gt;"));
}

TEST_F(ReportNames, EveryByteValueArrivesAsOneCharacterOrReference) {
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '\n' || byte == ';') continue;  // they end a value
    const char c = static_cast<char>(byte);
    Names("r", std::string("1=a") + c + "b\n");
    std::string escaped(1, c);
    if (byte < 0x20 || byte > 0x7E) {
      char reference[8];
      std::snprintf(reference, sizeof reference, "&#x%02X;", static_cast<unsigned>(byte));
      escaped = reference;
    }
    if (c == '<') escaped = "&lt;";
    if (c == '>') escaped = "&gt;";
    if (c == '&') escaped = "&amp;";
    EXPECT_EQ(Ask("r"), OneInstance("a" + escaped + "b")) << "byte " << byte;
  }
}

TEST_F(ReportNames, MarkupInAKeyIsEscapedAsAnAttribute) {
  Names("r", "<\"&'>=x\n");
  EXPECT_EQ(Ask("r").document,
            "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"1\">\n"
            "<Instance Nr=\"&lt;&quot;&amp;&apos;&gt;\">x</Instance>\n</ReportInstanceNames>\n");
}

TEST_F(ReportNames, RequestedNameIsReturnedAndNotTheOneInTheFile) {
  Names("R&D \xC3\xA4", "");
  NamesFile("R&D \xC3\xA4", "[Quaxel Report Instances]\nVersion=1\nName=other\n");
  EXPECT_EQ(Ask("R&amp;D \xC3\xA4").document,
            "<ReportInstanceNames Name=\"R&amp;D &#xC3;&#xA4;\" Version=\"1\" NrInstances=\"0\"/>\n");
}

TEST_F(ReportNames, QuirkReferenceInTheRequestedNameIsKept) {
  Names("a&lt;b", "");
  EXPECT_EQ(Ask("a&amp;lt;b").document, "<ReportInstanceNames Name=\"a&lt;b\" Version=\"1\" NrInstances=\"0\"/>\n");
}

TEST_F(ReportNames, WithoutEntriesOrTheirSectionTheListIsEmpty) {
  const Reply empty{0, "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"0\"/>\n", true};
  Names("r", "");
  EXPECT_EQ(Ask("r"), empty);
  NamesFile("r", "[Quaxel Report Instances]\nVersion=1\n");
  EXPECT_EQ(Ask("r"), empty);
}

TEST_F(ReportNames, EntryWithoutValueIsAnInstanceWithoutName) {
  Names("r", "1=\n2=x\n");
  EXPECT_EQ(Ask("r").document,
            "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"2\">\n"
            "<Instance Nr=\"1\"></Instance>\n<Instance Nr=\"2\">x</Instance>\n</ReportInstanceNames>\n");
}

TEST_F(ReportNames, QuirkRepeatedKeyIsListedTwiceWithItsFirstName) {
  Names("r", "1=a\n1=b\n");
  EXPECT_EQ(Ask("r").document,
            "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"2\">\n"
            "<Instance Nr=\"1\">a</Instance>\n<Instance Nr=\"1\">a</Instance>\n</ReportInstanceNames>\n");
}

TEST_F(ReportNames, QuirkFileOfAnotherVersionHasNoErrorAndNoReply) {
  for (const char* const version : {"Version=2\n", "Version=0\n", "Version=x\n", "Version=\n", ""}) {
    NamesFile("r", std::string("[Quaxel Report Instances]\n") + version + "[Names]\n1=North\n");
    EXPECT_EQ(Ask("r"), (Reply{0, "", false})) << version;
  }
  NamesFile("r", "[Names]\n1=North\n");
  EXPECT_EQ(Ask("r"), (Reply{0, "", false}));
  NamesFile("r", "");
  EXPECT_EQ(Ask("r"), (Reply{0, "", false}));
}

TEST_F(ReportNames, VersionIsANumberInAnyBase) {
  NamesFile("r", "[Quaxel Report Instances]\nVersion=0x1\n");
  EXPECT_EQ(Ask("r").document, "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"0\"/>\n");
}

TEST_F(ReportNames, WithoutANamesFileTheResultIs12) { EXPECT_EQ(Ask("r"), kNotFound); }

TEST_F(ReportNames, ErrorNumberIs2ForEveryFileThatCannotBeOpened) {
  (void)mkdir(directory_.File("folder.names").c_str(), 0755);
  EXPECT_EQ(Ask("folder"), kNotFound);
  EXPECT_EQ(Ask(std::string(300, 'x')), kNotFound);
}

TEST_F(ReportNames, EmptyNameIsUsedUnchanged) {
  EXPECT_EQ(Ask(""), kNotFound);
  NamesFile("", "[Quaxel Report Instances]\nVersion=1\n");
  EXPECT_EQ(Ask(""), (Reply{0, "<ReportInstanceNames Name=\"\" Version=\"1\" NrInstances=\"0\"/>\n", true}));
}

TEST_F(ReportNames, NameOutsideTheReportDirectoryIsNotFound) {
  (void)mkdir(directory_.File("sub").c_str(), 0755);
  NamesFile("r", "[Quaxel Report Instances]\nVersion=1\n");
  EXPECT_EQ(Ask("sub/../r"), kNotFound);
  EXPECT_EQ(Ask("r").result, 0);
}

TEST_F(ReportNames, NameMayBeInASubdirectory) {
  (void)mkdir(directory_.File("sub").c_str(), 0755);
  Names("sub/r", "1=x\n");
  EXPECT_EQ(Ask("sub/r").result, 0);
}

TEST_F(ReportNames, MissingRequestElementIsRefusedAndTheEmptyNameNotFound) {
  ServiceThread thread;
  EXPECT_EQ(Call(thread, "<ReportData Name=\"r\"/>"), kNotFound);
  EXPECT_EQ(Call(thread, "<ReportInstanceNames>"), kNotFound);  // not well formed
  EXPECT_EQ(Call(thread, ""), kNotFound);
}

TEST_F(ReportNames, ListAfterARefusalIsNotSent) {
  Names("r", "1=secret\n");
  ServiceThread refused(std::vector<const char*>{"Other"});
  const Reply reply = Call(refused, Request("r"));
  EXPECT_EQ(reply.result, 0);
  EXPECT_EQ(reply.document, kRefusal + OneInstance("secret").document);
  EXPECT_FALSE(reply.is_well_formed);

  ServiceThread admitted(std::vector<const char*>{"AccessPerformanceMgr"});
  EXPECT_EQ(Call(admitted, Request("r")), OneInstance("secret"));
}

TEST_F(ReportNames, OtherVersionLeavesTheRefusalUnchanged) {
  NamesFile("r", "[Quaxel Report Instances]\nVersion=2\n");
  ServiceThread refused(std::vector<const char*>{"Other"});
  EXPECT_EQ(Call(refused, Request("r")), (Reply{0, kRefusal, true}));
}

TEST_F(ReportNames, InvalidBlockEndsTheCall) {
  Names("r", "1=x\n");
  BlockBuilder block;
  KrxRequestParams params(block.Block());
  CMarkup in;
  ASSERT_TRUE(in.SetDoc(Request("r")));
  CMarkup out;
  EXPECT_EQ(CFileTransferProvider().GetReportInstanceNames(params, in, out), -1);
  EXPECT_NE(out.GetDoc().find("LastError=\"13\""), std::string::npos) << out.GetDoc();
}

TEST_F(ReportNames, ThousandInstancesArriveInOrder) {
  std::string entries;
  std::string children;
  for (int i = 1; i <= 1000; ++i) {
    const std::string number = std::to_string(i);
    entries += number + "=Instance " + number + "\n";
    children += "<Instance Nr=\"" + number + "\">Instance " + number + "</Instance>\n";
  }
  Names("r", entries);
  EXPECT_EQ(Ask("r").document, "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"1000\">\n" + children +
                                   "</ReportInstanceNames>\n");
}

TEST_F(ReportNames, QuirkListOfKeysOver64KIsEmpty) {
  std::string entries;
  for (int i = 0; i < 65; ++i) entries += std::string(999, 'k') + "=x\n";
  Names("r", entries);
  EXPECT_EQ(Ask("r").document, "<ReportInstanceNames Name=\"r\" Version=\"1\" NrInstances=\"0\"/>\n");
}

TEST_F(ReportNames, CallNeitherOpensNorCountsATransfer) {
  Names("r", "1=x\n");
  Append("r", 10, {"a", "b"});
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("r", 0, 1), Records("r", 0, 1, "a\r\n"));
  const auto calls = thread.Data()->state_word;
  EXPECT_EQ(Call(thread, Request("r")), OneInstance("x"));
  EXPECT_EQ(thread.Data()->state_word, calls);
  EXPECT_EQ(thread.Ask("r", 1), Records("r", 1, 2, "b\r\n"));
}

TEST_F(ReportNames, NoDescriptorStaysOpen) {
  Names("r", "1=x\n");
  ServiceThread thread;
  (void)Call(thread, Request("r"));
  const auto open = OpenDescriptors();
  (void)Call(thread, Request("r"));
  (void)Call(thread, Request("nothing"));
  EXPECT_EQ(OpenDescriptors(), open);
}

using ReportNamesThreads = ReportNames;

TEST_F(ReportNamesThreads, CallsOnManyThreadsReturnTheirOwnReplies) {
  Names("a", "1=North\n");
  Names("b", "1=South\n");
  const auto ask = [](const std::string& name, const std::string& instance) {
    ServiceThread thread;
    for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(Call(thread, Request(name)).document, "<ReportInstanceNames Name=\"" + name +
                                                          "\" Version=\"1\" NrInstances=\"1\">\n<Instance Nr=\"1\">" +
                                                          instance + "</Instance>\n</ReportInstanceNames>\n");
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back(ask, "a", "North");
    threads.emplace_back(ask, "b", "South");
  }
  for (std::thread& thread : threads) thread.join();
}

// --- traces

class ReportNamesTrace : public ReportNames {
 protected:
  // Calls at every level. At each level the lines of this function up to that level must be traced, in their order.
  static void Expect(const TraceLines& lines, const std::string& input) {
    for (int level = 0; level <= 6; ++level) {
      ServiceThread thread;
      (void)thread.Ask("nothing", 1);  // thread data exists
      std::string seen;
      const TraceCapture trace(level);
      (void)Call(thread, input);
      for (const std::string& entry : trace.Entries()) {
        const bool is_dump = entry.find("   ") == entry.size() - 5;
        if (entry.starts_with("WCSP_QX GetInstances") || is_dump) seen += entry + "\n";
      }
      EXPECT_EQ(seen, Upto(level, lines)) << "level " << level;
    }
  }

  // The trace lines of a request for the report r1, up to the open of its file.
  TraceLines RequestOfR1() const {
    return {{2, "WCSP_QX GetInstances: Get report instance names"},
            {4, "WCSP_QX GetInstances:   XML input string: \"" + Request("r1") + "\""},
            {5, "72 31   r1"},
            {3, "WCSP_QX GetInstances: open instance file " + BasePath("r1") + ".names..."}};
  }
  static TraceLines FoundFile(int version, const std::string& name) {
    return {{3, "WCSP_QX GetInstances:   instance file existing"},
            {3, "WCSP_QX GetInstances:   version=" + std::to_string(version) + ", report name=" + name}};
  }
  static TraceLines FoundInstance(const std::string& number, const std::string& name, const std::string& dump) {
    return {{3, "WCSP_QX GetInstances:   entry: " + number + "=" + name},
            {3, "WCSP_QX GetInstances:   instance name: " + name},
            {5, dump}};
  }
  static TraceLines Replied(int version, const std::string& reply) {
    return {{4, "WCSP_QX GetInstances: XML output: \"" + reply + "\""},
            {2, "WCSP_QX GetInstances:   file transferred, Version=" + std::to_string(version) +
                    ", Length=" + std::to_string(reply.size()) + " bytes"}};
  }
};

TEST_F(ReportNamesTrace, List) {
  Names("r1", "1=ab\n2=cd\n");
  const std::string reply =
      "<ReportInstanceNames Name=\"r1\" Version=\"1\" NrInstances=\"2\">\n<Instance Nr=\"1\">ab</Instance>\n"
      "<Instance Nr=\"2\">cd</Instance>\n</ReportInstanceNames>\n";
  Expect(RequestOfR1() + FoundFile(1, "r1") + FoundInstance("1", "ab", "61 62   ab") +
             FoundInstance("2", "cd", "63 64   cd") + Replied(1, reply),
         Request("r1"));
}

TEST_F(ReportNamesTrace, AnotherVersion) {
  NamesFile("r1", "[Quaxel Report Instances]\nVersion=2\nName=n\n");
  Expect(RequestOfR1() + FoundFile(2, "n") + Replied(2, ""), Request("r1"));
}

TEST_F(ReportNamesTrace, NoFile) {
  const TraceLines not_found = {
      {1, "WCSP_QX GetInstances: ## ERROR! The instance names file for report \"r1\" could not be found!"}};
  Expect(RequestOfR1() + not_found, Request("r1"));
}

TEST_F(ReportNamesTrace, ControlBytesOfAReportNameAreShownAsDots) {
  NamesFile("found", "[Quaxel Report Instances]\nVersion=1\nName=a\x1B[31m\n");
  for (const std::string name : {"x&#10;y&#27;[31m&#127;", "found"}) {
    ServiceThread thread;
    const TraceCapture trace(6);
    (void)Call(thread, Request(name));
    EXPECT_EQ(trace.Text().find('\x1B'), std::string::npos);
    const bool is_found = name == "found";
    EXPECT_NE(trace.Text().find(is_found ? "report name=a.[31m" : "for report \"x.y.[31m.\" could"), std::string::npos);
    EXPECT_EQ(trace.Text().find("/x.y.[31m..names...") == std::string::npos, is_found) << trace.Text();
  }
}

// --- the pages

TEST_F(ReportNames, ExamplesOfThePagesAreReadAsShown) {
  NamesFile("disk", DocExample("report-names.md", "names-file"));
  ServiceThread thread;
  EXPECT_EQ(Call(thread, DocExample("documents.md", "names-request")),
            (Reply{0, DocExample("documents.md", "names-reply"), true}));
  EXPECT_EQ(Ask("nothing"), (Reply{12, DocExample("documents.md", "names-error-reply"), true}));
}

}  // namespace
