#include "tools/qxctl/cli/text/JsonText.h"

#include <nlohmann/json.hpp>

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

using Library = nlohmann::ordered_json;

Library ToLibrary(const Json& json);

struct Converter {
  Library operator()(std::monostate) const { return nullptr; }
  Library operator()(const Json::Items& items) const {
    Library array = Library::array();
    for (const Json& item : items) array.push_back(ToLibrary(item));
    return array;
  }
  Library operator()(const Json::Members& members) const {
    Library object = Library::object();
    for (const auto& [key, value] : members) object.emplace(key, ToLibrary(value));
    return object;
  }
  template <typename Scalar>
  Library operator()(const Scalar& scalar) const {
    return scalar;
  }
};

Library ToLibrary(const Json& json) { return std::visit(Converter(), json.Value()); }

std::string Printed(const Library& document, int indent) {
  return document.dump(indent, ' ', false, Library::error_handler_t::replace);
}

}  // namespace

std::string JsonLine(const Json& document) { return Printed(ToLibrary(document), -1); }

std::string JsonLineOf(const Json& document) { return ForTerminal(JsonLine(document), Masking::kJson) + "\n"; }

std::string JsonText(const Json& document) {
  constexpr int kIndent = 2;
  return Printed(ToLibrary(document), kIndent);
}

bool IsUtf8(const std::string& text) { return ValidUtf8(text) == text; }

std::string ValidUtf8(const std::string& text) { return Library::parse(Printed(Library(text), -1)).get<std::string>(); }

}  // namespace qx::ctl
