// Blocks that no service makes: parts are missing, null, of a wrong type or count, or form a loop.
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <vector>

#include "tools/qxctl/trial/FaultCases.h"

namespace qx::ctl {

namespace {

constexpr char kNoThread[] = "result -1, error 13 \"krx_gendata thread id is 0\"";
constexpr char kNoElements[] = "result -1, error 13 \"krx_gendata structure does not have elements\"";
constexpr char kTagAbc[] =
    "result -1, error 13 \"RequestParams structure do not contain a valid krx_gendata structure: ABC\"";
constexpr char kTagOpen[] =
    "result -1, error 13 \"RequestParams structure do not contain a valid krx_gendata structure: ???\"";
constexpr char kTagEmpty[] =
    "result -1, error 13 \"RequestParams structure do not contain a valid krx_gendata structure: \"";
constexpr std::int32_t kCountMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kCountMin = std::numeric_limits<std::int32_t>::min();

struct NamedShape {
  const char* name;
  const char* description;
  const char* expected;
  BlockShape shape;
};

constexpr ElementShape Null(std::int32_t index, std::int32_t type) { return {index, type, ShapeValue::kNull}; }
constexpr ElementShape Text(std::int32_t index) { return {index, kKrxTypeString, ShapeValue::kText}; }
constexpr ElementShape Number(std::int32_t index, std::uint32_t number, std::int32_t type = kKrxTypeUint32) {
  return {index, type, ShapeValue::kNumber, number};
}
// A nested block that counts `count` elements in a null array.
constexpr ElementShape Nested(std::int32_t index, std::int32_t count) {
  return {index, kKrxTypeNested, ShapeValue::kNestedBlock, static_cast<std::uint32_t>(count)};
}

constexpr ElementShape kThread = Number(kKrxThreadId, 1);
constexpr ElementShape kDataAlone[] = {Null(kKrxProviderData, kKrxTypePointer)};
constexpr ElementShape kThreadZero[] = {Null(kKrxProviderData, kKrxTypePointer), Number(kKrxThreadId, 0)};
constexpr ElementShape kThreadText[] = {Text(kKrxThreadId)};
constexpr ElementShape kThreadTwice[] = {Number(kKrxThreadId, 0), kThread};
constexpr ElementShape kThreadByte[] = {Number(kKrxThreadId, 1, kKrxTypeUint8)};
constexpr ElementShape kThreadAlone[] = {kThread};
constexpr ElementShape kDataNumber[] = {Number(kKrxProviderData, 7), kThread};
constexpr ElementShape kNullTexts[] = {Null(kKrxFunctionId, kKrxTypeString), Null(kKrxApplicationId, kKrxTypeString),
                                       kThread};
constexpr ElementShape kFunctionNumber[] = {Number(kKrxFunctionId, 7), kThread};
constexpr ElementShape kUnknownTypes[] = {Null(0, 0), Null(-1, -1), Null(kKrxApplicationId, 99),
                                          Null(kCountMax, kCountMin), kThread};
constexpr ElementShape kNullConnection[] = {Null(kKrxConnection, kKrxTypeNested)};
constexpr ElementShape kConnectionText[] = {Text(kKrxConnection)};
constexpr ElementShape kConnectionEmpty[] = {Nested(kKrxConnection, 0)};
constexpr ElementShape kConnectionHuge[] = {Nested(kKrxConnection, kCountMax)};
constexpr ElementShape kConnectionNegative[] = {Nested(kKrxConnection, kCountMin)};

constexpr NamedShape kHeaders[] = {
    {"no-elements", "A block without elements", kNoElements, {.count = 0}},
    {"no-elements-what",
     "A block without elements, for What",
     "result 0, <QXRemConXfer>",
     {.function = RequestFunction::kWhat, .count = 0}},
    {"count-huge", "Counts 2147483647 elements in a null array", kNoThread, {.count = kCountMax}},
    {"count-negative", "Counts -1 elements", kNoThread, {.count = -1}},
    {"count-least", "Counts -2147483648 elements", kNoThread, {.count = kCountMin}},
    {"tag-other", "A block with the tag ABC", kTagAbc, {.tag = "ABC", .has_good_elements = true}},
    {"tag-open", "A tag of four bytes, without its NUL", kTagOpen, {.tag = "KRXX", .has_good_elements = true}},
    {"tag-empty", "An empty tag", kTagEmpty, {.tag = "", .has_good_elements = true}},
};

constexpr NamedShape kElements[] = {
    {"thread-missing", "No thread id", kNoThread, {.elements = kDataAlone}},
    {"thread-zero", "The thread id 0", kNoThread, {.elements = kThreadZero}},
    {"thread-text", "A thread id of the type of strings", kNoThread, {.elements = kThreadText}},
    {"thread-twice", "Two thread ids, the first of them 0", kNoThread, {.elements = kThreadTwice}},
    {"thread-byte", "A thread id of one byte", kNoReportOutcome, {.elements = kThreadByte}},
    {"data-missing", "No element for the module's data", kNoReportOutcome, {.elements = kThreadAlone}},
    {"data-mistyped", "A number in the element of the module's data", kNoReportOutcome, {.elements = kDataNumber}},
    {"text-null", "Null strings", kNoReportOutcome, {.elements = kNullTexts}},
    {"text-mistyped",
     "A number in the element of the function's name",
     kNoReportOutcome,
     {.elements = kFunctionNumber}},
    {"type-unknown", "Unknown types and indices", kNoReportOutcome, {.elements = kUnknownTypes}},
};

constexpr NamedShape kConnections[] = {
    {"connection-null",
     "A connection block that is null",
     kNoReportOutcome,
     {.has_good_elements = true, .elements = kNullConnection}},
    {"connection-mistyped",
     "A string where the connection goes",
     kNoReportOutcome,
     {.has_good_elements = true, .elements = kConnectionText}},
    {"connection-empty",
     "A connection without the address",
     kNoReportOutcome,
     {.has_good_elements = true, .elements = kConnectionEmpty}},
    {"connection-count-huge",
     "Counts 2147483647 elements of the connection in a null array",
     kNoReportOutcome,
     {.has_good_elements = true, .elements = kConnectionHuge}},
    {"connection-count-negative",
     "Counts -2147483648 elements of the connection",
     kNoReportOutcome,
     {.has_good_elements = true, .elements = kConnectionNegative}},
};

void SetTag(RawBlock& block, const char* tag) {
  std::memset(block.Header().tag, 0, sizeof block.Header().tag);
  std::memcpy(block.Header().tag, tag, strnlen(tag, sizeof block.Header().tag));
}

krx_element* MakeNested(RawBlock& block, const ElementShape& shape) {
  krx_nested_block* const nested = block.Block({});
  nested->element_count = static_cast<std::int32_t>(shape.number);
  nested->elements = nullptr;
  return block.Element(shape.index, shape.type, nested);
}

krx_element* Make(RawBlock& block, const ElementShape& shape) {
  switch (shape.value) {
    case ShapeValue::kNull:
      break;
    case ShapeValue::kNumber:
      return block.Number(shape.index, shape.type, shape.number);
    case ShapeValue::kText:
      return block.Text(shape.index, shape.type, "1");
    case ShapeValue::kNestedBlock:
      return MakeNested(block, shape);
  }
  return block.Element(shape.index, shape.type, nullptr);
}

void AddShapes(std::span<const NamedShape> shapes, std::vector<FaultCase>& cases) {
  for (const NamedShape& one : shapes) {
    cases.push_back({.group = "block",
                     .name = one.name,
                     .description = one.description,
                     .expected = one.expected,
                     .run = nullptr,
                     .block = &one.shape});
  }
}

std::string AskWithElements(FaultHost& host, RawBlock& block, const RawBlock::Elements& elements) {
  block.SetElements(elements);
  return AskNoReport(host, block);
}

// A good block with one more element.
std::string AskWithExtraElement(FaultHost& host, RawBlock& block, krx_element* element) {
  RawBlock::Elements elements = GoodElements(block);
  elements.push_back(element);
  return AskWithElements(host, block, elements);
}

// The outcomes of all four functions for a null block.
std::string NullBlock(FaultHost& host) {
  std::string text;
  for (const RequestFunction function : {RequestFunction::kWhat, RequestFunction::kReflect,
                                         RequestFunction::kGetReports, RequestFunction::kGetReportInstanceNames}) {
    text += (text.empty() ? "" : "; ") + host.Ask(function, nullptr, "<a/>");
  }
  return text;
}

std::string NullReplyPointer(FaultHost& host) {
  RawBlock block;
  block.SetElements(GoodElements(block));
  return host.AskWithoutReply(RequestFunction::kWhat, block.Raw(), "") + "; " +
         host.AskWithoutReply(RequestFunction::kGetReports, block.Raw(), kNoReportRequest);
}

std::string ConnectionThatLoops(FaultHost& host) {
  RawBlock block;
  krx_nested_block* const first = block.Block({block.Text(17, kKrxTypeString, "x")});
  krx_nested_block* const second = block.Block({}, first);
  first->next_block = second;
  return AskWithExtraElement(host, block, block.Element(kKrxConnection, kKrxTypeNested, first));
}

std::string ConnectionInsideItself(FaultHost& host) {
  RawBlock block;
  krx_element* const connection = block.Element(kKrxConnection, kKrxTypeNested, nullptr);
  connection->value = block.Block({connection});
  return AskWithExtraElement(host, block, connection);
}

// A block with a million null entries before the elements.
std::string ManyNullEntries(FaultHost& host) {
  constexpr std::size_t kEntries = 1000000;
  RawBlock block;
  RawBlock::Elements elements(kEntries, nullptr);
  const RawBlock::Elements good = GoodElements(block);
  elements.insert(elements.end(), good.begin(), good.end());
  return AskWithElements(host, block, elements);
}

// A block whose header, array and elements are at odd addresses.
std::string Unaligned(FaultHost& host) {
  RawBlock block;
  const RawBlock::Elements good = GoodElements(block);
  std::vector<std::vector<char>> pieces;
  std::vector<char> array(good.size() * sizeof(void*) + 1);
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::vector<char>& piece = pieces.emplace_back(sizeof(krx_element) + 1);
    std::memcpy(piece.data() + 1, good[i], sizeof(krx_element));
    const char* const address = piece.data() + 1;
    std::memcpy(array.data() + 1 + i * sizeof address, &address, sizeof address);
  }
  krx_gendata header = block.Header();
  header.element_count = static_cast<std::int32_t>(good.size());
  const char* const elements = array.data() + 1;
  std::memcpy(&header.elements, &elements, sizeof elements);
  std::vector<char> bytes(sizeof header + 1);
  std::memcpy(bytes.data() + 1, &header, sizeof header);
  const void* const address = bytes.data() + 1;
  return host.Ask(RequestFunction::kGetReports, static_cast<const wcs_gendata*>(address), kNoReportRequest);
}

}  // namespace

