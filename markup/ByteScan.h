// Searches in text, sixteen bytes per step if the processor has SSE2, as every x86-64 processor has. A plain loop
// searches the last bytes of a range.
//
// The functions Find... return `end` if they find nothing, and do not read the byte at `end` or any later byte.
#pragma once

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qx::markup {

inline constexpr std::ptrdiff_t kScanBlockBytes = 16;

#if defined(__SSE2__)
inline constexpr std::ptrdiff_t kWideBlockBytes = 4 * kScanBlockBytes;

namespace detail {

inline __m128i LoadBlock(const char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// The word at `p`.
template <typename Word>
std::uint64_t LoadWord(const char* p) {
  Word word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

// A block of the `bytes` bytes at `p`, fewer than sixteen, and zeros after them. Nothing else is read.
inline __m128i LoadShortBlock(const char* p, std::size_t bytes) {
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  if (bytes >= 8) {
    low = LoadWord<std::uint64_t>(p);
    if (bytes > 8) high = LoadWord<std::uint64_t>(p + bytes - 8) >> 8 * (16 - bytes);
  } else if (bytes >= 4) {
    low = LoadWord<std::uint32_t>(p) | LoadWord<std::uint32_t>(p + bytes - 4) << 8 * (bytes - 4);
  } else if (bytes != 0) {
    const auto byte = [p](std::size_t at) { return LoadWord<std::uint8_t>(p + at) << 8 * at; };
    low = byte(0) | byte(bytes / 2) | byte(bytes - 1);
  }
  return _mm_set_epi64x(static_cast<std::int64_t>(high), static_cast<std::int64_t>(low));
}

// One bit per byte of the block, set where the byte is one of kBytes.
template <char... kBytes>
int HitsIn(__m128i block) {
  __m128i hits = _mm_setzero_si128();
  ((hits = _mm_or_si128(hits, _mm_cmpeq_epi8(block, _mm_set1_epi8(kBytes)))), ...);
  return _mm_movemask_epi8(hits);
}

inline const char* FirstHit(const char* p, int mask) { return p + std::countr_zero(static_cast<unsigned>(mask)); }

}  // namespace detail

// One bit per byte of the block at `p`, set where the byte is one of kBytes.
template <char... kBytes>
unsigned HitsInBlock(const char* p) {
  return static_cast<unsigned>(detail::HitsIn<kBytes...>(detail::LoadBlock(p)));
}

// The results of `hits_at` for the four blocks of the wide block at `p`, as one number. There is no loop, because the
// compiler would not unroll it.
template <typename HitsAt>
std::uint64_t WideHits(const char* p, HitsAt hits_at) {
  const std::uint64_t low = hits_at(p) | hits_at(p + kScanBlockBytes) << kScanBlockBytes;
  const std::uint64_t high = hits_at(p + 2 * kScanBlockBytes) | hits_at(p + 3 * kScanBlockBytes) << kScanBlockBytes;
  return low | high << (2 * kScanBlockBytes);
}

// One bit per byte of the wide block at `p`, set where the byte is one of kBytes.
template <char... kBytes>
std::uint64_t HitsInWideBlock(const char* p) {
  return WideHits(p, HitsInBlock<kBytes...>);
}

// One bit per byte of the block, set where the byte ends a name (kNameEnd, kAttribEnd), but also for some other bytes
// up to "/".
inline unsigned NameEndsIn(__m128i block) {
  const __m128i low = _mm_cmpeq_epi8(_mm_min_epu8(block, _mm_set1_epi8('/')), block);
  const __m128i above = _mm_sub_epi8(block, _mm_set1_epi8('<'));  // "<", "=" and ">" become 0, 1 and 2
  const __m128i angle = _mm_cmpeq_epi8(_mm_min_epu8(above, _mm_set1_epi8(2)), above);
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(low, angle)));
}
inline unsigned NameEndsInBlock(const char* p) { return NameEndsIn(detail::LoadBlock(p)); }

// Copies `bytes` bytes in whole blocks: up to 15 bytes more are read and written.
inline void CopyInBlocks(const char* from, char* to, std::ptrdiff_t bytes) {
  for (std::ptrdiff_t at = 0; at < bytes; at += kScanBlockBytes) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + at), detail::LoadBlock(from + at));
  }
}
#endif

