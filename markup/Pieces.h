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

// Short pieces are put together in a text of this object's own, so that most changes are one piece in the end and cost
// no allocation; a CDATA section has two more for each "]]>".
//
// Threads: none of its own. Owns: the short pieces and the views of the long ones, not what these view.
class Pieces {
 public:
  Pieces() = default;  // text_ and few_ are left as they are: only what was added is ever read
  Pieces(const Pieces&) = delete;
  Pieces& operator=(const Pieces&) = delete;

  void Add(std::string_view piece) {
    char* const to = RoomFor(piece.size());
    if (to == nullptr) return AddView(piece);
    if (!piece.empty()) std::memcpy(to, piece.data(), piece.size());
    AddWritten(piece.size());
  }
  template <typename... More>
  void Add(std::string_view piece, const More&... more) {
    Add(piece);
    (Add(std::string_view(more)), ...);
  }

  // Where `bytes` bytes of the next piece may be written, or null: then it must be added as a view.
  char* RoomFor(std::size_t bytes) { return bytes > text_.size() - text_size_ ? nullptr : text_.data() + text_size_; }
  // Adds what was written there.
  void AddWritten(std::size_t bytes) {
    text_size_ += bytes;
    bytes_ += bytes;
  }

  std::size_t Bytes() const { return bytes_; }
  // All pieces, until the next one is added.
  std::span<const Piece> All() {
    EndText();
    return many_.empty() ? std::span<const Piece>(few_.data(), count_) : std::span<const Piece>(many_);
  }

 private:
  void AddView(std::string_view piece) {
    EndText();
    AddPiece({piece.data(), piece.size()});
    bytes_ += piece.size();
  }

  // What was put together since the last view becomes a piece.
  void EndText() {
    if (text_size_ == text_begin_) return;
    AddPiece({text_.data() + text_begin_, text_size_ - text_begin_});
    text_begin_ = text_size_;
  }

  void AddPiece(Piece piece) {
    if (count_ < few_.size()) {
      few_[count_] = piece;
    } else {
      if (many_.empty()) many_.assign(few_.begin(), few_.end());
      many_.push_back(piece);
    }
    ++count_;
  }

  std::array<char, 1024> text_;
  std::array<Piece, 8> few_;
  std::vector<Piece> many_;  // all of them, once there are too many
  std::size_t text_begin_ = 0;
  std::size_t text_size_ = 0;
  std::size_t count_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace qx::markup
