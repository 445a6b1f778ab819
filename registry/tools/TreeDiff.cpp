#include "registry/tools/TreeDiff.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "registry/RegistryValue.h"
#include "registry/TreeReader.h"
#include "registry/TreeWriter.h"

namespace qx::registry {

namespace {

constexpr std::size_t kNoParent = static_cast<std::size_t>(-1);

// The keys that the two trees have at the same path; one of them may be missing. Paths are built only for keys with
// changes.
struct Pair {
  const CRegistryNode* before;  // null: the tree lacks the key
  const CRegistryNode* after;
  std::size_t parent;
  std::string_view name;
};

std::string PathTo(const std::vector<Pair>& pairs, std::size_t at) {
  std::vector<std::string_view> names;
  for (; pairs[at].parent != kNoParent; at = pairs[at].parent) names.push_back(pairs[at].name);
  std::string path;
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    if (name != names.rbegin()) path += '/';
    path += *name;
  }
  return path;
}

using Entries = std::span<StrMapEntry>;

Entries EntriesOf(const CRegistryNode* key) { return key != nullptr ? key->Entries() : Entries(); }

// Removes the front entry if it has this name. Returns the entry, or null if it has another name or no value.
const StrMapEntry* TakeIf(Entries& entries, std::string_view name) {
  if (entries.empty() || name != entries.front().name) return nullptr;
  const StrMapEntry& entry = entries.front();
  entries = entries.subspan(1);
  return entry.value.IsPresent() ? &entry : nullptr;
}

std::string_view SmallerName(const Entries& left, const Entries& right) {
  if (left.empty()) return right.front().name;
  if (right.empty()) return left.front().name;
  return std::min<std::string_view>(left.front().name, right.front().name);
}

std::optional<TreeValue> ValueIn(const StrMapEntry* entry) {
  return entry != nullptr ? std::optional(ValueOf(entry->value)) : std::nullopt;
}

CRegistryNode* KeyIn(const StrMapEntry* entry) { return entry != nullptr ? NodeOf(entry->value) : nullptr; }

bool IsAboutSubkey(const TreeChange& change) {
  return (change.before && change.before->type == REG_NODE) || (change.after && change.after->type == REG_NODE);
}

class Comparison {
 public:
  explicit Comparison(DiffLimits limits) : limits_(limits) {}

  TreeDifference Run(const CRegistryNode& before, const CRegistryNode& after) {
    pairs_.push_back({&before, &after, kNoParent, {}});
    pending_.push_back(0);
    while (!pending_.empty() && result_.is_complete) {
      const std::size_t at = pending_.back();
      pending_.pop_back();
      ComparePair(at);
    }
    return std::move(result_);
  }

 private:
  void ComparePair(std::size_t at) {
    std::vector<TreeChange> changes;
    const std::size_t first_child = pairs_.size();
    Entries before = EntriesOf(pairs_[at].before);
    Entries after = EntriesOf(pairs_[at].after);
    while (!before.empty() || !after.empty()) {
      const std::string_view name = SmallerName(before, after);
      const StrMapEntry* const left = TakeIf(before, name);
      const StrMapEntry* const right = TakeIf(after, name);
      if (KeyIn(left) != nullptr || KeyIn(right) != nullptr) pairs_.push_back({KeyIn(left), KeyIn(right), at, name});
      TreeChange change = {.key = {}, .name = std::string(name), .before = ValueIn(left), .after = ValueIn(right)};
      if (change.before != change.after) changes.push_back(std::move(change));
    }
    for (std::size_t child = pairs_.size(); child-- > first_child;) pending_.push_back(child);
    Add(std::move(changes), at);
  }

  void Add(std::vector<TreeChange> changes, std::size_t at) {
    if (changes.empty()) return;
    std::stable_partition(changes.begin(), changes.end(), [](const auto& change) { return !IsAboutSubkey(change); });
    const std::string path = PathTo(pairs_, at);
    for (TreeChange& change : changes) {
      bytes_ += path.size();
      result_.is_complete = result_.changes.size() < limits_.changes && bytes_ <= limits_.bytes;
      if (!result_.is_complete) return;
      change.key = path;
      result_.changes.push_back(std::move(change));
    }
  }

