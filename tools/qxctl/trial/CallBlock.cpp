// Writes the block of a call file from memory to JSON, and builds it in memory from JSON.
//
// An element is an object with its index, its type and one more key, which shows what its value points to:
//   "number"      types 4, 5, 6, and the credential marker of any type but 8 and 512: a number
//   "text"        type 8: a string; null for a null pointer; "textBase64" if it is not UTF-8
//   "blocks"      type 512: a chain of nested blocks, an array of arrays of elements
//   "list"        indexes 19 and 61, whatever their type: an element list
//   "validation"  index 65: validation data
//   "pointer"     null: a pointer of the module or of the host, or no value
#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxctl/module/CallFields.h"
#include "tools/qxctl/trial/CallFile.h"

namespace qx::ctl {

namespace {

constexpr int kChainBlocksMax = 64;
constexpr int kNestingMax = 8;

// --- from memory

CallJson ElementToJson(const krx_element& element, int depth);

CallJson ArrayToJson(krx_element* const* elements, std::int32_t count, int depth) {
  CallJson array = CallJson::array();
  for (std::int32_t i = 0; elements != nullptr && i < count; ++i) {
    if (elements[i] != nullptr) array.push_back(ElementToJson(*elements[i], depth));
  }
  return array;
}

CallJson ChainToJson(const krx_nested_block* block, int depth) {
  CallJson chain = CallJson::array();
  for (int i = 0; i < kChainBlocksMax && block != nullptr; ++i, block = block->next_block) {
    chain.push_back(ArrayToJson(block->elements, block->element_count, depth));
  }
  return chain;
}

void SetText(CallJson& json, const char* key, const void* text) {
  if (text != nullptr) {
    SetBytes(json, key, static_cast<const char*>(text));
  } else {
    json[key] = nullptr;
  }
}

CallJson DepartmentToJson(const krx_department& department) {
  CallJson json;
  SetText(json, "name", department.name);
  json["privileges"] = CallJson::array();
  for (std::int32_t i = 0; department.privileges != nullptr && i < department.privilege_count; ++i) {
    if (department.privileges[i] != nullptr) json["privileges"].push_back(department.privileges[i]);
  }
  return json;
}

CallJson ValidationToJson(const krx_validation_data& validation) {
  if (validation.authorization == nullptr) return {{"authorization", nullptr}};
  const krx_authorization_data& granted = *validation.authorization;
  CallJson json;
  SetText(json, "user", granted.user_id);
  json["departments"] = CallJson::array();
  for (std::int32_t i = 0; granted.departments != nullptr && i < granted.department_count; ++i) {
    if (granted.departments[i] != nullptr) json["departments"].push_back(DepartmentToJson(*granted.departments[i]));
  }
  return {{"authorization", json}};
}

std::uint32_t NumberAt(const void* value, std::size_t bytes) {
  std::uint32_t number = 0;
  std::memcpy(&number, value, bytes);  // little-endian
  return number;
}

// The number of bytes of a number in this element; 0 if it is not a number. A nested block is not a number even in the
// credential marker, although a module that reads the marker takes the first bytes of any value there.
std::size_t NumberBytes(std::int32_t index, std::int32_t type) {
  if (type == kKrxTypeNested) return 0;
  if (type == kKrxTypeUint8) return 1;
  if (type == kKrxTypeUint16 || index == kKrxCredentialMarker) return 2;
  return type == kKrxTypeUint32 ? 4 : 0;
}

bool IsList(std::int32_t index) { return index == kKrxSecurityInterceptor || index == kKrxCredentials; }

void SetValue(CallJson& json, const krx_element& element, int depth) {
  if (element.type == kKrxTypeString && !IsList(element.index)) {
    SetText(json, "text", element.value);
  } else if (element.value == nullptr || depth > kNestingMax) {  // NOLINT(bugprone-branch-clone): the order decides
    json["pointer"] = nullptr;
  } else if (IsList(element.index)) {  // of any type: a module goes by the index
    const auto* const list = static_cast<const krx_element_list*>(element.value);
    json["list"] = ArrayToJson(list->elements, list->element_count, depth + 1);
  } else if (element.index == kKrxValidationData) {
    json["validation"] = ValidationToJson(*static_cast<const krx_validation_data*>(element.value));
  } else if (const std::size_t bytes = NumberBytes(element.index, element.type); bytes > 0) {
    json["number"] = NumberAt(element.value, bytes);
  } else if (element.type == kKrxTypeNested) {
    json["blocks"] = ChainToJson(static_cast<const krx_nested_block*>(element.value), depth + 1);
  } else {
    json["pointer"] = nullptr;
  }
}

CallJson ElementToJson(const krx_element& element, int depth) {
  CallJson json = {{"index", element.index}, {"type", element.type}};
  SetValue(json, element, depth);
  return json;
}

// --- to memory

struct NamedDepartment {
  std::optional<std::string> name;
  std::vector<std::string> privileges;
};

// Pointers to the names and privileges in `departments`.
std::vector<provider::BlockDepartment> PointersOf(const std::vector<NamedDepartment>& departments) {
  std::vector<provider::BlockDepartment> pointers;
  for (const NamedDepartment& from : departments) {
    provider::BlockDepartment& department = pointers.emplace_back();
    department.name = from.name.has_value() ? from.name->c_str() : nullptr;
    for (const std::string& privilege : from.privileges) department.privileges.push_back(privilege.c_str());
  }
  return pointers;
}

class BlockParser {
 public:
  BlockParser(RawBlock& block, std::string& problem) : block_(block), problem_(problem) {}

