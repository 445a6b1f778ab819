// Reads the records of a report as a text, piece by piece, for downloads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "sdk/StoreSnapshot.h"
#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

// The records that a download has: those within a range of time, both ends included, that contain a text.
struct TextWish {
  std::string filter;
  std::optional<std::int64_t> from;  // milliseconds since 1970
  std::optional<std::int64_t> to;

  [[nodiscard]] bool HasTimes() const { return from.has_value() || to.has_value(); }
};

// Threads: one thread.
// Owns: a snapshot with four bytes for each record. A record that is overwritten before it is read is left out.
class RecordText {
 public:
  RecordText(const std::string& base_path, TextWish wish);

  Error Open() { return snapshot_.Take(); }
  // The next piece. Empty if none of the records that were read for it belongs to the download; null at the end, and if
  // the files cannot be read. [owning thread]
  [[nodiscard]] HttpReply::Text Next();

 private:
  void Add(const RecordView& record, std::string& piece);
  [[nodiscard]] bool IsInTime(std::string_view text);

  sdk::StoreSnapshot snapshot_;
  TextWish wish_;
  ctl::TimeRules rules_;
  std::optional<std::int64_t> time_ms_;
  std::uint32_t age_ = 0;
};

}  // namespace qx::view
