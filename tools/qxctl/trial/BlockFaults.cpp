// Blocks that no service makes: what is missing, null, mistyped, miscounted or looped.
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "tools/qxctl/trial/FaultCases.h"

namespace qx::ctl {

namespace {

constexpr char kNoThread[] = "result -1, error 13 \"krx_gendata thread id is 0\"";
constexpr char kNoElements[] = "result -1, error 13 \"krx_gendata structure does not have elements\"";
constexpr std::int32_t kCountMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kCountMin = std::numeric_limits<std::int32_t>::min();

std::string NotValid(const char* tag) {
  return "result -1, error 13 \"RequestParams structure do not contain a valid krx_gendata structure: " +
         std::string(tag) + "\"";
}

std::string Asked(FaultHost& host, RawBlock& block, RawBlock::Elements elements) {
  block.SetElements(std::move(elements));
  return AskNoReport(host, block);
}

// A good block with one element more.
std::string AskedWith(FaultHost& host, RawBlock& block, krx_element* element) {
  RawBlock::Elements elements = GoodElements(block);
  elements.push_back(element);
  return Asked(host, block, std::move(elements));
}

std::string AskedWithCount(FaultHost& host, std::int32_t count) {
  RawBlock block;
  block.Header().element_count = count;
  return AskNoReport(host, block);
}

std::string AskedWithTag(FaultHost& host, const char* tag) {
  RawBlock block;
  std::memset(block.Header().tag, 0, sizeof block.Header().tag);
  std::memcpy(block.Header().tag, tag, strnlen(tag, sizeof block.Header().tag));
  return Asked(host, block, GoodElements(block));
}

// "result 12, ..." when all four functions say the same, each behind its name otherwise.
std::string NullBlock(FaultHost& host) {
  std::string told;
  for (const RequestFunction function : {RequestFunction::kWhat, RequestFunction::kReflect,
                                         RequestFunction::kGetReports, RequestFunction::kGetReportInstanceNames}) {
    told += (told.empty() ? "" : "; ") + host.Ask(function, nullptr, "<a/>");
  }
  return told;
}

std::string NullReplyPlace(FaultHost& host) {
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
  return AskedWith(host, block, block.Element(kKrxConnection, kKrxTypeNested, first));
}

std::string ConnectionInsideItself(FaultHost& host) {
  RawBlock block;
  krx_element* const connection = block.Element(kKrxConnection, kKrxTypeNested, nullptr);
  connection->value = block.Block({connection});
  return AskedWith(host, block, connection);
}

std::string ConnectionMiscounted(FaultHost& host, std::int32_t count) {
  RawBlock block;
  krx_nested_block* const connection = block.Block({});
  connection->element_count = count;
  connection->elements = nullptr;
  return AskedWith(host, block, block.Element(kKrxConnection, kKrxTypeNested, connection));
}

// A million null entries in front of the elements.
std::string ManyNullEntries(FaultHost& host) {
  constexpr std::size_t kEntries = 1000000;
  RawBlock block;
  RawBlock::Elements elements(kEntries, nullptr);
  const RawBlock::Elements good = GoodElements(block);
  elements.insert(elements.end(), good.begin(), good.end());
  return Asked(host, block, std::move(elements));
}

// Header, array and elements at odd addresses.
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

void AddHeaders(std::vector<FaultCase>& cases) {
  cases.insert(
      cases.end(),
      {{"block", "null-block", "Hands in a null block",
        "result -1, no reply; result -1, no reply; result -1, no reply; result -1, no reply", NullBlock},
       {"block", "null-reply-place", "Gives no place for the reply", "result 0; result 12", NullReplyPlace},
       {"block", "no-elements", "A block without elements", kNoElements,
        [](FaultHost& host) { return AskedWithCount(host, 0); }},
       {"block", "no-elements-what", "A block without elements, for What", "result 0, <QXRemConXfer>",
        [](FaultHost& host) {
          const RawBlock block;
          return host.Ask(RequestFunction::kWhat, block.Raw(), "");
        }},
       {"block", "count-huge", "Counts 2147483647 elements in a null array", kNoThread,
        [](FaultHost& host) { return AskedWithCount(host, kCountMax); }},
       {"block", "count-negative", "Counts -1 elements", kNoThread,
        [](FaultHost& host) { return AskedWithCount(host, -1); }},
       {"block", "count-least", "Counts -2147483648 elements", kNoThread,
        [](FaultHost& host) { return AskedWithCount(host, kCountMin); }},
       {"block", "tag-other", "A block with the tag ABC", NotValid("ABC"),
        [](FaultHost& host) { return AskedWithTag(host, "ABC"); }},
       {"block", "tag-open", "A tag of four bytes, without its NUL", NotValid("???"),
        [](FaultHost& host) { return AskedWithTag(host, "KRXX"); }},
       {"block", "tag-empty", "An empty tag", NotValid(""), [](FaultHost& host) { return AskedWithTag(host, ""); }},
       {"block", "unaligned", "Lays everything at odd addresses", kNoReportOutcome, Unaligned},
       {"block", "many-null-entries", "A million null entries before the elements", kNoReportOutcome,
        ManyNullEntries}});
}

void AddElements(std::vector<FaultCase>& cases) {
  cases.insert(
      cases.end(),
      {{"block", "thread-missing", "No thread id", kNoThread,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(host, block, {block.Element(kKrxProviderData, kKrxTypePointer, nullptr)});
        }},
       {"block", "thread-zero", "The thread id 0", kNoThread,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(host, block, GoodElements(block, 0));
        }},
       {"block", "thread-text", "A thread id of the type of strings", kNoThread,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(host, block, {block.Text(kKrxThreadId, kKrxTypeString, "1")});
        }},
       {"block", "thread-twice", "Two thread ids, the first of them 0", kNoThread,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(host, block,
                       {block.Number(kKrxThreadId, kKrxTypeUint32, 0), block.Number(kKrxThreadId, kKrxTypeUint32, 1)});
        }},
       {"block", "thread-byte", "A thread id of one byte", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(host, block, {block.Number(kKrxThreadId, kKrxTypeUint8, 1)});
        }},
       {"block", "data-missing", "No place for the module's data", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(host, block, {block.Number(kKrxThreadId, kKrxTypeUint32, 1)});
        }},
       {"block", "data-mistyped", "A number where the module's data goes", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(
              host, block,
              {block.Number(kKrxProviderData, kKrxTypeUint32, 7), block.Number(kKrxThreadId, kKrxTypeUint32, 1)});
        }},
       {"block", "text-null", "Null strings", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(host, block,
                       {block.Element(kKrxFunctionId, kKrxTypeString, nullptr),
                        block.Element(kKrxApplicationId, kKrxTypeString, nullptr),
                        block.Number(kKrxThreadId, kKrxTypeUint32, 1)});
        }},
       {"block", "text-mistyped", "A number where the function's name goes", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return Asked(
              host, block,
              {block.Number(kKrxFunctionId, kKrxTypeUint32, 7), block.Number(kKrxThreadId, kKrxTypeUint32, 1)});
        }},
       {"block", "type-unknown", "Types and indices that nobody knows", kNoReportOutcome, [](FaultHost& host) {
          RawBlock block;
          RawBlock::Elements elements = {block.Element(0, 0, nullptr), block.Element(-1, -1, nullptr),
                                         block.Element(kKrxApplicationId, 99, nullptr),
                                         block.Element(kCountMax, kCountMin, nullptr)};
          elements.push_back(block.Number(kKrxThreadId, kKrxTypeUint32, 1));
          return Asked(host, block, std::move(elements));
        }}});
}

