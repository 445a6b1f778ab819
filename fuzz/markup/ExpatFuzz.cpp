// Compares CMarkup with a strict parser. A document that the strict parser accepts must be well formed for CMarkup,
// with the same elements at the same depths. The reverse does not hold: CMarkup accepts much that XML forbids
// (docs/markup.md, "Well-formed here").
//
// Some things are not compared, because the two parsers differ on purpose:
// - Other encodings: CMarkup reads a document as bytes, so the strict parser is set to UTF-8 for all documents.
// - Internal subsets of a document type: their declarations have no effect on CMarkup.
// - Documents over a limit of the records (name over 1,020 bytes, end tag over 1,023, start tag of 4 MiB, depth over
//   65,535): CMarkup refuses them.
#include <expat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/Require.h"
#include "markup/Markup.h"

namespace {

using qx::fuzz::Wrong;

constexpr std::size_t kNameBytesMax = 1020;
constexpr int kEndTagBytesMax = 1023;                // including white space
constexpr std::size_t kDocumentBytesMax = 1U << 18;  // below the limit of a start tag

struct Element {
  int depth;
  std::string name;
  friend bool operator==(const Element&, const Element&) = default;
};

struct Strict {
  XML_Parser parser;
  std::vector<Element> elements = {};
  int depth = 0;
  bool left_out = false;
};

void Begin(void* context, const XML_Char* name, const XML_Char** /*attributes*/) {
  auto* strict = static_cast<Strict*>(context);
  strict->left_out |= std::string_view(name).size() > kNameBytesMax || strict->depth > 65535;
  strict->elements.push_back({strict->depth++, name});
}

void End(void* context, const XML_Char* /*name*/) {
  auto* strict = static_cast<Strict*>(context);
  strict->left_out |= XML_GetCurrentByteCount(strict->parser) > kEndTagBytesMax;
  --strict->depth;
}

void BeginDoctype(void* context, const XML_Char*, const XML_Char*, const XML_Char*, int has_internal_subset) {
  static_cast<Strict*>(context)->left_out |= has_internal_subset != 0;
}

// Returns true if the strict parser accepts the document; `strict` then has its elements.
bool ParseStrictly(const std::string& text, Strict& strict) {
  XML_ParserReset(strict.parser, "UTF-8");
  XML_SetUserData(strict.parser, &strict);
  XML_SetElementHandler(strict.parser, Begin, End);
  XML_SetStartDoctypeDeclHandler(strict.parser, BeginDoctype);
  return XML_Parse(strict.parser, text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK;
}

std::vector<Element> Walk(CMarkup& markup) {
  std::vector<Element> elements;
  for (int depth = 0;;) {
    if (markup.FindElem()) {
      elements.push_back({depth++, markup.GetTagName()});
      (void)markup.IntoElem();
    } else if (!markup.OutOfElem()) {
      return elements;
    } else {
      --depth;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > kDocumentBytesMax) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  static XML_Parser parser = XML_ParserCreate("UTF-8");
  Strict strict = {.parser = parser};
  if (!ParseStrictly(text, strict) || strict.left_out) return 0;
  CMarkup markup;
  if (!markup.SetDoc(text)) Wrong("a well-formed document is refused");
  if (Walk(markup) != strict.elements) Wrong("other elements");
  return 0;
}
