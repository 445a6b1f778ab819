// Collects new text for a document, as a sequence of pieces that follow one another.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace qx::markup {

struct Piece {
  const char* data;
  std::size_t size;
};

// Copies the first and the last word of a text. They overlap if the text is shorter than two words.
template <typename Word>
void CopyEnds(const char* from, char* to, std::size_t bytes) {
  Word first;
  Word last;
  std::memcpy(&first, from, sizeof first);
  std::memcpy(&last, from + bytes - sizeof last, sizeof last);
  std::memcpy(to, &first, sizeof first);
  std::memcpy(to + bytes - sizeof last, &last, sizeof last);
}

// Copies without memcpy if the text is short: the call would take longer than the copy.
inline void CopyBytes(const char* from, char* to, std::size_t bytes) {
  if (bytes > 16) {
    std::memcpy(to, from, bytes);
  } else if (bytes >= 8) {
    CopyEnds<std::uint64_t>(from, to, bytes);
  } else if (bytes >= 4) {
    CopyEnds<std::uint32_t>(from, to, bytes);
  } else {
    for (std::size_t i = 0; i < bytes; ++i) to[i] = from[i];
  }
}

// The pieces of a change. Short pieces are copied into the object's own buffer, so that most changes become one piece
// and need no allocation. A long piece is kept as a view. A CDATA section has two more pieces for each "]]>".
//
// Threads: one thread at a time. Owns: its buffer and the list of pieces, but not the texts of the views.
class Pieces {
 public:
  Pieces() = default;  // text_ and few_ are not initialised: only added parts are read
  Pieces(const Pieces&) = delete;
  Pieces& operator=(const Pieces&) = delete;

  void Add(std::string_view piece) {
    char* const to = SpaceFor(piece.size());
    if (to == nullptr) return AddView(piece);
    CopyBytes(piece.data(), to, piece.size());
    AddWritten(piece.size());
  }
  template <typename... More>
  void Add(std::string_view piece, const More&... more) {
    Add(piece);
    (Add(std::string_view(more)), ...);
  }

  // The free part of the buffer if it has at least `bytes` bytes, otherwise null.
  char* SpaceFor(std::size_t bytes) { return bytes > text_.size() - text_size_ ? nullptr : text_.data() + text_size_; }
  // Adds the first `bytes` bytes of the free part, which the caller has written.
  void AddWritten(std::size_t bytes) {
    text_size_ += bytes;
    bytes_ += bytes;
  }

  std::size_t Bytes() const { return bytes_; }
  // The whole text if it fits into the buffer, with a copy of `tail` after it; otherwise an empty text. The object must
  // not be used afterwards.
  std::string_view TextBefore(std::string_view tail) {
    char* const to = SpaceFor(tail.size());
    if (to == nullptr || count_ != 0) return {};
    CopyBytes(tail.data(), to, tail.size());
    return {text_.data(), text_size_ + tail.size()};
  }
  // All pieces; valid until the next one is added.
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

  // Makes one piece of the text that was copied into the buffer since the last view.
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
  std::vector<Piece> many_;  // all pieces, once few_ is full
  std::size_t text_begin_ = 0;
  std::size_t text_size_ = 0;
  std::size_t count_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace qx::markup
