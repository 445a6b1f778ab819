// Parsing and building documents, beside pugixml and tinyxml2 and beside the bare copies of the same bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "markup/Markup.h"
#ifdef QX_HAVE_PUGIXML
#include <pugixml.hpp>
#endif
#ifdef QX_HAVE_TINYXML2
#include <tinyxml2.h>
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

// What no parser can go below: the bytes are copied once and looked through once.
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
struct StringWriter : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override { text.append(static_cast<const char*>(data), size); }
};

void BuildChildrenPugixml(benchmark::State& state) {
  for (auto _ : state) {
    pugi::xml_document document;
    pugi::xml_node list = document.append_child("List");
    for (int i = 0; i < kChildren; ++i) {
      pugi::xml_node child = list.append_child("Instance");
      child.append_attribute("Nr").set_value(i);
      child.append_child(pugi::node_pcdata).set_value("name & text");
    }
    StringWriter writer;
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
    StringWriter writer;
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

// One copy into a document's memory and one duplicate for the host.
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

const bool kRegistered = [] {
  for (const std::string task : {"cdata", "children", "request"}) {
    benchmark::RegisterBenchmark(("parse_" + task + "/qx").c_str(), ParseQx, task);
#ifdef QX_HAVE_PUGIXML
    benchmark::RegisterBenchmark(("parse_" + task + "/pugixml").c_str(), ParsePugixml, task);
#endif
#ifdef QX_HAVE_TINYXML2
    benchmark::RegisterBenchmark(("parse_" + task + "/tinyxml2").c_str(), ParseTinyxml2, task);
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