  bool Elements(const CallJson& json, int depth, RawBlock::Elements& elements) {
    if (!json.is_array()) return Fails(problem_, "elements are not an array");
    if (depth > kNestingMax) return Fails(problem_, "elements are nested more than 8 deep");
    for (const CallJson& item : json) {
      krx_element* const element = Element(item, depth);
      if (element == nullptr) return false;
      elements.push_back(element);
    }
    return true;
  }

 private:
  krx_element* Element(const CallJson& json, int depth) {
    if (!json.is_object()) return Refuse("an element is not an object");
    if (++count_ > kCallElementsMax) return Refuse("the block has more than 4096 elements");
    const FieldReader fields(json, problem_);
    std::int32_t index = 0;
    std::int32_t type = 0;
    if (!fields.Integer("index", index) || !fields.Integer("type", type)) return nullptr;
    if (json.size() != 3) return Refuse("an element has other keys than index, type and one for its value");
    if (json.contains("number")) return Number(fields, index, type);
    if (json.contains("text") || json.contains("textBase64")) return Text(fields, index, type);
    if (json.contains("blocks")) return Chain(json["blocks"], index, type, depth);
    if (json.contains("list")) return List(json["list"], index, type, depth);
    if (json.contains("validation")) return Validation(json["validation"], index, type);
    if (!json.contains("pointer") || !json["pointer"].is_null())
      return Refuse("an element has no value of a known kind");
    return IsReadable(index, type) ? Refuse("an element of this index or type needs a value")
                                   : block_.Element(index, type, nullptr);
  }

  // Whether a module reads a value of this element without a check of the pointer. (It checks the pointer of a string.)
  static bool IsReadable(std::int32_t index, std::int32_t type) {
    return !IsList(index) && index != kKrxValidationData && NumberBytes(index, type) > 0;
  }

  krx_element* Number(const FieldReader& fields, std::int32_t index, std::int32_t type) {
    std::uint32_t number = 0;
    if (!fields.Number("number", number)) return nullptr;
    if (IsPointerKind(index, type)) return Refuse("an element has a number, but a module reads a pointer from it");
    return block_.Number(index, type, number);
  }

  krx_element* Text(const FieldReader& fields, std::int32_t index, std::int32_t type) {
    std::optional<std::string> text;
    if (!fields.Bytes("text", text)) return nullptr;
    if (text.has_value() && text->find('\0') != std::string::npos) return Refuse("a text has a NUL in it");
    if (type != kKrxTypeString || IsList(index)) return Refuse("a text is in an element of another type than 8");
    return text.has_value() ? block_.Text(index, type, *text) : block_.Element(index, type, nullptr);
  }

  krx_element* Chain(const CallJson& json, std::int32_t index, std::int32_t type, int depth) {
    if (!json.is_array() || json.empty()) return Refuse("\"blocks\" is not an array of blocks");
    if (json.size() > kChainBlocksMax) return Refuse("a chain has more than 64 blocks");
    if (type != kKrxTypeNested || IsList(index)) return Refuse("blocks are in an element of another type than 512");
    krx_nested_block* block = nullptr;
    for (auto item = json.rbegin(); item != json.rend(); ++item) {  // from the last: each block points to the next
      RawBlock::Elements elements;
      if (!Elements(*item, depth + 1, elements)) return nullptr;
      block = block_.Block(elements, block);
    }
    return block_.Element(index, type, block);
  }

