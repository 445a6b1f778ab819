// Writes a request for records of a report, and parses the reply.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

struct ReportRequest {
  std::string name;
  std::int32_t start_index = 0;
  std::optional<std::int32_t> record_count;  // unset: as many as fit into a chunk
};

// <ReportData Name="load" StartIndex="0" NrRecords="5"/>
std::string RequestText(const ReportRequest& request);

enum class ReplyKind {
  kNone,     // no reply, or an unknown one
  kRecords,  // <ReportData Name= StartIndex= NextIndex=><![CDATA[...]]></ReportData>
  kError,    // <Error Msg= LastError=/>
};

struct ReportReply {
  ReplyKind kind = ReplyKind::kNone;
  std::int32_t start_index = -1;  // -1: not a number
  std::int32_t next_index = -1;
  std::string records;  // byte for byte as in the store
  std::string message;
  std::optional<std::int32_t> last_error;
};

ReportReply ParseReply(const CallResult& call);

// The outcome of a GetReports call. An end of the report ("No more records available (no error)") is kOk here.
Status StatusOfReports(const CallResult& call, const ReportReply& reply);

// Whether the reply says that there is no record at the start index or after it.
bool IsEndOfReport(const CallResult& call);

}  // namespace qx::ctl
