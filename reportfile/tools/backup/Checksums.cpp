#include "reportfile/tools/backup/Checksums.h"

#include <nettle/sha2.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/DurableFiles.h"

namespace qx::report {

namespace {

constexpr std::size_t kHexCharacters = std::size_t{2} * SHA256_DIGEST_SIZE;
constexpr std::string_view kBetween = "  ";
constexpr std::string_view kHexDigits = "0123456789abcdef";

std::string HexOf(sha256_ctx* context) {
  std::uint8_t digest[SHA256_DIGEST_SIZE];
  sha256_digest(context, sizeof digest, digest);
  std::string hex;
  for (const std::uint8_t byte : digest) hex.append({kHexDigits[byte >> 4U], kHexDigits[byte & 15U]});
  return hex;
}

// "a\b" => "a\\b"; the same name if nothing has to be escaped
std::string Escaped(std::string_view name) {
  std::string escaped;
  for (const char character : name) {
    if (character == '\\') escaped += "\\\\";
    if (character == '\n') escaped += "\\n";
    if (character == '\r') escaped += "\\r";
    if (character != '\\' && character != '\n' && character != '\r') escaped += character;
  }
  return escaped;
}

// The reverse of Escaped. False if a backslash is followed by anything but a backslash, "n" or "r".
bool Unescape(std::string_view escaped, std::string* name) {
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '\\') {
      *name += escaped[i];
      continue;
    }
    const char code = ++i < escaped.size() ? escaped[i] : '\0';
    if (code != '\\' && code != 'n' && code != 'r') return false;
    *name += code == 'n' ? '\n' : code == 'r' ? '\r' : '\\';
  }
  return true;
}

bool ParseLine(std::string_view line, Checksum* checksum) {
  const bool is_escaped = line.starts_with('\\');
  if (is_escaped) line.remove_prefix(1);
  const std::string_view hex = line.substr(0, kHexCharacters);
  if (hex.size() != kHexCharacters || hex.find_first_not_of(kHexDigits) != std::string_view::npos) return false;
  const std::string_view rest = line.substr(kHexCharacters);
  if (!rest.starts_with(kBetween) || rest.size() == kBetween.size()) return false;
  checksum->hex = hex;
  const std::string_view name = rest.substr(kBetween.size());
  if (is_escaped) return Unescape(name, &checksum->path);
  checksum->path = name;
  return true;
}

}  // namespace

int ChecksumOf(const std::string& name, int directory, std::string* hex) {
  FileBytes file(OpenForReading(name, directory));
  if (!file.IsOpen()) return errno;
  sha256_ctx context;
  sha256_init(&context);
  WindowedBytes window(file);
  for (std::int64_t at = 0;;) {
    const std::string_view bytes = window.At(at);
    if (bytes.empty()) break;
    sha256_update(&context, bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data()));
    at += std::ssize(bytes);
  }
  if (file.Error() != 0) return file.Error();
  *hex = HexOf(&context);
  return 0;
}

std::string ChecksumLines(const std::vector<Checksum>& checksums) {
  std::string lines;
  for (const Checksum& checksum : checksums) {
    const std::string escaped = Escaped(checksum.path);
    if (escaped != checksum.path) lines += '\\';
    lines.append(checksum.hex).append(kBetween).append(escaped).append("\n");
  }
  return lines;
}

bool ParseChecksumLines(std::string_view text, std::vector<Checksum>* checksums) {
  std::vector<Checksum> parsed;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos || !ParseLine(text.substr(0, end), &parsed.emplace_back())) return false;
    text.remove_prefix(end + 1);
  }
  *checksums = std::move(parsed);
  return true;
}

}  // namespace qx::report
