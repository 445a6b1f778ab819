#include "inifile/MarkedLine.h"

#include "inifile/LineScanner.h"

#if defined(__SSE2__)  // every x86-64 has it
#include <emmintrin.h>

#include <bit>
#endif

namespace qx::inifile {

#if defined(__SSE2__)

namespace {

constexpr std::size_t kStep = sizeof(__m128i);
// After this many bytes without a line feed, the line may be longer than a line of the scanner.
constexpr std::size_t kLongLine = LineScanner::kLineBytesMax - 3 * kStep;

__m128i Load(const char* at) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at)); }

// For each byte that is the first of a line: 0xFF if the line is a header or begins with a blank or control character.
__m128i HeadersAndBlanks(__m128i first) {
  const __m128i headers = _mm_cmpeq_epi8(first, _mm_set1_epi8('['));
  const __m128i blanks = _mm_cmpeq_epi8(first, _mm_min_epu8(first, _mm_set1_epi8(' ')));
  return _mm_or_si128(headers, blanks);
}

}  // namespace

std::size_t BytesToMarkedLine(std::string_view text, LineMark mark) noexcept {
  const __m128i marks = _mm_set1_epi8(mark.byte);
  std::size_t at = 0;
  std::size_t step_of_last_feed = 0;
  for (; at + kStep + mark.column + 1 <= text.size(); at += kStep) {
    const char* block = text.data() + at;
    const __m128i feeds = _mm_cmpeq_epi8(Load(block), _mm_set1_epi8('\n'));
    const int feed_bits = _mm_movemask_epi8(feeds);
    if (feed_bits == 0) {
      if (at - step_of_last_feed > kLongLine) break;
      continue;
    }
    const __m128i marked = _mm_cmpeq_epi8(Load(block + mark.column + 1), marks);
    const __m128i matters = _mm_or_si128(HeadersAndBlanks(Load(block + 1)), marked);
    const int hits = _mm_movemask_epi8(matters) & feed_bits;
    if (hits != 0) return at + static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(hits))) + 1;
    step_of_last_feed = at;
  }
  return at == 0 ? 1 : text.rfind('\n', at - 1) + 1;
}

#else

std::size_t BytesToMarkedLine(std::string_view, LineMark) noexcept { return 1; }

#endif

}  // namespace qx::inifile
