// A stack of the start tags that are open while a document is parsed, innermost last. It also finds the open tag that
// an end tag closes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <unordered_map>

// An entry of the stack. Entries are small and not initialised in a new array: a deep document has one for each
// element.
struct OpenTag {
  const char* name_begin;  // in the document's text
  std::uint32_t name_bytes;
  std::uint32_t elem;

  std::string_view Name() const { return {name_begin, name_bytes}; }
};

// The stack of open tags of one parse.
//
// Threads: one thread at a time. Owns: its entries; the names are views into the document.
class ElemStack {
 public:
  explicit ElemStack(bool ignore_case) : ignore_case_(ignore_case) {}

  std::size_t Depth() const { return depth_; }
  std::size_t Capacity() const { return capacity_; }
  const OpenTag& Top() const { return tags_[depth_ - 1]; }
  const OpenTag& operator[](std::size_t depth) const { return tags_[depth]; }

  // The capacity is 7 at first, and doubles whenever the stack is full.
  void Push(std::string_view name, std::uint32_t elem) {
    if (depth_ == capacity_) Grow();
    tags_[depth_++] = {name.data(), static_cast<std::uint32_t>(name.size()), elem};
    if (matches_ != nullptr) AddToIndex(name);
  }
  void Pop() {
    --depth_;
    if (matches_ != nullptr) RemoveFromIndex(tags_[depth_].Name());
  }

  // Depth of the innermost open tag that matches the name, or kNone. If there is a match, the cost is one comparison
  // for each tag above it. Otherwise the cost depends only on the length of the name, so lone end tags do not cause a
  // search of all open tags.
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::size_t FindInnermost(std::string_view name);

 private:
  using Hash = std::uint64_t;

  void Grow();
  void BuildIndex();
  void AddToIndex(std::string_view name);
  void RemoveFromIndex(std::string_view name);
  Hash Step(Hash hash, char c) const;
  // Calls visit(hash) for each text that matches the stored name: the whole name, and each prefix that is followed by a
  // byte of kStoredEnd.
  template <typename Visit>
  void ForEachMatch(std::string_view stored, Visit visit) const;

  struct Freed {
    void operator()(OpenTag* tags) const { std::free(tags); }
  };

  std::unique_ptr<OpenTag[], Freed> tags_;
  std::size_t depth_ = 0;
  std::size_t capacity_ = 0;
  bool ignore_case_;

  // For the hash of each name: the number of open tags that the name would match. Built at the first end tag that does
  // not close the innermost tag, so a document without faults has no cost. If two names have the same hash, a search of
  // the open tags may find no match; the result is still correct. Because of the random factor, a sender cannot prepare
  // such names.
  Hash factor_ = 0;
  std::unique_ptr<std::unordered_map<Hash, std::uint32_t>> matches_;
};
