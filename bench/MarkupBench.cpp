// Parses and builds documents with CMarkup, pugixml, tinyxml2 and libxml2, and compares with plain copies of the same
// bytes. Also measures how the costs of unusual documents grow with their size.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/support/Doublings.h"
#include "markup/Markup.h"
#ifdef QX_HAVE_PUGIXML
#include <pugixml.hpp>

#include "bench/support/PugiText.h"
#endif
#ifdef QX_HAVE_TINYXML2
#include <tinyxml2.h>
#endif
#ifdef QX_HAVE_LIBXML2
#include <libxml/parser.h>
#endif

namespace {

constexpr std::size_t kMiB = 1U << 20;
constexpr int kChildren = 10000;

std::string RecordText(std::size_t bytes) {
  std::string text;
  while (text.size() + 102 <= bytes) text.append(100, static_cast<char>('a' + text.size() / 102 % 26)).append("\r\n");
  return text;
}

const std::string& CDataDocument() {
  static const std::string document =
      "<ReportData Name=\"r\" StartIndex=\"0\" NextIndex=\"9\"><![CDATA[" + RecordText(kMiB) + "]]></ReportData>\n";
  return document;
}

const std::string& ChildrenDocument() {
  static const std::string document = [] {
    std::string text = "<List>\n";
    for (int i = 0; i < kChildren; ++i)
      text += "<Instance Nr=\"" + std::to_string(i) + "\">name " + std::to_string(i) + "</Instance>\n";
    return text + "</List>\n";
  }();
  return document;
}

const std::string kRequest = "<ReportData Name=\"PerformanceThresholds\" StartIndex=\"123456\" NrRecords=\"1000\"/>";

const char* DocumentOf(const std::string& task) {
  if (task == "cdata") return CDataDocument().c_str();
  return task == "children" ? ChildrenDocument().c_str() : kRequest.c_str();
}

void ParseQx(benchmark::State& state, const std::string& task) {
  const std::string document = DocumentOf(task);
  CMarkup markup;
  for (auto _ : state) {
    if (!markup.SetDoc(document)) state.SkipWithError("not well formed");
    if (task == "request") {
      if (!markup.FindElem("ReportData")) state.SkipWithError("no element");
      benchmark::DoNotOptimize(markup.GetAttrib("Name"));
      benchmark::DoNotOptimize(markup.GetAttrib("StartIndex"));
      benchmark::DoNotOptimize(markup.GetAttrib("NrRecords"));
    }
  }
}

#ifdef QX_HAVE_PUGIXML
void ParsePugixml(benchmark::State& state, const std::string& task) {
  const std::string document = DocumentOf(task);
  for (auto _ : state) {
    pugi::xml_document parsed;
    if (!parsed.load_buffer(document.data(), document.size())) state.SkipWithError("not well formed");
    if (task == "request") {
      const pugi::xml_node node = parsed.child("ReportData");
      benchmark::DoNotOptimize(std::string(node.attribute("Name").value()));
      benchmark::DoNotOptimize(std::string(node.attribute("StartIndex").value()));
      benchmark::DoNotOptimize(std::string(node.attribute("NrRecords").value()));
    }
  }
}
#endif

#ifdef QX_HAVE_TINYXML2
void ParseTinyxml2(benchmark::State& state, const std::string& task) {
  const std::string document = DocumentOf(task);
  for (auto _ : state) {
    tinyxml2::XMLDocument parsed;
    if (parsed.Parse(document.data(), document.size()) != tinyxml2::XML_SUCCESS) state.SkipWithError("not well formed");
    if (task == "request") {
      const tinyxml2::XMLElement* node = parsed.FirstChildElement("ReportData");
      benchmark::DoNotOptimize(std::string(node->Attribute("Name")));
      benchmark::DoNotOptimize(std::string(node->Attribute("StartIndex")));
      benchmark::DoNotOptimize(std::string(node->Attribute("NrRecords")));
    }
  }
}
#endif

#ifdef QX_HAVE_LIBXML2
void ParseLibxml2(benchmark::State& state, const std::string& task) {
  const std::string document = DocumentOf(task);
  for (auto _ : state) {
    xmlDocPtr parsed =
        xmlReadMemory(document.data(), static_cast<int>(document.size()), nullptr, nullptr, XML_PARSE_HUGE);
    if (parsed == nullptr) state.SkipWithError("not well formed");
    if (task == "request") {
      for (const char* attribute : {"Name", "StartIndex", "NrRecords"}) {
        xmlChar* value = xmlGetProp(xmlDocGetRootElement(parsed), reinterpret_cast<const xmlChar*>(attribute));
        benchmark::DoNotOptimize(value);
        xmlFree(value);
      }
    }
    xmlFreeDoc(parsed);
  }
}
#endif

// Does the least that a parser has to do: copies the bytes once and scans them once.
void ParseLimit(benchmark::State& state, const std::string& task) {
  const std::string document = DocumentOf(task);
  std::string copy;
  for (auto _ : state) {
    copy.assign(document);
    benchmark::DoNotOptimize(std::memchr(copy.data(), 0x01, copy.size()));
  }
}

void BuildChildrenQx(benchmark::State& state) {
  for (auto _ : state) {
    CMarkup markup;
    (void)markup.AddElem("List");
    for (int i = 0; i < kChildren; ++i) {
      (void)markup.AddChildElem("Instance", "name & text");
      (void)markup.SetChildAttrib("Nr", i);
    }
    char* reply = strdup(markup.GetDoc().c_str());
    benchmark::DoNotOptimize(reply);
    std::free(reply);
  }
}

void BuildCDataQx(benchmark::State& state) {
  const std::string records = RecordText(kMiB);
  for (auto _ : state) {
    CMarkup markup;
    (void)markup.AddElem("ReportData");
    (void)markup.SetAttrib("Name", "r");
    (void)markup.SetData(records.c_str(), CMarkup::kAddCData);
    char* reply = strdup(markup.GetDoc().c_str());
    benchmark::DoNotOptimize(reply);
    std::free(reply);
  }
}

#ifdef QX_HAVE_PUGIXML
void BuildChildrenPugixml(benchmark::State& state) {
  for (auto _ : state) {
    pugi::xml_document document;
    pugi::xml_node list = document.append_child("List");
    for (int i = 0; i < kChildren; ++i) {
      pugi::xml_node child = list.append_child("Instance");
      child.append_attribute("Nr").set_value(i);
      child.append_child(pugi::node_pcdata).set_value("name & text");
    }
    qx::bench::StringWriter writer;
    document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
    char* reply = strdup(writer.text.c_str());
    benchmark::DoNotOptimize(reply);
    std::free(reply);
  }
}

void BuildCDataPugixml(benchmark::State& state) {
  const std::string records = RecordText(kMiB);
  for (auto _ : state) {
    pugi::xml_document document;
    pugi::xml_node data = document.append_child("ReportData");
    data.append_attribute("Name").set_value("r");
    data.append_child(pugi::node_cdata).set_value(records.c_str());
    qx::bench::StringWriter writer;
    document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
    char* reply = strdup(writer.text.c_str());
    benchmark::DoNotOptimize(reply);
    std::free(reply);
  }
}
#endif

#ifdef QX_HAVE_TINYXML2
void BuildChildrenTinyxml2(benchmark::State& state) {
  for (auto _ : state) {
    tinyxml2::XMLDocument document;
    tinyxml2::XMLElement* list = document.NewElement("List");
    document.InsertEndChild(list);
    for (int i = 0; i < kChildren; ++i) {
      tinyxml2::XMLElement* child = list->InsertNewChildElement("Instance");
      child->SetAttribute("Nr", i);
      child->SetText("name & text");
    }
    tinyxml2::XMLPrinter printer(nullptr, true);
    document.Print(&printer);
    char* reply = strdup(printer.CStr());
    benchmark::DoNotOptimize(reply);
    std::free(reply);
  }
}
#endif

// Does the least that a builder has to do: copies the records into a document and duplicates the document for the host.
void BuildCDataLimit(benchmark::State& state) {
  const std::string records = RecordText(kMiB);
  std::string document;
  for (auto _ : state) {
    document.assign(records);
    char* reply = strdup(document.c_str());
    benchmark::DoNotOptimize(reply);
    std::free(reply);
  }
}

// Makes 1 MiB of text with something to escape every few words.
std::string SpecialText() {
  std::string text;
  while (text.size() < kMiB) text += "a plain stretch of text, then <tag> & \"more\" of it; ";
  return text;
}

void EscapeQx(benchmark::State& state) {
  const std::string text = SpecialText();
  for (auto _ : state) benchmark::DoNotOptimize(CMarkup::EscapeText(std::string_view(text)));
}

void UnescapeQx(benchmark::State& state) {
  const std::string text = CMarkup::EscapeText(std::string_view(SpecialText()));
  for (auto _ : state) benchmark::DoNotOptimize(CMarkup::UnescapeText(std::string_view(text)));
}

// Does the least that escaping has to do: copies the text and scans it once.
void EscapeLimit(benchmark::State& state) {
  const std::string text = SpecialText();
  for (auto _ : state) {
    std::string copy(text);
    benchmark::DoNotOptimize(std::memchr(copy.data(), 0x01, copy.size()));
  }
}

#ifdef QX_HAVE_PUGIXML
void EscapePugixml(benchmark::State& state) {
  pugi::xml_document document;
  document.append_child(pugi::node_element).append_child(pugi::node_pcdata).set_value(SpecialText().c_str());
  const pugi::xml_node text = document.first_child().first_child();
  for (auto _ : state) {
    qx::bench::StringWriter writer;
    writer.text.reserve(kMiB);
    text.print(writer, "", pugi::format_raw);
    benchmark::DoNotOptimize(writer.text);
  }
}

void UnescapePugixml(benchmark::State& state) {
  const std::string document = "<a>" + CMarkup::EscapeText(std::string_view(SpecialText())) + "</a>";
  for (auto _ : state) {
    pugi::xml_document parsed;
    if (!parsed.load_buffer(document.data(), document.size(), pugi::parse_escapes)) state.SkipWithError("parse");
    benchmark::DoNotOptimize(std::string(parsed.child("a").child_value()));
  }
}
#endif

// --- How costs grow: documents with `count` pieces, well formed or not ---

std::string Repeated(std::string_view piece, std::int64_t count) {
  std::string text;
  for (std::int64_t i = 0; i < count; ++i) text += piece;
  return text;
}

std::string Numbered(std::string_view before, std::string_view after, std::int64_t count) {
  std::string text;
  for (std::int64_t i = 0; i < count; ++i) text.append(before).append(std::to_string(i)).append(after);
  return text;
}

struct Shape {
  const char* name;
  std::string (*make)(std::int64_t count);
};

constexpr Shape kShapes[] = {
    {"elements", [](std::int64_t n) { return "<r>" + Numbered("<e a=\"", "\">text</e>", n) + "</r>"; }},
    {"nesting", [](std::int64_t n) { return Repeated("<a>", n) + Repeated("</a>", n); }},
    {"lone_end_tags", [](std::int64_t n) { return "<a>" + Repeated("</b>", n) + "</a>"; }},
    {"lone_end_tags_within_many",
     [](std::int64_t n) { return Repeated("<a>", n / 2) + Repeated("</b>", n / 2) + Repeated("</a>", n / 2); }},
    {"unclosed_tags", [](std::int64_t n) { return "<r>" + Repeated("<a>", n) + "</r>"; }},
    {"unclosed_tags_in_turn", [](std::int64_t n) { return "<r>" + Repeated("<a><b></a>", n / 2) + "</r>"; }},
    {"attributes",
     [](std::int64_t n) { return "<a" + Numbered(" x", "=\"1\"", std::min<std::int64_t>(n, 300000)) + "/>"; }},
    {"entities", [](std::int64_t n) { return "<a>" + Repeated("&amp;", n) + "</a>"; }},
    {"ampersands", [](std::int64_t n) { return "<a>" + Repeated("&", n) + "</a>"; }},
    {"long_names",
     [](std::int64_t n) { return "<r>" + Repeated("<" + std::string(1000, 'n') + "/>", n / 250) + "</r>"; }},
    {"doctypes", [](std::int64_t n) { return Repeated("<!DOCTYPE a [", n) + "<r/>"; }},
    {"comments", [](std::int64_t n) { return "<r>" + Repeated("<!-- c -->", n) + "</r>"; }},
    {"open_comments", [](std::int64_t n) { return "<r>" + Repeated("<!-- ", n) + "</r>"; }},
    {"open_quotes", [](std::int64_t n) { return "<r>" + Repeated("<a b='", n) + "</r>"; }},
    {"open_sections", [](std::int64_t n) { return "<r>" + Repeated("<![CDATA[ ", n) + "</r>"; }},
};

void ParseShape(CMarkup& markup, const std::string& document) {
  benchmark::DoNotOptimize(markup.SetDoc(document));
  if (markup.FindElem()) benchmark::DoNotOptimize(markup.GetData());
}

// The first parse is not timed. It is the only one that needs new memory for text and records, which would show in the
// result, because a large document is parsed only once or twice.
void GrowParse(benchmark::State& state, const Shape& shape, std::int64_t count) {
  const std::string document = shape.make(count);
  CMarkup markup;
  ParseShape(markup, document);
  for (auto _ : state) ParseShape(markup, document);
}

void AppendElements(std::int64_t count) {
  CMarkup markup;
  (void)markup.AddElem("List");
  for (std::int64_t i = 0; i < count; ++i) (void)markup.AddChildElem("Instance", "text");
  benchmark::DoNotOptimize(markup);
}

// Every document takes new memory from the system. Otherwise the allocator would keep the memory of small documents and
// return the memory of large ones.
void GrowAppend(benchmark::State& state, std::int64_t count) {
  AppendElements(count);
  for (auto _ : state) {
    state.PauseTiming();
    (void)malloc_trim(0);
    state.ResumeTiming();
    AppendElements(count);
  }
}

// Sets `count` different attributes of one element.
void GrowSetAttributes(benchmark::State& state, std::int64_t count) {
  for (auto _ : state) {
    CMarkup markup;
    (void)markup.AddElem("a");
    for (std::int64_t i = 0; i < count; ++i) (void)markup.SetAttrib(("x" + std::to_string(i)).c_str(), "1");
    benchmark::DoNotOptimize(markup);
  }
}

void RegisterGrowth() {
  for (const std::int64_t count : qx::bench::kDoublings) {
    const std::string size = "/" + std::to_string(count);
    for (const Shape& shape : kShapes) {
      benchmark::RegisterBenchmark(("grow_" + std::string(shape.name) + size).c_str(),
                                   [&shape, count](benchmark::State& state) { GrowParse(state, shape, count); });
    }
    benchmark::RegisterBenchmark(("grow_appended" + size).c_str(), GrowAppend, count);
    if (count <= 20000) benchmark::RegisterBenchmark(("grow_set_attributes" + size).c_str(), GrowSetAttributes, count);
  }
}

// Measures the memory that a parsed element needs in addition to the text.
void MemoryPerElement(benchmark::State& state) {
  const std::string document = ChildrenDocument();
  CMarkup markup;
  for (auto _ : state) {
    markup.SetDoc(nullptr);
    const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    if (!markup.SetDoc(document)) state.SkipWithError("not well formed");
    const std::size_t used = mallinfo2().uordblks + mallinfo2().hblkhd - before;
    state.counters["bytes_per_element"] = static_cast<double>(used) / kChildren;
  }
}

const bool kRegistered = [] {
  RegisterGrowth();
  benchmark::RegisterBenchmark("memory_per_element/qx", MemoryPerElement);
  benchmark::RegisterBenchmark("escape/qx", EscapeQx);
  benchmark::RegisterBenchmark("escape/limit", EscapeLimit);
  benchmark::RegisterBenchmark("unescape/qx", UnescapeQx);
#ifdef QX_HAVE_PUGIXML
  benchmark::RegisterBenchmark("escape/pugixml", EscapePugixml);
  benchmark::RegisterBenchmark("unescape/pugixml", UnescapePugixml);
#endif
  for (const std::string task : {"cdata", "children", "request"}) {
    benchmark::RegisterBenchmark(("parse_" + task + "/qx").c_str(), ParseQx, task);
#ifdef QX_HAVE_PUGIXML
    benchmark::RegisterBenchmark(("parse_" + task + "/pugixml").c_str(), ParsePugixml, task);
#endif
#ifdef QX_HAVE_TINYXML2
    benchmark::RegisterBenchmark(("parse_" + task + "/tinyxml2").c_str(), ParseTinyxml2, task);
#endif
#ifdef QX_HAVE_LIBXML2
    benchmark::RegisterBenchmark(("parse_" + task + "/libxml2").c_str(), ParseLibxml2, task);
#endif
    benchmark::RegisterBenchmark(("parse_" + task + "/limit").c_str(), ParseLimit, task);
  }
  benchmark::RegisterBenchmark("build_children/qx", BuildChildrenQx);
  benchmark::RegisterBenchmark("build_cdata/qx", BuildCDataQx);
#ifdef QX_HAVE_PUGIXML
  benchmark::RegisterBenchmark("build_children/pugixml", BuildChildrenPugixml);
  benchmark::RegisterBenchmark("build_cdata/pugixml", BuildCDataPugixml);
#endif
#ifdef QX_HAVE_TINYXML2
  benchmark::RegisterBenchmark("build_children/tinyxml2", BuildChildrenTinyxml2);
#endif
  benchmark::RegisterBenchmark("build_cdata/limit", BuildCDataLimit);
  return true;
}();

}  // namespace
