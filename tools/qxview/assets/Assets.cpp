#include "tools/qxview/assets/Assets.h"

#include <cstdio>
#include <memory>
#include <span>
#include <utility>

#include "base/File.h"
#include "reportfile/tools/RecordOverlap.h"

namespace qx::view {

namespace {

constexpr std::size_t kFileBytesMax = std::size_t{1} << 20;
constexpr std::string_view kDygraphsFiles[] = {"dygraph.min.js", "dygraph.min.css"};
constexpr std::string_view kPage = "index.html";

constexpr std::pair<std::string_view, std::string_view> kTypes[] = {
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".mjs", "text/javascript; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".ico", "image/x-icon"},
    {".json", "application/json"},
    {".txt", "text/plain; charset=utf-8"},
    {".webmanifest", "application/manifest+json"},
};

std::string_view TypeOf(std::string_view name) {
  for (const auto& [ending, type] : kTypes) {
    if (name.ends_with(ending)) return type;
  }
  return "application/octet-stream";
}

std::string TagOf(std::string_view bytes) {
  char tag[24];
  std::snprintf(tag, sizeof tag, "\"%016llx\"", static_cast<unsigned long long>(report::RecordHash(bytes)));
  return tag;
}

// The bytes of the file; empty if it cannot be read.
std::string ReadFile(const std::string& path) {
  std::string bytes;
  const file::Descriptor file = file::OpenRegular(path.c_str(), O_RDONLY);
  const bool is_read = file.IsOpen() && file::ReadWhole(file.Number(), bytes, kFileBytesMax) == 0;
  return is_read ? bytes : std::string();
}

}  // namespace

Assets::Assets(const std::string& dygraphs_directory) {
  for (const EmbeddedFile& file : std::span(kEmbeddedFiles, kEmbeddedFileCount)) {
    const std::string name = file.name;
    Add(name == kPage ? "/" : "/assets/" + name, name, {reinterpret_cast<const char*>(file.bytes), file.size});
  }
  for (const std::string_view name : kDygraphsFiles) {
    std::string bytes = ReadFile(dygraphs_directory + "/" + std::string(name));
    if (!bytes.empty()) Add("/assets/" + std::string(name), name, std::move(bytes));
  }
}

void Assets::Add(const std::string& path, std::string_view name, std::string bytes) {
  HttpReply file = {.status = 200, .type = std::string(TypeOf(name)), .text = nullptr};
  file.headers = {{"Cache-Control", "no-cache"}, {"ETag", TagOf(bytes)}};
  file.text = std::make_shared<const std::string>(std::move(bytes));
  files_.insert_or_assign(path, std::move(file));
}

const HttpReply* Assets::Find(std::string_view path) const {
  const auto found = files_.find(path);
  return found != files_.end() ? &found->second : nullptr;
}

HttpReply Assets::ReplyOf(const HttpReply& file, const std::string& if_none_match) {
  HttpReply reply = file;
  const std::string& tag = file.headers.back().second;
  if (if_none_match.find(tag) == std::string::npos) return reply;
  reply.status = 304;
  reply.text = nullptr;
  return reply;
}

}  // namespace qx::view
