// Collects the text of a pugixml document, the way programs that use pugixml do.
#pragma once

#include <cstddef>
#include <pugixml.hpp>
#include <string>

namespace qx::bench {

struct StringWriter : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override { text.append(static_cast<const char*>(data), size); }
};

}  // namespace qx::bench