  krx_element* List(const CallJson& json, std::int32_t index, std::int32_t type, int depth) {
    if (!IsList(index)) return Refuse("a list is in an element that cannot have one");
    RawBlock::Elements elements;
    if (!Elements(json, depth + 1, elements)) return nullptr;
    return block_.Element(index, type, block_.List(elements));
  }

  krx_element* Validation(const CallJson& json, std::int32_t index, std::int32_t type) {
    if (index != kKrxValidationData) return Refuse("validation data is in an element that cannot have it");
    if (!json.is_object() || json.size() != 1 || !json.contains("authorization")) {
      return Refuse("validation data has only \"authorization\"");
    }
    const CallJson& granted = json["authorization"];
    if (granted.is_null()) return block_.Element(index, type, block_.Validation(nullptr));
    std::optional<std::string> user;
    std::vector<NamedDepartment> departments;
    if (!Authorization(granted, user, departments)) return nullptr;
    const char* const user_id = user.has_value() ? user->c_str() : nullptr;
    return block_.Element(index, type, block_.Validation(block_.Authorization(user_id, PointersOf(departments))));
  }

  bool Authorization(const CallJson& json, std::optional<std::string>& user,
                     std::vector<NamedDepartment>& departments) {
    if (!json.is_object()) return Fails(problem_, "\"authorization\" is not an object");
    const FieldReader fields(json, problem_);
    if (!fields.Only({"user", "userBase64", "departments"}) || !fields.Bytes("user", user)) return false;
    if (!json.contains("departments") || !json["departments"].is_array()) {
      return Fails(problem_, "\"departments\" is not an array");
    }
    for (const CallJson& item : json["departments"]) {
      departments.emplace_back();
      if (!Department(item, departments.back())) return false;
    }
    return true;
  }

  bool Department(const CallJson& json, NamedDepartment& department) {
    if (!json.is_object()) return Fails(problem_, "a department is not an object");
    const FieldReader fields(json, problem_);
    if (!fields.Only({"name", "nameBase64", "privileges"}) || !fields.Bytes("name", department.name)) return false;
    if (!json.contains("privileges") || !json["privileges"].is_array()) {
      return Fails(problem_, "\"privileges\" is not an array");
    }
    for (const CallJson& privilege : json["privileges"]) {
      if (!privilege.is_string()) return Fails(problem_, "a privilege is not a text");
      department.privileges.push_back(privilege.get<std::string>());
    }
    return true;
  }

  // Whether a module uses the value of such an element as the address of a structure.
  static bool IsPointerKind(std::int32_t index, std::int32_t type) {
    const bool is_marker = index == kKrxCredentialMarker && type == kKrxTypePointer;
    return IsList(index) || index == kKrxValidationData || type == kKrxTypeString || type == kKrxTypeNested ||
           (type == kKrxTypePointer && !is_marker);
  }

  krx_element* Refuse(const char* why) {
    problem_ = why;
    return nullptr;
  }

  RawBlock& block_;
  std::string& problem_;
  std::size_t count_ = 0;
};

}  // namespace

CallJson BlockToJson(const wcs_gendata& block) {
  const std::size_t tag_bytes = strnlen(block.tag, sizeof block.tag);
  CallJson json = {{"version", block.version}};
  SetBytes(json, "tag", std::string(block.tag, tag_bytes));
  json["size"] = block.size;
  json["elements"] = ArrayToJson(block.elements, block.element_count, 1);
  return json;
}

bool BlockFromJson(const CallJson& json, RawBlock& block, std::string& problem) {
  if (!json.is_object()) return Fails(problem, "\"block\" is not an object");
  const FieldReader fields(json, problem);
  if (!fields.Only({"version", "tag", "tagBase64", "size", "elements"})) return false;
  std::optional<std::string> tag;
  krx_gendata& header = block.Header();
  if (!fields.Number("version", header.version) || !fields.Bytes("tag", tag) || !fields.Integer("size", header.size)) {
    return false;
  }
  if (!tag.has_value() || tag->size() > sizeof header.tag) return Fails(problem, "\"tag\" has more than four bytes");
  std::memset(header.tag, 0, sizeof header.tag);
  tag->copy(header.tag, sizeof header.tag);
  RawBlock::Elements elements;
  BlockParser parser(block, problem);
  if (!parser.Elements(json.value("elements", CallJson()), 1, elements)) return false;
  block.SetElements(elements);
  return true;
}

}  // namespace qx::ctl
