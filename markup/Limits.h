// Checks the limits that follow from the width of the fields of a record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "markup/ElemPosTree.h"
#include "markup/TokenPos.h"

namespace qx::markup {

// Offsets and lengths are 32-bit.
inline constexpr std::size_t kDocumentBytesMax = UINT32_MAX;

constexpr bool DocumentFits(std::size_t bytes) { return bytes <= kDocumentBytesMax; }

// Whether a text of `bytes` bytes still fits when `added` bytes replace `removed` of them.
constexpr bool DocumentFits(std::size_t bytes, std::size_t removed, std::size_t added) {
  return added <= kDocumentBytesMax && DocumentFits(bytes - removed + added);
}

constexpr bool StartTagFits(std::size_t bytes) { return bytes <= ElemPos::kStartTagLengthMax; }

// An end tag is three bytes longer than its name: "</" and ">".
constexpr bool TagNameFits(std::size_t bytes) { return bytes <= kTagNameBytesMax; }
static_assert(kTagNameBytesMax + 3 == ElemPos::kEndTagLengthMax);

}  // namespace qx::markup
