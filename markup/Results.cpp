#include "markup/Results.h"

#include "markup/Escape.h"

namespace qx::markup {

namespace {

struct Phrase {
  std::string_view name;
  std::string_view text;
};

constexpr Phrase kPhrases[] = {
    {"root_has_sibling", "root element has sibling"},
    {"no_root_element", "no root element"},
    {"lone_end_tag", "lone end tag '{tagname}' at offset {offset}"},
    {"unended_start_tag", "start tag '{tagname}' at offset {offset} expecting end tag at offset {offset2}"},
    {"first_tag_syntax", "tag syntax error at offset {offset} expecting tag name / ! or ?"},
    {"exclamation_tag_syntax", "tag syntax error at offset {offset} expecting 'DOCTYPE' [ or -"},
    {"doctype_tag_syntax", "tag syntax error at offset {offset} expecting markup declaration"},
    {"comment_tag_syntax", "tag syntax error at offset {offset} expecting - to begin comment"},
    {"cdata_section_syntax", "tag syntax error at offset {offset} expecting 'CDATA'"},
    {"unterminated_tag_syntax", "unterminated tag at offset {offset}"},
    {"record_limit", "{type} over the limit at offset {offset}"},
};

void AppendNumber(std::string& out, std::string_view name, std::size_t value) {
  if (value == kNoOffset) return;
  out.append(" ").append(name).append("=\"").append(std::to_string(value)).append("\"");
}

}  // namespace

bool AddResult(std::string& results, const Result& result) {
  if (results.size() > kResultTextBytesMax) return false;
  results.append("<").append(result.name);
  if (!result.value.empty()) {
    results.append(" ").append(result.value_name).append("=\"");
    AppendEscaped(results, result.value, kEscapeQuoteMarks);
    results.append("\"");
  }
  AppendNumber(results, "offset", result.offset);
  AppendNumber(results, "offset2", result.offset2);
  results.append("/>");
  return true;
}

std::string_view ResultPhrase(std::string_view name) {
  for (const Phrase& phrase : kPhrases) {
    if (phrase.name == name) return phrase.text;
  }
  return {};
}

}  // namespace qx::markup
