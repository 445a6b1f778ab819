#include "tools/qxctl/fetch/FetchState.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "reportfile/tools/DurableFiles.h"
#include "tools/qxctl/cli/WriteAll.h"

namespace qx::ctl {

namespace {

constexpr int kStateVersion = 1;
constexpr std::size_t kStateBytesMax = std::size_t{1} << 20;
constexpr mode_t kModeMask = 07777;
constexpr int kHexBase = 16;
constexpr std::size_t kHashDigits = 16;

std::string HashText(std::uint64_t hash) {
  char text[kHashDigits + 1];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

bool ParseHash(const std::string& text, std::uint64_t& hash) {
  const char* const end = text.data() + text.size();
  const std::from_chars_result parsed = std::from_chars(text.data(), end, hash, kHexBase);
  return text.size() == kHashDigits && parsed.ec == std::errc() && parsed.ptr == end;
}

Json ToJson(const FetchState& state) {
  Json overlap = Json::array();
  for (const std::uint64_t hash : state.position.overlap) overlap.push_back(HashText(hash));
  Json document = {{"qxctlFetchState", kStateVersion}};
  document["report"] = state.report;
  document["format"] = NameOf(state.format.format);
  document["fields"] = state.format.separator;
  document["columns"] = state.columns;
  document["output"] = state.output;
  document["outputBytes"] = nullptr;
  if (state.output_bytes) document["outputBytes"] = *state.output_bytes;
  document["next"] = state.position.next;
  document["delivered"] = state.position.delivered;
  document["inFlight"] = state.in_flight;
  document["overlap"] = std::move(overlap);
  return document;
}

bool ParseOverlap(const Json& document, report::ReportPosition& position) {
  for (const Json& text : document.at("overlap")) {
    std::uint64_t hash = 0;
    if (!ParseHash(text.get<std::string>(), hash)) return false;
    position.overlap.push_back(hash);
  }
  const bool is_fresh = position.next == 0 && position.overlap.empty();
  const bool has_overlap = position.next > 0 && !position.overlap.empty() && position.delivered > 0;
  return position.overlap.size() <= report::kOverlapRecords && (is_fresh || has_overlap) &&
         position.next <= static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max());
}

bool ParseFormat(const std::string& name, RecordFormat& format) {
  for (const RecordFormat known : {RecordFormat::kText, RecordFormat::kJson, RecordFormat::kCsv}) {
    if (name != NameOf(known)) continue;
    format = known;
    return true;
  }
  return false;
}

// The number under `key`: whole, not negative, and no larger than the target holds.
template <typename Number>
Number NumberAt(const Json& document, const char* key) {
  const Json& value = document.at(key);
  if (!value.is_number_unsigned() ||
      value.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<Number>::max())) {
    throw Json::type_error::create(302, key, &document);
  }
  return value.get<Number>();
}

// Throws what the JSON library throws when a key is missing or of another type.
bool ParseState(const Json& document, FetchState& state) {
  if (NumberAt<int>(document, "qxctlFetchState") != kStateVersion) return false;
  state.report = document.at("report").get<std::string>();
  state.format.separator = document.at("fields").get<std::string>();
  state.columns = NumberAt<std::uint32_t>(document, "columns");
  state.output = document.at("output").get<std::string>();
  if (!document.at("outputBytes").is_null()) state.output_bytes = NumberAt<std::uint64_t>(document, "outputBytes");
  state.position.next = NumberAt<std::uint32_t>(document, "next");
  state.position.delivered = NumberAt<std::uint64_t>(document, "delivered");
  state.in_flight = NumberAt<std::uint64_t>(document, "inFlight");
  return ParseFormat(document.at("format").get<std::string>(), state.format.format) &&
         ParseOverlap(document, state.position);
}

bool FromText(const std::string& text, FetchState& state) {
  try {
    return ParseState(Json::parse(text), state);
  } catch (const Json::exception&) {
    return false;
  }
}

bool ReadWhole(int descriptor, std::string& text) {
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t count = pread(descriptor, buffer.data(), buffer.size(), static_cast<off_t>(text.size()));
    if (count < 0) return false;
    if (count == 0 || text.size() > kStateBytesMax) return true;
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

std::string Resolved(const std::string& path) {
  char* const real = realpath(path.c_str(), nullptr);
  std::string resolved = real != nullptr ? real : path;
  std::free(real);
  return resolved;
}

}  // namespace

FetchStateFile::~FetchStateFile() {
  if (descriptor_ < 0) return;
  if (is_fresh_) (void)unlink(path_.c_str());  // an empty file of ours says nothing
  (void)close(descriptor_);
}

Status FetchStateFile::Open(const std::string& path) {
  path_ = path;
  if (Status status = Lock(); !status.IsOk()) return status;
  path_ = Resolved(path);
  return Read();
}

// The run that holds the lock may put a new file in place while this one waits for nothing: the lock counts only if the
// file is still the one of that name.
Status FetchStateFile::Lock() {
  constexpr int kAttempts = 100;
  for (int i = 0; i < kAttempts; ++i) {
    const int descriptor = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
    if (descriptor < 0) return Status::Io("cannot open " + path_, errno);
    struct stat opened = {};
    struct stat named = {};
    const bool is_regular = fstat(descriptor, &opened) == 0 && S_ISREG(opened.st_mode);
    const bool is_locked = is_regular && flock(descriptor, LOCK_EX | LOCK_NB) == 0;
    if (is_locked && stat(path_.c_str(), &named) == 0 && named.st_ino == opened.st_ino &&
        named.st_dev == opened.st_dev) {
      descriptor_ = descriptor;
      is_fresh_ = opened.st_size == 0;
      return {};
    }
    (void)close(descriptor);
    if (!is_regular) return {ExitCode::kRefused, path_ + " is no regular file; name another for the state"};
    if (!is_locked) break;
  }
  return {ExitCode::kRefused, "another run works with " + path_ + "; wait until it has ended"};
}

Status FetchStateFile::Read() {
  std::string text;
  if (!ReadWhole(descriptor_, text)) return Status::Io("cannot read " + path_, errno);
  if (text.empty()) return {};
  FetchState state;
  if (!FromText(text, state)) {
    return {ExitCode::kRefused,
            path_ + " is no state of a fetch; name another file, or remove it to fetch from the " + "oldest record on"};
  }
  state_ = std::move(state);
  return {};
}

Status FetchStateFile::Save(const FetchState& state) {
  constexpr int kIndent = 2;
  Status status = Replace(ToJson(state).dump(kIndent, ' ', false, Json::error_handler_t::replace) + "\n");
  if (status.IsOk()) is_fresh_ = false;
  return status;
}

Status FetchStateFile::Replace(const std::string& text) {
  std::string name = path_ + ".XXXXXX";
  const int descriptor = mkostemp(name.data(), O_CLOEXEC);
  if (descriptor < 0) return Status::Io("cannot create a file beside " + path_, errno);
  struct stat old = {};
  const bool is_ready = fstat(descriptor_, &old) == 0 && fchmod(descriptor, old.st_mode & kModeMask) == 0 &&
                        flock(descriptor, LOCK_EX | LOCK_NB) == 0;
  Status status = is_ready ? WriteAll(descriptor, text, name) : Status::Io("cannot prepare " + name, errno);
  if (status.IsOk() && fsync(descriptor) != 0) status = Status::Io("cannot sync " + name, errno);
  if (status.IsOk() && rename(name.c_str(), path_.c_str()) != 0) {
    status = Status::Io("cannot put " + path_ + " in place", errno);
  }
  if (!status.IsOk()) {
    (void)unlink(name.c_str());
    (void)close(descriptor);
    return status;
  }
  (void)close(std::exchange(descriptor_, descriptor));
  const int error = report::SyncPath(report::ParentOf(path_));
  return error == 0 ? Status() : Status::Io("cannot sync the directory of " + path_, error);
}

}  // namespace qx::ctl
