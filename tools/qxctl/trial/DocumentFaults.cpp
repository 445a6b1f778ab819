// Request documents that no client sends on purpose: they are cut short, damaged or too large.
#include <string>
#include <utility>

#include "tools/qxctl/trial/FaultCases.h"

namespace qx::ctl {

namespace {

constexpr char kNoName[] = "result 12, error 2 \"Report data for report '' could not be read\"";
constexpr char kAnswered[] = "every call answered";

std::string Ask(FaultHost& host, RequestFunction function, const char* input) {
  RawBlock block;
  block.SetElements(GoodElements(block));
  return host.Ask(function, block.Raw(), input);
}

std::string AskReports(FaultHost& host, const char* input) { return Ask(host, RequestFunction::kGetReports, input); }

std::string Echoed(FaultHost& host, const std::string& document) {
  return Ask(host, RequestFunction::kReflect, document.c_str());
}

std::string Repeated(const std::string& text, std::size_t count) {
  std::string repeated;
  repeated.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) repeated += text;
  return repeated;
}

// A document and its reply.
std::string Pair(std::string document, const std::string& answer) { return document.append(": ").append(answer); }

// Whether the outcome is records, an end or an error, always with a document: anything but a failure of the call
// itself.
bool IsAnswer(const std::string& text) {
  for (const char* const answer : {"result 0, <ReportData>", "result 1, error none ", "result 12, error "}) {
    if (text.starts_with(answer)) return true;
  }
  return false;
}

// Sends every prefix of a request, and the request with each byte changed.
std::string Damaged(FaultHost& host) {
  const std::string good =
      "<?xml version=\"1.0\"?>\n<ReportData Name='../qx&amp;ctl' StartIndex=\"0\" NrRecords=\"5\"/>\n";
  for (std::size_t at = 0; at < good.size(); ++at) {
    const std::string prefix = good.substr(0, at);
    if (const std::string answer = AskReports(host, prefix.c_str()); !IsAnswer(answer)) return Pair(prefix, answer);
    for (const char byte : {'<', '>', '"', '&', '\xFF', '\x01'}) {
      std::string changed = good;
      changed[at] = byte;
      if (const std::string answer = AskReports(host, changed.c_str()); !IsAnswer(answer)) return Pair(changed, answer);
    }
  }
  return kAnswered;
}

std::string Numbers(FaultHost& host) {
  for (const char* const number :
       {"-1", "-2147483648", "2147483647", "4294967296", "99999999999999999999", "0x10", "x", ""}) {
    const std::string request =
        std::string("<ReportData Name=\"../qxctl\" StartIndex=\"") + number + "\" NrRecords=\"" + number + "\"/>";
    const std::string answer = AskReports(host, request.c_str());
    if (answer != kNoReportOutcome) return std::string(number) + ": " + answer;
  }
  return kNoReportOutcome;
}

std::string NamesOutside(FaultHost& host) {
  for (const char* const name : {"", "..", "../../../../etc/passwd", "a/../../b", "\n", "%s%n"}) {
    const std::string request = std::string("<ReportData Name=\"") + name + "\"/>";
    const std::string answer = AskReports(host, request.c_str());
    if (!answer.starts_with("result 12, error 2 ")) return std::string(name) + ": " + answer;
  }
  return kAnswered;
}

std::string LongName(FaultHost& host) {
  const std::string request = "<ReportData Name=\"" + std::string(1 << 20, 'x') + "\"/>";
  const std::string answer = AskReports(host, request.c_str());
  return answer.substr(0, answer.find(','));  // the reply contains the name
}

void AddInputs(std::vector<FaultCase>& cases) {
  cases.insert(
      cases.end(),
      {{"document", "input-null", "A null input", kNoName, [](FaultHost& host) { return AskReports(host, nullptr); }},
       {"document", "input-empty", "An empty input", kNoName, [](FaultHost& host) { return AskReports(host, ""); }},
       {"document", "input-other", "A request of another kind", kNoName,
        [](FaultHost& host) { return AskReports(host, "<Other Name=\"../qxctl\"/>"); }},
       {"document", "input-text", "An input that is not markup", kNoName,
        [](FaultHost& host) { return AskReports(host, "a & b < c"); }},
       {"document", "names-null", "A null input, for the instance names",
        "result 12, error 2 \"Report instance names file not found\"",
        [](FaultHost& host) { return Ask(host, RequestFunction::kGetReportInstanceNames, nullptr); }},
       {"document", "damaged", "Every prefix of a request, and every byte changed", kAnswered, Damaged},
       {"document", "numbers", "Start indices and numbers of records out of range", kNoReportOutcome, Numbers},
       {"document", "name-outside", "Report names outside the directory", kAnswered, NamesOutside},
       {"document", "name-long", "A report name of 1 MiB", "result 12", LongName}});
}

void AddEchoes(std::vector<FaultCase>& cases) {
  constexpr char kNoReply[] = "result 0, no reply";
  cases.insert(cases.end(),
               {{"document", "echo-open", "Has an open document echoed", kNoReply,
                 [](FaultHost& host) { return Echoed(host, "<a><b></a>"); }},
                {"document", "echo-roots", "Has two roots echoed", kNoReply,
                 [](FaultHost& host) { return Echoed(host, "<a/><b/>"); }},
                {"document", "echo-deep", "Has 50000 open elements in each other echoed", kNoReply,
                 [](FaultHost& host) { return Echoed(host, Repeated("<a>", 50000)); }},
                {"document", "echo-ends", "Has 50000 ends of elements echoed", kNoReply,
                 [](FaultHost& host) { return Echoed(host, Repeated("</a>", 50000)); }},
                {"document", "echo-wide", "Has an element of 20000 children echoed", "result 0, echo",
                 [](FaultHost& host) { return Echoed(host, "<a>" + Repeated("<b/>", 20000) + "</a>"); }},
                {"document", "echo-attribute", "Has an attribute of 1 MiB echoed", "result 0, echo",
                 [](FaultHost& host) { return Echoed(host, "<a x=\"" + std::string(1 << 20, 'x') + "\"/>"); }},
                {"document", "echo-bytes", "Has bytes echoed that are not UTF-8", "result 0, echo",
                 [](FaultHost& host) { return Echoed(host, "<a x=\"\xFF\xC0\x80\"/>"); }}});
}

}  // namespace

void AddDocumentFaults(std::vector<FaultCase>& cases) {
  AddInputs(cases);
  AddEchoes(cases);
}

}  // namespace qx::ctl
