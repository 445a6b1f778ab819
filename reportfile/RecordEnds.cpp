#include "reportfile/RecordEnds.h"

#include <algorithm>

#ifdef __SSE2__
#include <emmintrin.h>

#include <bit>
#endif

namespace qx::report {

std::size_t FindTextEndPlain(std::string_view bytes) {
  return static_cast<std::size_t>(std::find_if(bytes.begin(), bytes.end(), EndsText) - bytes.begin());
}

std::size_t CountTextEndsPlain(std::string_view bytes) {
  return static_cast<std::size_t>(std::count_if(bytes.begin(), bytes.end(), EndsText));
}

#ifdef __SSE2__

namespace {

constexpr std::size_t kBlock = sizeof(__m128i);

// 0xFF in each of the 16 bytes at `at` that ends a text, 0 in the others.
__m128i TextEnds(const char* at) {
  const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
  const __m128i is_line_feed = _mm_cmpeq_epi8(block, _mm_set1_epi8('\n'));
  const __m128i is_all_ones = _mm_cmpeq_epi8(block, _mm_set1_epi8('\xFF'));
  const __m128i is_nul = _mm_cmpeq_epi8(block, _mm_setzero_si128());
  return _mm_or_si128(is_line_feed, _mm_or_si128(is_all_ones, is_nul));
}

// The sum of the 16 bytes.
std::size_t SumOf(__m128i counts) {
  const __m128i halves = _mm_sad_epu8(counts, _mm_setzero_si128());
  return static_cast<std::size_t>(_mm_cvtsi128_si64(halves)) +
         static_cast<std::size_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(halves, halves)));
}

}  // namespace

std::size_t FindTextEnd(std::string_view bytes) {
  std::size_t at = 0;
  for (; at + kBlock <= bytes.size(); at += kBlock) {
    const int ends = _mm_movemask_epi8(TextEnds(bytes.data() + at));
    if (ends != 0) return at + static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(ends)));
  }
  return at + FindTextEndPlain(bytes.substr(at));
}

std::size_t CountTextEnds(std::string_view bytes) {
  constexpr std::size_t kBlocksPerSum = 255;  // as many as a byte can count
  const std::size_t block_count = bytes.size() / kBlock;
  const char* at = bytes.data();
  std::size_t count = 0;
  for (std::size_t left = block_count; left > 0;) {
    const std::size_t now = std::min(left, kBlocksPerSum);
    __m128i counts = _mm_setzero_si128();
    for (std::size_t i = 0; i < now; ++i, at += kBlock) counts = _mm_sub_epi8(counts, TextEnds(at));
    count += SumOf(counts);
    left -= now;
  }
  return count + CountTextEndsPlain(bytes.substr(block_count * kBlock));
}

#else

std::size_t FindTextEnd(std::string_view bytes) { return FindTextEndPlain(bytes); }
std::size_t CountTextEnds(std::string_view bytes) { return CountTextEndsPlain(bytes); }

#endif

}  // namespace qx::report
