// Internal: reads and checks the fields of objects in a call file or the state of a fetch.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

// The type of the JSON library, because class Json cannot parse.
using CallJson = nlohmann::ordered_json;

// Sets `problem` to the reason, and returns false.
bool Fails(std::string& problem, std::string reason);

// Sets `key` to `bytes`, or, if they are not UTF-8, `key`Base64 to their base64.
void SetBytes(CallJson& object, const std::string& key, const std::string& bytes);

// Reads one object. Every function returns false, with the reason in `problem`, if the field is missing or of another
// kind; its output is then unchanged.
class FieldReader {
 public:
  FieldReader(const CallJson& object, std::string& problem) : object_(object), problem_(problem) {}

  bool Has(const char* key) const { return object_.contains(key); }
  bool Only(std::initializer_list<std::string_view> keys) const;

  bool Text(const char* key, std::string& text) const;
  // The value is a text or null; if there is no such key, `key`Base64 has the base64 of the bytes.
  bool Bytes(const char* key, std::optional<std::string>& bytes) const;
  bool Integer(const char* key, std::int32_t& number) const;
  bool Number(const char* key, std::uint32_t& number) const;
  // A number, or null.
  bool OptionalNumber(const char* key, std::optional<std::uint32_t>& number) const;

 private:
  bool Wrong(const char* key, const char* kind) const;
  const CallJson* Find(const char* key) const;

  const CallJson& object_;
  std::string& problem_;
};

}  // namespace qx::ctl