RawBlock::Elements GoodElements(RawBlock& block, std::uint32_t thread_id) {
  return {
      block.Element(kKrxProviderData, kKrxTypePointer, nullptr), block.Number(kKrxThreadId, kKrxTypeUint32, thread_id),
      block.Text(kKrxFunctionId, kKrxTypeString, "GetReports"), block.Text(kKrxApplicationId, kKrxTypeString, "qxctl")};
}

std::string AskNoReport(FaultHost& host, const RawBlock& block) {
  return host.Ask(RequestFunction::kGetReports, block.Raw(), kNoReportRequest);
}

std::string AskBlock(FaultHost& host, const BlockShape& shape) {
  RawBlock block;
  if (shape.tag != nullptr) SetTag(block, shape.tag);
  RawBlock::Elements elements = shape.has_good_elements ? GoodElements(block) : RawBlock::Elements();
  for (const ElementShape& element : shape.elements) elements.push_back(Make(block, element));
  block.SetElements(elements);
  if (shape.count) {
    block.Header().elements = nullptr;
    block.Header().element_count = *shape.count;
  }
  return host.Ask(shape.function, block.Raw(), shape.function == RequestFunction::kGetReports ? kNoReportRequest : "");
}

void AddBlockFaults(std::vector<FaultCase>& cases) {
  cases.insert(cases.end(),
               {{"block", "null-block", "Hands in a null block",
                 "result -1, no reply; result -1, no reply; result -1, no reply; result -1, no reply", NullBlock},
                {"block", "null-reply-place", "Passes a null reply pointer", "result 0; result 12", NullReplyPointer}});
  AddShapes(kHeaders, cases);
  cases.insert(cases.end(), {{"block", "unaligned", "Puts everything at odd addresses", kNoReportOutcome, Unaligned},
                             {"block", "many-null-entries", "A million null entries before the elements",
                              kNoReportOutcome, ManyNullEntries}});
  AddShapes(kElements, cases);
  AddShapes(kConnections, cases);
  cases.insert(cases.end(), {{"block", "connection-loops", "A chain of nested blocks that loops", kNoReportOutcome,
                              ConnectionThatLoops},
                             {"block", "connection-inside-itself", "A connection that is an element of its own block",
                              kNoReportOutcome, ConnectionInsideItself}});
}

}  // namespace qx::ctl
