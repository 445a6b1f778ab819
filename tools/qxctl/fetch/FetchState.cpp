#include "tools/qxctl/fetch/FetchState.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "base/tools/ReplacedFile.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/module/CallFields.h"

namespace qx::ctl {

namespace {

using Library = nlohmann::ordered_json;

constexpr int kStateVersion = 1;
constexpr std::size_t kStateBytesMax = std::size_t{1} << 20;
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

Library StateJson(const FetchState& state) {
  Library overlap = Library::array();
  for (const std::uint64_t hash : state.position.overlap) overlap.push_back(HashText(hash));
  Library document = {{"qxctlFetchState", kStateVersion}};
  SetBytes(document, "report", state.report);
  document["format"] = NameOf(state.format.format);
  document["fields"] = state.format.separator;
  document["columns"] = state.columns;
  SetBytes(document, "output", state.output);
  document["outputBytes"] = nullptr;
  if (state.output_bytes) document["outputBytes"] = *state.output_bytes;
  document["next"] = state.position.next;
  document["delivered"] = state.position.delivered;
  document["inFlight"] = state.in_flight;
  document["overlap"] = std::move(overlap);
  return document;
}

bool ParseOverlap(const Library& document, report::ReportPosition& position) {
  for (const Library& text : document.at("overlap")) {
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

// The number under `key`: whole, not negative, and small enough for its type.
template <typename Number>
Number NumberAt(const Library& document, const char* key) {
  const Library& value = document.at(key);
  if (!value.is_number_unsigned() ||
      value.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<Number>::max())) {
    throw Library::type_error::create(302, key, &document);
  }
  return value.get<Number>();
}

// The bytes under `key`: a text, or, if they are not UTF-8, their base64 under `key`Base64.
bool ParseBytes(const Library& document, const char* key, std::string& bytes) {
  std::optional<std::string> parsed;
  std::string problem;
  if (!FieldReader(document, problem).Bytes(key, parsed) || !parsed) return false;
  bytes = *std::move(parsed);
  return true;
}

// Throws the JSON library's exception if a key is missing or of another type.
bool ParseState(const Library& document, FetchState& state) {
  if (NumberAt<int>(document, "qxctlFetchState") != kStateVersion) return false;
  if (!ParseBytes(document, "report", state.report) || !ParseBytes(document, "output", state.output)) return false;
  state.format.separator = document.at("fields").get<std::string>();
  state.columns = NumberAt<std::uint32_t>(document, "columns");
  if (!document.at("outputBytes").is_null()) state.output_bytes = NumberAt<std::uint64_t>(document, "outputBytes");
  state.position.next = NumberAt<std::uint32_t>(document, "next");
  state.position.delivered = NumberAt<std::uint64_t>(document, "delivered");
  state.in_flight = NumberAt<std::uint64_t>(document, "inFlight");
  return ParseFormat(document.at("format").get<std::string>(), state.format.format) &&
         ParseOverlap(document, state.position);
}

bool FromText(const std::string& text, FetchState& state) {
  try {
    return ParseState(Library::parse(text), state);
  } catch (const Library::exception&) {
    return false;
  }
}

}  // namespace

FetchStateFile::~FetchStateFile() {
  if (!file_.IsOpen() || !is_fresh_) return;
  (void)file::Remove(place_.name.c_str(), 0, place_.directory.Number());  // a new file of this run is empty
}

Status FetchStateFile::Open(const std::string& path, bool force) {
  path_ = path;
  force_ = force;
  const ReplaceResult found = FindPlace(path, LinkRule::kTrusted, place_);
  if (!found.IsDone()) return StatusOfFile("cannot open", found);
  if (Status locked = Lock(); !locked.IsOk()) return locked;
  return Read();
}

// Another run may rename a new file to this name between the open and the lock here. So the lock counts only if the
// locked file still has the name.
Status FetchStateFile::Lock() {
  constexpr int kAttempts = 100;
  for (int i = 0; i < kAttempts; ++i) {
    bool is_named = false;
    if (Status locked = OpenAndLock(file_, is_named); !locked.IsOk()) return locked;
    if (is_named) return {};
  }
  return StatusOfFile("cannot open", {ReplaceState::kChanged, path_});
}

Status FetchStateFile::OpenAndLock(file::Descriptor& opened, bool& is_named) const {
  file::Descriptor state;
  struct stat status;
  ReplaceResult result = OpenPlace(place_, O_RDWR | O_CREAT, 0666, state, status);
  if (result.IsDone() && !force_) result = CheckOwner(place_, status, FileUse::kWrite);
  if (!result.IsDone()) return StatusOfFile("cannot open", result);
  if (!S_ISREG(status.st_mode)) {
    return {ExitCode::kRefused, path_ + " is not a regular file; name another for the state"};
  }
  if (file::TryLock(state.Number()) != 0) {
    return {ExitCode::kRefused, "another run works with " + path_ + "; wait until it has ended"};
  }
  struct stat named;
  is_named = file::StatusOf(place_.name.c_str(), named, AT_SYMLINK_NOFOLLOW, place_.directory.Number()) == 0 &&
             file::IsSameFile(status, named);
  if (is_named) opened = std::move(state);
  return {};
}

Status FetchStateFile::Read() {
  std::string text;
  const int error = file::ReadWhole(file_.Number(), text, kStateBytesMax);
  if (error != 0 && error != EFBIG) return Status::Io("cannot read " + path_, error);
  is_fresh_ = text.empty();
  if (is_fresh_) return {};
  FetchState state;
  if (error == EFBIG || !FromText(text, state)) {
    return {ExitCode::kRefused,
            path_ + " is not the state of a fetch; name another file, or remove it to fetch from the oldest record on"};
  }
  state_ = std::move(state);
  return {};
}

Status FetchStateFile::Save(const FetchState& state) {
  constexpr int kIndent = 2;
  Status status = Replace(StateJson(state).dump(kIndent, ' ', false, Library::error_handler_t::replace) + "\n");
  if (status.IsOk()) is_fresh_ = false;
  return status;
}

Status FetchStateFile::Replace(const std::string& text) {
  ReplacedFile next;
  ReplaceResult result = next.Begin(path_, ReplacedFile::ForOutput(force_));
  if (result.IsDone()) result = next.WriteCopy(text);
  if (!result.IsDone()) return StatusOfFile("cannot create", result);
  if (const int error = file::TryLock(next.CopyDescriptor()); error != 0) {
    return Status::Io("cannot lock " + next.CopyName(), error);
  }
  result = next.Commit(false);
  if (next.IsInPlace()) file_ = next.TakeDescriptor();
  return StatusOfFile("cannot replace", result);
}

}  // namespace qx::ctl
