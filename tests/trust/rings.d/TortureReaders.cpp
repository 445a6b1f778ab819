#include "tests/trust/rings.d/TortureReaders.h"

#include <cstdlib>

#include "bench/support/ServiceHost.h"
#include "markup/Markup.h"
#include "reportfile/ReportFileBase.h"

namespace qx::trust {

namespace {

constexpr int kRecordsACall = 300;

// If the ring has moved while the first record was read, this record is read again, as docs/documents.md says of
// transfers.
void ReadOnce(CReportFileBase& store, const std::string& base_path, Tally& tally) {
  TransferJudge judge(tally);
  std::string text;
  if (!store.OpenRead(base_path.c_str())) return void(++tally.malformed);
  qx::report::IndexHeader seen = store.header();
  for (std::uint32_t i = 0; i < seen.highestIndex; ++i) {
    if (!store.readLine(text, qx::report::SlotOfLogical(seen, i))) return void(++tally.malformed);
    if (i == 0 && (!store.OpenRead(base_path.c_str()) || store.header().oldestIndex != seen.oldestIndex)) {
      seen = store.header();
      if (!store.readLine(text, qx::report::SlotOfLogical(seen, i))) return void(++tally.malformed);
    }
    judge.Take(std::string_view(text).substr(0, text.find("\r\n")));
  }
}

struct Answer {
  enum { kRecords, kEnd, kMalformed } kind = kMalformed;
  std::string records;
  int next = 0;
};

Answer ParsedReply(const char* reply, int result, int start) {
  CMarkup document;
  if (reply == nullptr || !document.SetDoc(reply) || !document.FindElem()) return {};
  if (result == 1 && document.GetTagName() == "Error") return {Answer::kEnd, "", start};
  if (result != 0 || document.GetTagName() != "ReportData") return {};
  const int next = std::atoi(document.GetAttrib("NextIndex").c_str());
  if (next <= start || next > start + kRecordsACall) return {};
  return {Answer::kRecords, document.GetData(), next};
}

Answer Ask(bench::Block& block, const std::string& name, int start) {
  bench::Module& module = bench::TheModule();
  const std::string request = "<ReportData Name=\"" + name + "\" StartIndex=\"" + std::to_string(start) +
                              "\" NrRecords=\"" + std::to_string(kRecordsACall) + "\"/>";
  char* reply = nullptr;
  const int result = module.get_reports(block.get(), request.c_str(), &reply);
  Answer answer = ParsedReply(reply, result, start);
  module.free_reply(reply);
  return answer;
}

void TransferOnce(bench::Block& block, const std::string& name, Tally& tally) {
  TransferJudge judge(tally);
  int start = 0;
  for (;;) {
    const Answer answer = Ask(block, name, start);
    if (answer.kind == Answer::kEnd) return;
    if (answer.kind == Answer::kMalformed) return void(++tally.malformed);
    judge.TakeLines(answer.records);
    start = answer.next;
  }
}

}  // namespace

Tally ReadThroughStore(const std::string& base_path, const std::atomic<bool>& stop) {
  Tally tally;
  CReportFileBase store;
  while (!stop) ReadOnce(store, base_path, tally);
  return tally;
}

Tally ReadThroughModule(const std::string& name, const std::atomic<bool>& stop) {
  Tally tally;
  bench::Block block;
  while (!stop) TransferOnce(block, name, tally);
  return tally;
}

}  // namespace qx::trust
