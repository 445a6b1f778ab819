#include "reportfile/RecordEnds.h"

#include <algorithm>

#ifdef __SSE2__
#include <immintrin.h>

#include <bit>
#endif

namespace qx::report {

namespace {

constexpr bool EndsTextOrIsBracket(char byte) { return EndsText(byte) || byte == ']'; }

}  // namespace

std::size_t FindTextEndPlain(std::string_view bytes) {
  return static_cast<std::size_t>(std::find_if(bytes.begin(), bytes.end(), EndsText) - bytes.begin());
}

std::size_t CountTextEndsPlain(std::string_view bytes) {
  return static_cast<std::size_t>(std::count_if(bytes.begin(), bytes.end(), EndsText));
}

std::size_t CountTextEndsAndBracketsPlain(std::string_view bytes) {
  return static_cast<std::size_t>(std::count_if(bytes.begin(), bytes.end(), EndsTextOrIsBracket));
}

#ifdef __SSE2__

namespace {

constexpr std::size_t kBlock = sizeof(__m128i);

// For each of the 16 bytes at `at`: 0xFF if it ends a text, otherwise 0.
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

namespace {

constexpr std::size_t kBlocksPerSum = 255;  // the highest count of a byte

// Returns the sum of count_blocks(at, blocks) over stretches of whole blocks, and of count_plain for the bytes after
// them.
template <std::size_t kBlockBytes, typename CountBlocks, typename CountPlain>
std::size_t CountInStretches(std::string_view bytes, CountBlocks count_blocks, CountPlain count_plain) {
  std::size_t count = 0;
  while (bytes.size() >= kBlockBytes) {
    const std::size_t blocks = std::min(bytes.size() / kBlockBytes, kBlocksPerSum);
    count += count_blocks(bytes.data(), blocks);
    bytes.remove_prefix(blocks * kBlockBytes);
  }
  return count + count_plain(bytes);
}

std::size_t CountTextEndBlocks(const char* at, std::size_t blocks) {
  __m128i counts = _mm_setzero_si128();
  for (; blocks > 0; --blocks, at += kBlock) counts = _mm_sub_epi8(counts, TextEnds(at));
  return SumOf(counts);
}

// The tables for thirty-two bytes a step. One look-up finds all bytes that count. Raised by one, the bytes 0xFF, 0x00,
// "
// " and "]" are 0x00, 0x01, 0x0B and 0x5E: their low halves differ, and all are below 0x80. For a raised byte below
// 0x80 the look-up returns the one of these four with the same low half, and 0 for any other byte. So a byte counts if
// the look-up returns the raised byte itself.
constexpr char kNone = '\x80';
using LookUp = char[16];
constexpr LookUp kTextEnds = {0,     1,     kNone, kNone, kNone, kNone, kNone, kNone,
                              kNone, kNone, kNone, 0x0B,  kNone, kNone, kNone, kNone};
constexpr LookUp kTextEndsAndBracket = {0,     1,     kNone, kNone, kNone, kNone, kNone, kNone,
                                        kNone, kNone, kNone, 0x0B,  kNone, kNone, 0x5E,  kNone};

constexpr std::size_t kWideBlock = sizeof(__m256i);

[[gnu::target("avx2")]] std::size_t CountWideBlocks(const char* at, std::size_t blocks, const LookUp& look_up) {
  const __m128i half = _mm_loadu_si128(reinterpret_cast<const __m128i*>(look_up));
  const __m256i table = _mm256_broadcastsi128_si256(half);
  const __m256i minus_one = _mm256_set1_epi8(-1);
  __m256i counts = _mm256_setzero_si256();
  for (; blocks > 0; --blocks, at += kWideBlock) {
    const __m256i raised = _mm256_sub_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at)), minus_one);
    counts = _mm256_sub_epi8(counts, _mm256_cmpeq_epi8(_mm256_shuffle_epi8(table, raised), raised));
  }
  const __m256i quarters = _mm256_sad_epu8(counts, _mm256_setzero_si256());
  const __m128i halves = _mm_add_epi64(_mm256_castsi256_si128(quarters), _mm256_extracti128_si256(quarters, 1));
  return static_cast<std::size_t>(_mm_cvtsi128_si64(halves) + _mm_extract_epi64(halves, 1));
}

bool HasWideBlocks() { return __builtin_cpu_supports("avx2") != 0; }

}  // namespace

std::size_t CountTextEndsNarrow(std::string_view bytes) {
  return CountInStretches<kBlock>(bytes, CountTextEndBlocks, CountTextEndsPlain);
}

std::size_t CountTextEnds(std::string_view bytes) {
  if (!HasWideBlocks()) return CountTextEndsNarrow(bytes);
  return CountInStretches<kWideBlock>(
      bytes, [](const char* at, std::size_t blocks) { return CountWideBlocks(at, blocks, kTextEnds); },
      CountTextEndsPlain);
}

std::size_t CountTextEndsAndBracketsNarrow(std::string_view bytes) {
  return CountTextEndsNarrow(bytes) + static_cast<std::size_t>(std::count(bytes.begin(), bytes.end(), ']'));
}

std::size_t CountTextEndsAndBrackets(std::string_view bytes) {
  if (!HasWideBlocks()) return CountTextEndsAndBracketsNarrow(bytes);
  return CountInStretches<kWideBlock>(
      bytes, [](const char* at, std::size_t blocks) { return CountWideBlocks(at, blocks, kTextEndsAndBracket); },
      CountTextEndsAndBracketsPlain);
}

#else

std::size_t FindTextEnd(std::string_view bytes) { return FindTextEndPlain(bytes); }
std::size_t CountTextEndsNarrow(std::string_view bytes) { return CountTextEndsPlain(bytes); }
std::size_t CountTextEnds(std::string_view bytes) { return CountTextEndsPlain(bytes); }
std::size_t CountTextEndsAndBracketsNarrow(std::string_view bytes) { return CountTextEndsAndBracketsPlain(bytes); }
std::size_t CountTextEndsAndBrackets(std::string_view bytes) { return CountTextEndsAndBracketsPlain(bytes); }

#endif

}  // namespace qx::report
