#include "tools/qxrelay/receive/HoleSearch.h"

namespace qx::relay {

namespace {

constexpr TimeMs kSeekMs = 60'000;  // for this time a message is sought that a silent server may have
constexpr int kNotFoundMax = 3;     // after this number of searches in which no copy has a message, it is given up
constexpr int kFoundMax = 1000;     // messages of one hole that are read again

}  // namespace

bool HoleSearch::Seek(std::uint64_t sequence, const MessageHead& next) {
  if (sequence == given_up_) return false;
  if (sought_.has_value()) return true;
  sought_ = sequence;
  incarnation_ = next.incarnation;
  first_ = next.first;
  return true;
}

bool HoleSearch::IsSought(const MessageHead& head) const {
  return head.incarnation == incarnation_ && head.Next() >= first_;
}

void HoleSearch::Found() {
  not_found_ = 0;
  sought_since_.reset();
  const bool is_again = sought_ == found_last_;  // it was found before, but did not close the hole
  found_last_ = sought_;
  if (is_again || ++found_ >= kFoundMax) GiveUp();
}

void HoleSearch::NotFound(TimeMs now, bool is_certain) {
  if (!sought_since_.has_value()) sought_since_ = now;
  if (is_certain) ++not_found_;
  if (not_found_ >= kNotFoundMax || now - *sought_since_ >= kSeekMs) GiveUp();
}

void HoleSearch::GiveUp() {
  given_up_ = sought_;
  found_last_.reset();
  sought_since_.reset();
  found_ = 0;
  not_found_ = 0;
}

}  // namespace qx::relay
