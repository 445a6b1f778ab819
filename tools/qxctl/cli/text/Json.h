// A JSON document that a command builds and prints.
//
// Nearly every source of the tool builds one, and the header of a JSON library needs more time to compile than the rest
// of such a source. JsonText.cpp prints it, with the library.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace qx::ctl {

// One value: null, a number, a text, an array, or an object whose members keep the order in which they were added.
//
//   Json()                           => null
//   Json{{"a", 1}, {"b", nullptr}}   => {"a": 1, "b": null}
//   Json{"x", "y", "z"}              => ["x", "y", "z"]
//
// A list whose items are all pairs that begin with a text is an object, as in the second example.
class Json {
 public:
  using Items = std::vector<Json>;
  using Members = std::vector<std::pair<std::string, Json>>;
  using Content = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Items, Members>;

  Json();
  Json(std::nullptr_t);
  Json(bool value);
  Json(double value);
  Json(const char* text);
  Json(std::string_view text);
  Json(std::string text);
  Json(const std::vector<std::string>& texts);
  Json(std::initializer_list<Json> items);
  template <std::signed_integral Number>
  Json(Number number) : Json(Signed{number}) {}
  template <std::unsigned_integral Number>
  Json(Number number) : Json(Unsigned{number}) {}
  Json(const Json& other);
  Json(Json&& other) noexcept;
  Json& operator=(const Json& other);
  Json& operator=(Json&& other) noexcept;
  ~Json();

  static Json Array();

  // Adds to an array; null becomes one.
  void Append(Json item);
  // The member of an object, added as null if it is missing; null becomes an object.
  Json& operator[](std::string_view key);
  // Sets each member of the other object.
  void Merge(const Json& object);

  bool IsEmpty() const;  // null, or an array or object without content
  const Content& Value() const { return content_; }

 private:
  struct Signed {
    std::int64_t number;
  };
  struct Unsigned {
    std::uint64_t number;
  };
  explicit Json(Signed number);
  explicit Json(Unsigned number);

  Content content_;
};

}  // namespace qx::ctl
