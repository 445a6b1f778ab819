// Text on its way into a document: views of the pieces that will stand one after another.
#pragma once

#include <array>
#include <cstddef>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

namespace qx::markup {

struct Piece {
  const char* data;
  std::size_t size;
};

// Most changes have fewer than ten pieces and then cost no allocation; a CDATA section has two more for each "]]>".
//
// Threads: none of its own. Owns: the views, not what they view.
class Pieces {
 public:
  Pieces() = default;  // few_ is left as it is: only what was added is ever read
  Pieces(const Pieces&) = delete;
  Pieces& operator=(const Pieces&) = delete;

  void Add(std::string_view piece) {
    bytes_ += piece.size();
    if (count_ < few_.size()) {
      few_[count_] = {piece.data(), piece.size()};
    } else {
      if (many_.empty()) many_.assign(few_.begin(), few_.end());
      many_.push_back({piece.data(), piece.size()});
    }
    ++count_;
  }
  void Add(std::initializer_list<std::string_view> pieces) {
    for (const std::string_view piece : pieces) Add(piece);
  }

  std::size_t Bytes() const { return bytes_; }
  std::span<const Piece> All() const {
    return many_.empty() ? std::span<const Piece>(few_.data(), count_) : std::span<const Piece>(many_);
  }

 private:
  std::array<Piece, 16> few_;
  std::vector<Piece> many_;  // all of them, once there are too many
  std::size_t count_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace qx::markup
