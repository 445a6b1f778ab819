// The text of a trace entry from its format and arguments.
//
// Nearly all traces use a handful of plain conversions, and the C library's formatter takes most of the time of an
// entry for them. Those are formatted here; a format with anything else goes to the C library as a whole.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace qx::debug {

// Formats like vsnprintf, with the same result and the same bytes in `buffer` of `size` bytes.
//   formatted here:  %s %d %u %x %X, with "l" or "z", a width and "0" for the numbers; %p; %%; if the text fits
//   by vsnprintf:    everything else, such as precisions, "%-8s", "%m", a null text, and a text that does not fit
int FormatText(char* buffer, std::size_t size, const char* format, std::va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace qx::debug
