// Formats the text of a trace entry.
//
// Nearly all traces use only a few plain conversions. If the C library formatted these, it would take most of the time
// of an entry. So they are formatted here; a format with any other conversion is passed to the C library as a whole.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace qx::debug {

// Formats like vsnprintf: with the same result, and the same bytes in `buffer`, which has `size` bytes.
//   formatted here:  %s %d %u %x %X, with "l" or "z", a width and "0" for the numbers; %p; %%; if the text fits
//   by vsnprintf:    everything else, such as precisions, "%-8s", "%m", a null text, and a text that does not fit
int FormatText(char* buffer, std::size_t size, const char* format, std::va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace qx::debug
