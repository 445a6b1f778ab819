// The ring model with a reader and a transfer: the data that their open objects keep in memory, and the results of
// calls.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/ReportRing.h"

namespace qx::trust {

struct TransferModel : test::ReportRing {
  report::IndexHeader reader;    // what the open object holds in memory
  bool called = false;           // of the transfer: whether its next call continues with an open report
  report::IndexHeader transfer;  // the header of the report that the transfer has open
  std::int64_t oldest = -1, highest = -1;
  std::int32_t next = 0;  // where the client continues

  // One call of a transfer, with an append between its first read and its check whether the ring has moved.
  std::string Call(std::int32_t start, std::int32_t limit, const std::function<void()>& between) {
    if (start == 0) called = false;
    if (!called) {
      transfer = ReadHeader();
      oldest = transfer.oldestIndex;
      highest = transfer.highestIndex;
    }
    std::string text;
    std::int64_t i = start;
    for (bool check = !called; i < highest;) {
      auto slot = static_cast<std::uint32_t>(i + oldest);
      if (slot >= highest) slot -= static_cast<std::uint32_t>(highest);
      const bool readable = slot < transfer.highestIndex;
      const std::string line = Read(slot);
      if (check) {
        between();
        transfer = ReadHeader();
        check = false;
        const bool moved = transfer.oldestIndex != oldest;
        oldest = transfer.oldestIndex;
        if (moved && readable) continue;
      }
      if (!readable || i - start >= limit) break;
      text += line;
      ++i;
    }
    called = true;
    if (!text.empty()) next = static_cast<std::int32_t>(i);
    return text;
  }
};

}  // namespace qx::trust
