// Rebuilds the worked examples of docs/documents.md with the functions that the page describes.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "provider/ModuleExports.h"
#include "tests/provider/TransferFixture.h"

namespace {

using qx::test::DocExample;
using qx::test::HexDump;
using qx::test::Reply;
using qx::test::ServiceThread;

// The text without CR, as a page shows it.
std::string WithoutCr(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  return text;
}

class DocumentsDoc : public qx::test::TransferFixture {
 protected:
  DocumentsDoc() {
    Append("cpu", 10, {"2026-01-31 10:20:30|17%", "2026-01-31 10:20:40|23%", "2026-01-31 10:20:50|9%"});
  }
  static std::string Example(const char* name) { return DocExample("documents.md", name); }
};

TEST_F(DocumentsDoc, RequestOfThePageGetsItsReply) {
  const Reply reply = ServiceThread().GetReports(Example("report-request"));
  EXPECT_EQ(reply.result, 0);
  EXPECT_EQ(WithoutCr(reply.document), Example("report-reply"));
  EXPECT_EQ(HexDump(reply.document), Example("report-reply-bytes"));
}

TEST_F(DocumentsDoc, WholeTransferOfThePage) {
  ServiceThread thread;
  EXPECT_EQ(thread.Ask("cpu", 0, 2).result, 0);
  EXPECT_EQ(thread.Ask("cpu", 2, 2),
            (Reply{0,
                   "<ReportData Name=\"cpu\" StartIndex=\"2\" NextIndex=\"3\"><![CDATA[2026-01-31 "
                   "10:20:50|9%\r\n]]></ReportData>\n",
                   true}));
  EXPECT_EQ(thread.Ask("cpu", 3, 2), (Reply{1, Example("end-reply"), true}));
}

TEST_F(DocumentsDoc, ErrorReplyOfThePage) {
  EXPECT_EQ(ServiceThread().Ask("R&amp;D", 0), (Reply{12, Example("error-reply"), true}));
}

TEST_F(DocumentsDoc, RefusedDocumentOfThePage) {
  const Reply reply = ServiceThread({"Other"}).Ask("cpu", 0, 1);
  EXPECT_EQ(reply.result, 0);
  EXPECT_FALSE(reply.is_well_formed);
  EXPECT_EQ(WithoutCr(reply.document), Example("refused-document"));
}

TEST_F(DocumentsDoc, ReplyOfWhatOfThePage) {
  const char* const version = DreQXObjectVersion;
  const char* const date = DreQXObjectDate;
  DreQXObjectVersion = "1.2.3";
  DreQXObjectDate = "2026/01/31-10:20";
  CFileTransferProvider provider;
  ASSERT_TRUE(provider.Init(nullptr));
  DreQXObjectVersion = version;
  DreQXObjectDate = date;
  const std::unique_ptr<qx::test::BlockBuilder> block = qx::test::BlockBuilder::Request("What");
  KrxRequestParams params(block->Block());
  CMarkup in;
  CMarkup out;
  EXPECT_EQ(provider.What(params, in, out), 0);
  EXPECT_EQ(out.GetDoc(), Example("what-reply"));
}

TEST_F(DocumentsDoc, NamesAreEscapedAsInTheTable) {
  const auto name_of = [this](const std::string& file, const std::string& attribute) {
    Append(file, 10, {"x"});
    const std::string document = ServiceThread().Ask(attribute, 0).document;
    const std::size_t from = document.find("Name=\"") + 6;
    return document.substr(from, document.find('"', from) - from);
  };
  EXPECT_EQ(name_of("R&D", "R&amp;D"), "R&amp;amp;D");
  EXPECT_EQ(name_of("it's", "it's"), "it&amp;apos;s");
  EXPECT_EQ(name_of("K\xe4lte", "K\xe4lte"), "K&amp;#xE4;lte");
  EXPECT_EQ(name_of("K\xc3\xa4lte", "K\xc3\xa4lte"), "K&amp;#xC3;&amp;#xA4;lte");
}

TEST_F(DocumentsDoc, RefusalsAreThoseOfTheTable) {
  EXPECT_EQ(ServiceThread().GetReports("<reportdata Name=\"cpu\"/>"), qx::test::NotReadable("", 2));
  EXPECT_EQ(ServiceThread().GetReports("<ReportData Name=\"cpu\">"), qx::test::NotReadable("", 2));
  EXPECT_EQ(ServiceThread().GetReports(""), qx::test::NotReadable("", 2));
  EXPECT_EQ(ServiceThread({"Other"}).Ask("none", 0), qx::test::NotReadable("none", 2));
  EXPECT_EQ(ServiceThread({"Other"}).Ask("cpu", 3), qx::test::NoMoreRecords());
}

}  // namespace
