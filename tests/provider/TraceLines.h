// Expected trace lines, each with the level from which on it is written.
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

// What of `lines` is written at `level`, as one text.
inline std::string Upto(int level, const TraceLines& lines) {
  std::string text;
  for (const TraceLine& line : lines) {
    if (line.level <= level) text += line.text + "\n";
  }
  return text;
}

}  // namespace qx::test
