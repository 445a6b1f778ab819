// Serves the files of the web pages: those of tools/qxview/web, which the build embeds, and those of dygraphs, which
// are read from Debian's package when the server starts.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

// One embedded file. The build makes the table (EmbedAssets.cmake).
struct EmbeddedFile {
  const char* name;
  const unsigned char* bytes;
  unsigned long size;
};
extern const EmbeddedFile kEmbeddedFiles[];
extern const unsigned long kEmbeddedFileCount;

inline constexpr std::string_view kDygraphsDirectory = "/usr/share/javascript/dygraphs";

// Threads: any number, after construction.
// Owns: the texts of all files.
class Assets {
 public:
  // Files of dygraphs that are missing are not served; the pages say what to install.
  explicit Assets(const std::string& dygraphs_directory);

  // The reply to a path, with the tag of its content; null if there is no such file. ReplyOf returns 304 without
  // content if the browser has this content already.
  //   "/" => index.html     "/assets/app.js" => app.js
  [[nodiscard]] const HttpReply* Find(std::string_view path) const;
  [[nodiscard]] static HttpReply ReplyOf(const HttpReply& file, const std::string& if_none_match);

 private:
  void Add(const std::string& path, std::string_view name, std::string bytes);

  std::map<std::string, HttpReply, std::less<>> files_;
};

}  // namespace qx::view
