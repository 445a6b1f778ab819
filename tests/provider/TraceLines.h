// Expected trace lines, each with the lowest level that writes it.
#pragma once

#include <string>
#include <vector>

namespace qx::test {

struct TraceLine {
  int level;
  std::string text;
};
using TraceLines = std::vector<TraceLine>;

inline TraceLines operator+(TraceLines lines, const TraceLines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

// The lines that are written at `level`, as one text.
inline std::string Upto(int level, const TraceLines& lines) {
  std::string text;
  for (const TraceLine& line : lines) {
    if (line.level <= level) text += line.text + "\n";
  }
  return text;
}

}  // namespace qx::test