  DiffLimits limits_;
  std::size_t bytes_ = 0;
  std::vector<Pair> pairs_;
  std::vector<std::size_t> pending_;
  TreeDifference result_;
};

// --- what the file cannot store

constexpr std::size_t kMarkerChars[] = {0, 3, 4, 3, 3};

std::size_t LineChars(const StrMapEntry& entry, const TreeValue& value) {
  const std::size_t name_chars = std::strlen(entry.name);
  if (value.type == REG_NODE) return name_chars + 2;
  const std::size_t marked = name_chars + kMarkerChars[value.type];
  if (value.type == REG_BINARY) return marked + 3 * value.bytes.size();
  return marked + (value.type == REG_DWORD ? 1 : value.bytes.size());  // a number is too short to matter
}

std::string TooLong(std::size_t chars) {
  return "its line would have " + std::to_string(chars) + " characters, and readers take at most 1022 for one line";
}

bool Holds(std::string_view text, char c) { return text.find(c) != std::string_view::npos; }

std::string WhyNotAsKey(std::string_view name) {
  if (Holds(name, '\n')) return "the name has a line feed";
  if (Holds(name, ']')) return "the name of a key ends at its first \"]\"";
  return {};
}

std::string WhyNotAsValue(std::string_view name, const TreeValue& value) {
  const bool is_text = value.type == REG_SZ || value.type == REG_EXPAND_SZ;
  if (Holds(name, '\n')) return "the name has a line feed";
  if (Holds(name, '=')) return "the name of a value ends at its first \"=\"";
  if (is_text && Holds(value.bytes, '\n')) return "the text has a line feed";
  const bool has_bracket = Holds(name, ']') || (is_text && Holds(value.bytes, ']'));
  if (name.starts_with('[') && has_bracket) return "the name begins with \"[\" and a \"]\" follows: it would be a key";
  return {};
}

// Why the entry cannot be stored; empty if it can.
std::string WhyNot(const StrMapEntry& entry) {
  const TreeValue value = ValueOf(entry.value);
  std::string reason = value.type == REG_NODE ? WhyNotAsKey(entry.name) : WhyNotAsValue(entry.name, value);
  if (!reason.empty()) return reason;
  const std::size_t chars = LineChars(entry, value);
  return chars >= kLineCharsMax ? TooLong(chars) : "";
}

// The first entry that cannot be stored.
std::optional<Refusal> FindFault(const CRegistryNode& tree) {
  std::vector<Pair> pairs = {{&tree, nullptr, kNoParent, {}}};
  for (std::size_t at = 0; at < pairs.size(); ++at) {
    for (const StrMapEntry& entry : pairs[at].before->Entries()) {
      if (!entry.value.IsPresent()) continue;
      std::string reason = WhyNot(entry);
      if (!reason.empty()) return Refusal{PathTo(pairs, at), entry.name, std::move(reason)};
      if (KeyIn(&entry) != nullptr) pairs.push_back({KeyIn(&entry), nullptr, at, entry.name});
    }
  }
  return std::nullopt;
}

}  // namespace

TreeValue ValueOf(const RegistryValue& value) {
  std::string_view bytes = StoredBytes(value);
  if (IsString(value)) bytes.remove_suffix(1);
  return {value.type, std::string(bytes)};
}

TreeDifference Compare(const CRegistryNode& before, const CRegistryNode& after, DiffLimits limits) {
  return Comparison(limits).Run(before, after);
}

bool ParseTree(std::string_view bytes, CRegistryNode& tree) {
  LineReader lines([bytes](char* to, std::size_t size) mutable {
    const std::size_t count = std::min(bytes.size(), size);
    if (count > 0) std::memcpy(to, bytes.data(), count);
    bytes.remove_prefix(count);
    return static_cast<ssize_t>(count);
  });
  return RestoreFrom(lines, tree) != Reading::kFailed;
}

// A tree is storable if a load of its text returns the same tree. Single entries are checked before that: their reasons
// are clearer, and a line that just fills a reader's buffer would do harm only after another line is added.
std::optional<Refusal> WhyNotStorable(const CRegistryNode& tree, std::string& text) {
  std::string formatted;
  if (!FormatTree(tree, formatted)) return Refusal{{}, {}, "there is not enough memory"};
  if (std::optional<Refusal> fault = FindFault(tree)) return fault;
  CRegistryNode again;
  const bool loads = ParseTree(formatted, again);
  const TreeDifference lost = Compare(tree, again, {.changes = 1});
  if (!lost.changes.empty()) {
    return Refusal{lost.changes[0].key, lost.changes[0].name, "a load does not read it back"};
  }
  if (!loads) return Refusal{{}, {}, "no value is left, and a registry file without any value does not load"};
  text = std::move(formatted);
  return std::nullopt;
}

}  // namespace qx::registry
