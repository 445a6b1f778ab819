// Text on its way into a document: views of the pieces that will stand one after another.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace qx::markup {

struct Piece {
  const char* data;
  std::size_t size;
};

// Short pieces that follow one another are put together at once, so that most changes are one piece in the end and cost
// no allocation; a CDATA section has two more for each "]]>".
//
// Threads: none of its own. Owns: the short pieces and the views of the long ones, not what these view.
class Pieces {
 public:
  Pieces() = default;  // text_ and few_ are left as they are: only what was added is ever read
  Pieces(const Pieces&) = delete;
  Pieces& operator=(const Pieces&) = delete;

  void Add(std::string_view piece) {
    bytes_ += piece.size();
    if (piece.size() > text_.size() - text_size_) return AddView(piece);
    char* const to = text_.data() + text_size_;
    if (!piece.empty()) std::memcpy(to, piece.data(), piece.size());
    text_size_ += piece.size();
    if (Extends(to)) {
      few_[count_ - 1].size += piece.size();
    } else {
      AddView({to, piece.size()});
    }
  }
  template <typename... More>
  void Add(std::string_view piece, const More&... more) {
    Add(piece);
    (Add(std::string_view(more)), ...);
  }

  std::size_t Bytes() const { return bytes_; }
  std::span<const Piece> All() const {
    return many_.empty() ? std::span<const Piece>(few_.data(), count_) : std::span<const Piece>(many_);
  }

 private:
  // Whether the last piece ends at `to`, in the text that is put together here.
  bool Extends(const char* to) const {
    return count_ != 0 && many_.empty() && few_[count_ - 1].data + few_[count_ - 1].size == to && to != text_.data();
  }

  void AddView(std::string_view piece) {
    if (count_ < few_.size()) {
      few_[count_] = {piece.data(), piece.size()};
    } else {
      if (many_.empty()) many_.assign(few_.begin(), few_.end());
      many_.push_back({piece.data(), piece.size()});
    }
    ++count_;
  }

  std::array<char, 192> text_;
  std::array<Piece, 8> few_;
  std::vector<Piece> many_;  // all of them, once there are too many
  std::size_t text_size_ = 0;
  std::size_t count_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace qx::markup