void AddConnections(std::vector<FaultCase>& cases) {
  cases.insert(
      cases.end(),
      {{"block", "connection-null", "A connection block that is null", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return AskedWith(host, block, block.Element(kKrxConnection, kKrxTypeNested, nullptr));
        }},
       {"block", "connection-mistyped", "A string where the connection goes", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return AskedWith(host, block, block.Text(kKrxConnection, kKrxTypeString, "x"));
        }},
       {"block", "connection-empty", "A connection without the address", kNoReportOutcome,
        [](FaultHost& host) {
          RawBlock block;
          return AskedWith(host, block, block.Element(kKrxConnection, kKrxTypeNested, block.Block({})));
        }},
       {"block", "connection-count-huge", "Counts 2147483647 elements of the connection in a null array",
        kNoReportOutcome, [](FaultHost& host) { return ConnectionMiscounted(host, kCountMax); }},
       {"block", "connection-count-negative", "Counts -2147483648 elements of the connection", kNoReportOutcome,
        [](FaultHost& host) { return ConnectionMiscounted(host, kCountMin); }},
       {"block", "connection-loops", "A chain of nested blocks that loops", kNoReportOutcome, ConnectionThatLoops},
       {"block", "connection-inside-itself", "A connection that is an element of its own block", kNoReportOutcome,
        ConnectionInsideItself}});
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

void AddBlockFaults(std::vector<FaultCase>& cases) {
  AddHeaders(cases);
  AddElements(cases);
  AddConnections(cases);
}

}  // namespace qx::ctl
