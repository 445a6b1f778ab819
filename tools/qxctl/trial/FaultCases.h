// The faults of a bad host, one for each case, and how a module must react.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/qxctl/trial/FaultHost.h"

namespace qx::ctl {

enum class ShapeValue : std::uint8_t { kNull, kNumber, kText, kNestedBlock };

// An element of a block that a bad host makes.
struct ElementShape {
  std::int32_t index;
  std::int32_t type;
  ShapeValue value;
  std::uint32_t number = 0;  // kNestedBlock: its element count, with a null array
};

// A block that a bad host makes.
struct BlockShape {
  RequestFunction function = RequestFunction::kGetReports;
  const char* tag = nullptr;               // null: "KRX"
  std::optional<std::int32_t> count = {};  // the header's element count, with a null array
  bool has_good_elements = false;          // before `elements`
  std::span<const ElementShape> elements = {};
};

struct FaultCase {
  const char* group;        // "block", "security", "document", "order"
  const char* name;         // stable, unique
  const char* description;  // what the host does, for people
  std::string expected;     // the result of `run` with a good module
  std::string (*run)(FaultHost& host);
  bool needs_report = false;          // there must be a report that can be read
  const BlockShape* block = nullptr;  // not null: this block is passed, and `run` is null
};

// The cases of each group in their order.
void AddBlockFaults(std::vector<FaultCase>& cases);
void AddSecurityFaults(std::vector<FaultCase>& cases);
void AddDocumentFaults(std::vector<FaultCase>& cases);
void AddOrderFaults(std::vector<FaultCase>& cases);

// --- for several cases

// A request for a report that does not exist in any report directory, and its outcome.
inline constexpr char kNoReportRequest[] = "<ReportData Name=\"../qxctl\"/>";
inline constexpr char kNoReportOutcome[] = "result 12, error 2 \"Report data for report '../qxctl' could not be read\"";

// Elements 1 to 5 of a good block.
RawBlock::Elements GoodElements(RawBlock& block, std::uint32_t thread_id = 1);

// Builds the block, and passes it with the request for the report that does not exist.
std::string AskBlock(FaultHost& host, const BlockShape& shape);

// Passes this block with the request for the report that does not exist.
std::string AskNoReport(FaultHost& host, const RawBlock& block);

}  // namespace qx::ctl
