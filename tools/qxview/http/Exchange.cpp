#include "tools/qxview/http/Exchange.h"

#include <microhttpd.h>

#include <algorithm>
#include <utility>

namespace qx::view {

void ReplyStream::Send(Text text) {
  is_next_made_ = false;
  if (!is_open_ || is_complete_) return;
  if (pending_bytes_ + text->size() > kPendingBytesMax) {
    pending_.clear();
    is_open_ = false;
    is_complete_ = true;
  } else if (!text->empty()) {
    pending_bytes_ += text->size();
    pending_.push_back(std::move(text));
  }
  Wake();
}

void ReplyStream::End() {
  is_complete_ = true;
  Wake();
}

void ReplyStream::Wake() {
  if (!std::exchange(is_suspended_, false)) return;
  MHD_resume_connection(connection_);
}

std::ptrdiff_t ReplyStream::Take(char* to, std::size_t size) {
  if (pending_.empty()) {
    if (is_complete_) return -1;
    is_suspended_ = true;
    MHD_suspend_connection(connection_);
    const bool is_due = drained_ != nullptr && !std::exchange(is_next_made_, true);
    if (is_due) drained_();
    return 0;
  }
  const std::string& first = *pending_.front();
  const std::size_t bytes = std::min(size, first.size() - taken_);
  (void)first.copy(to, bytes, taken_);
  taken_ += bytes;
  pending_bytes_ -= bytes;
  if (taken_ == first.size()) {
    pending_.pop_front();
    taken_ = 0;
  }
  return static_cast<std::ptrdiff_t>(bytes);
}

void Exchange::Reply(HttpReply reply) {
  if (std::exchange(has_answer_, true)) return;
  reply_ = std::move(reply);
  Resume();
}

std::shared_ptr<ReplyStream> Exchange::Stream(HttpReply head, ReplyStream::Drained drained) {
  auto stream = std::make_shared<ReplyStream>(connection_, std::move(drained));
  const bool is_late = !IsOpen() || std::exchange(has_answer_, true);
  if (is_late) {
    stream->Close();
    return stream;
  }
  reply_ = std::move(head);
  stream_ = stream;
  Resume();
  return stream;
}

void Exchange::Suspend() {
  is_suspended_ = true;
  MHD_suspend_connection(connection_);
}

void Exchange::Resume() {
  const bool is_waiting = IsOpen() && std::exchange(is_suspended_, false);
  if (is_waiting) MHD_resume_connection(connection_);
}

void Exchange::Close() {
  connection_ = nullptr;
  if (stream_ != nullptr) stream_->Close();
}

}  // namespace qx::view
