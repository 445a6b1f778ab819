// Helpers for the tests of the report functions: a report directory with reports, service threads with their blocks,
// and the documents of requests and replies.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "markup/Markup.h"
#include "provider/FileTransferProvider.h"
#include "provider/KrxRequestParams.h"
#include "provider/ReportTransfer.h"
#include "provider/ThreadData.h"
#include "reportfile/ReportFileBase.h"
#include "tests/provider/ReportRoot.h"
#include "tests/support/BlockBuilder.h"
#include "tests/support/Support.h"

namespace qx::test {

// The result of a report function.
struct Reply {
  int result = 0;
  std::string document;
  bool is_well_formed = false;  // otherwise the client gets no reply

  friend bool operator==(const Reply&, const Reply&) = default;
};

inline std::ostream& operator<<(std::ostream& out, const Reply& reply) {
  return out << reply.result << (reply.is_well_formed ? " " : " (not well formed) ") << reply.document;
}

// A reply with `records`. Their text must not contain "]]>".
inline Reply Records(const std::string& name, int start, int next, const std::string& records) {
  return {0,
          "<ReportData Name=\"" + name + "\" StartIndex=\"" + std::to_string(start) + "\" NextIndex=\"" +
              std::to_string(next) + "\"><![CDATA[" + records + "]]></ReportData>\n",
          true};
}

inline Reply NoMoreRecords() { return {1, "<Error Msg=\"No more records available (no error)\"/>\n", true}; }

inline Reply NotReadable(const std::string& escaped_twice, int error_number) {
  return {12,
          "<Error Msg=\"Report data for report &apos;" + escaped_twice + "&apos; could not be read\" LastError=\"" +
              std::to_string(error_number) + "\"/>\n",
          true};
}

// One thread of the service: its block, and its thread data, whose address the block has in every call.
class ServiceThread {
 public:
  ServiceThread() : block_(BlockBuilder::Request("GetReports")) {}
  // A thread with a caller that has these privileges.
  explicit ServiceThread(const std::vector<const char*>& privileges) : ServiceThread() {
    block_->Security("operator", {{"Operations", privileges}});
  }
  ~ServiceThread() {
    CFileTransferProvider provider;
    provider.__threadend(Data());
  }
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

  wcs_gendata* Block() { return block_->Block(); }
  CThreadData* Data() { return static_cast<CThreadData*>(block_->Entry(0)->value); }

  // One call of the report function with `input` as the request document.
  Reply GetReports(const std::string& input) {
    KrxRequestParams params(Block());
    CMarkup in;
    (void)in.SetDoc(input.c_str());
    CMarkup out;
    CFileTransferProvider provider;
    const int result = provider.GetReports(params, in, out);
    return {result, out.GetDoc(), out.IsWellFormed()};
  }

  // Requests `limit` records (-1: no limit) from `start` on.
  Reply Ask(const std::string& name, int start, int limit = -1) {
    std::string input = "<ReportData Name=\"" + name + "\" StartIndex=\"" + std::to_string(start) + "\"";
    if (limit != -1) input += " NrRecords=\"" + std::to_string(limit) + "\"";
    return GetReports(input + "/>");
  }

 private:
  std::unique_ptr<BlockBuilder> block_;
};

// Adds `records` to the store at `base_path`, creating it with `slots` slots if it does not exist.
inline void AppendRecords(const std::string& base_path, unsigned slots, const std::vector<std::string>& records) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(base_path.c_str(), slots));
  for (const std::string& record : records) ASSERT_TRUE(store.writeLine(record.c_str()));
}

class TransferFixture : public testing::Test {
 protected:
  TransferFixture() : root_(directory_.Path()) {}

  std::string BasePath(const std::string& name) const { return directory_.File(name); }
  void Append(const std::string& name, unsigned slots, const std::vector<std::string>& records) {
    AppendRecords(BasePath(name), slots, records);
  }

  TempDir directory_;
  ReportRoot root_;
};

// Transfers of the report r1 in each way of reading, by a thread whose data belong to the test.
class TransferInRace : public TransferFixture {
 protected:
  // One call from `start` on. `meanwhile` runs after the first read of a transfer, before the check of the ring.
  template <typename Meanwhile>
  Reply Ask(Meanwhile meanwhile, int start, provider::TransferOptions::Path path, CThreadData& data) {
    CMarkup in;
    (void)in.SetDoc(("<ReportData Name=\"r1\" StartIndex=\"" + std::to_string(start) + "\"/>").c_str());
    (void)in.FindElem("ReportData");
    CMarkup out;
    CFileTransferProvider module;
    const provider::TransferOptions options{path, [](void* context) { (*static_cast<Meanwhile*>(context))(); },
                                            &meanwhile};
    const int result = provider::ReportTransfer(module, data, out, options).Run(in);
    ++data.state_word;
    return {result, out.GetDoc(), out.IsWellFormed()};
  }
};

}  // namespace qx::test
