// The start tags that are open while a document is parsed, innermost last, and the question whether an end tag belongs
// to any of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>

struct OpenTag {
  std::string_view name;  // in the document's text
  std::uint32_t elem;
};

// Threads: none of its own. Owns: its entries; the names stay the document's.
class ElemStack {
 public:
  explicit ElemStack(bool ignore_case) : ignore_case_(ignore_case) {}

  std::size_t Depth() const { return depth_; }
  std::size_t Capacity() const { return capacity_; }
  const OpenTag& Top() const { return tags_[depth_ - 1]; }
  const OpenTag& operator[](std::size_t depth) const { return tags_[depth]; }

  // Seven entries at first, twice as many whenever full.
  void Push(std::string_view name, std::uint32_t elem) {
    if (depth_ == capacity_) Grow();
    tags_[depth_++] = {name, elem};
    if (matches_ != nullptr) AddToIndex(name);
  }
  void Pop() {
    --depth_;
    if (matches_ != nullptr) RemoveFromIndex(tags_[depth_].name);
  }

  // Depth of the innermost open tag with that name, or kNone. Costs the tags above the match, or, when there is no
  // match, the length of the name: a text of lone end tags is not searched against everything that is open.
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::size_t FindInnermost(std::string_view name);

 private:
  using Hash = std::uint64_t;

  void Grow();
  void BuildIndex();
  void AddToIndex(std::string_view name);
  void RemoveFromIndex(std::string_view name);
  Hash Step(Hash hash, char c) const;
  // Calls visit(hash) for each text that matches the stored name: the whole and each part up to a byte that may follow
  // a match.
  template <typename Visit>
  void ForEachMatch(std::string_view stored, Visit visit) const;

  std::unique_ptr<OpenTag[]> tags_;
  std::size_t depth_ = 0;
  std::size_t capacity_ = 0;
  bool ignore_case_;

  // How many open tags each name would match. Made at the first end tag that is not the innermost tag's, so that a
  // document without faults never pays for it. Equal hashes of different names cost a vain walk, nothing else; the
  // random factor keeps a sender from preparing them.
  Hash factor_ = 0;
  std::unique_ptr<std::unordered_map<Hash, std::uint32_t>> matches_;
};