// The plain forms of the searches. The fast forms use them for the last bytes of a range; tests compare the fast forms
// with them.
template <char... kBytes>
const char* FindAnyOfPlain(const char* p, const char* end) {
  while (p != end && !((*p == kBytes) || ...)) ++p;
  return p;
}

template <char kFirst, char kSecond, char kThird>
const char* FindTriplePlain(const char* p, const char* end) {
  for (; end - p >= 3; ++p) {
    if (p[0] == kFirst && p[1] == kSecond && p[2] == kThird) return p;
  }
  return end;
}

inline const char* FindNotPrintablePlain(const char* p, const char* end) {
  while (p != end && *p >= ' ' && *p <= '~') ++p;
  return p;
}

// The first of several bytes:  FindAnyOf<'<', '>'>("ab>c") => ">c"
template <char... kBytes>
const char* FindAnyOf(const char* p, const char* end) {
#if defined(__SSE2__)
  for (; end - p >= kScanBlockBytes; p += kScanBlockBytes) {
    if (const int mask = detail::HitsIn<kBytes...>(detail::LoadBlock(p)); mask != 0) return detail::FirstHit(p, mask);
  }
#endif
  return FindAnyOfPlain<kBytes...>(p, end);
}

// Skips up to sixteen bytes that do not end a name. May stop too early (see NameEndsIn).
inline const char* SkipNameBytes(const char* p, const char* end) {
#if defined(__SSE2__)
  if (end - p >= kScanBlockBytes) return p + std::countr_zero(NameEndsInBlock(p) | 1U << kScanBlockBytes);
  // The zeros after the range count as ends.
  return p + std::countr_zero(NameEndsIn(detail::LoadShortBlock(p, static_cast<std::size_t>(end - p))));
#else
  (void)end;
  return p;
#endif
}

// The first place with these three bytes in a row:  FindTriple<']', ']', '>'>("a]]]>b") => "]]>b"
// The C library's search for the first byte is fastest while this byte is rare. After this byte was found
// kFailedFindsMax times without the other two, all three bytes are searched for at once.
template <char kFirst, char kSecond, char kThird>
const char* FindTriple(const char* p, const char* end) {
  constexpr int kFailedFindsMax = 16;
  for (int finds = 0; finds < kFailedFindsMax && end - p >= 3; ++finds) {
    const void* const found = std::memchr(p, kFirst, static_cast<std::size_t>(end - p - 2));
    if (found == nullptr) return end;
    p = static_cast<const char*>(found);
    if (p[1] == kSecond && p[2] == kThird) return p;
    ++p;
  }
#if defined(__SSE2__)
  for (; end - p >= kScanBlockBytes + 2; p += kScanBlockBytes) {
    const __m128i first = _mm_cmpeq_epi8(detail::LoadBlock(p), _mm_set1_epi8(kFirst));
    const __m128i second = _mm_cmpeq_epi8(detail::LoadBlock(p + 1), _mm_set1_epi8(kSecond));
    const __m128i third = _mm_cmpeq_epi8(detail::LoadBlock(p + 2), _mm_set1_epi8(kThird));
    const int mask = _mm_movemask_epi8(_mm_and_si128(_mm_and_si128(first, second), third));
    if (mask != 0) return detail::FirstHit(p, mask);
  }
#endif
  return FindTriplePlain<kFirst, kSecond, kThird>(p, end);
}

// The first byte outside 0x20..0x7E. Bytes from 0x80 up are negative, so one signed comparison finds both them and the
// control characters below the space. 0x7F needs a comparison of its own.
inline const char* FindNotPrintable(const char* p, const char* end) {
#if defined(__SSE2__)
  for (; end - p >= kScanBlockBytes; p += kScanBlockBytes) {
    const __m128i block = detail::LoadBlock(p);
    const __m128i below = _mm_cmplt_epi8(block, _mm_set1_epi8(' '));
    const __m128i rubout = _mm_cmpeq_epi8(block, _mm_set1_epi8(0x7F));
    if (const int mask = _mm_movemask_epi8(_mm_or_si128(below, rubout)); mask != 0) return detail::FirstHit(p, mask);
  }
#endif
  return FindNotPrintablePlain(p, end);
}

}  // namespace qx::markup
