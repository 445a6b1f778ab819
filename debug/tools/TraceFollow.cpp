#include "debug/tools/TraceFollow.h"

#include <sys/stat.h>

#include <utility>

#include "base/File.h"

namespace qx::debug {

TraceFollower::TraceFollower(std::string path, bool from_now, std::chrono::milliseconds settled)
    : path_(std::move(path)), from_now_(from_now), settled_(settled) {}
TraceFollower::~TraceFollower() = default;

int TraceFollower::Open() {
  auto file = std::make_unique<TraceFile>();
  const int error = file->Open(path_);
  if (error != 0) return error;
  file_ = std::move(file);
  follower_ = nullptr;
  ChooseKind();
  return 0;
}

// Decides whether the file is a log or a ring. An empty file can still become either.
void TraceFollower::ChooseKind() {
  file_->TakeSize();
  if (file_->Size() != 0) {
    follower_ = IsTraceRing(*file_) ? MakeRingFollower(from_now_) : MakeLogFollower(from_now_, settled_);
  }
  from_now_ = false;  // everything later is new
}

TracePoll TraceFollower::Poll() {
  TracePoll poll;
  const bool is_same = IsSameFile(poll.is_missing);
  file_->TakeSize();
  if (follower_ == nullptr && is_same) ChooseKind();
  const bool is_last = !is_same && !poll.is_missing;
  if (follower_ != nullptr) follower_->Poll(*file_, is_last, poll);
  if (!is_last) return poll;
  if (poll.is_pending) follower_->Poll(*file_, is_last, poll);  // for a ring that was still being created
  if (Open() != 0) return poll;
  TraceFollowEvent restart;
  restart.kind = TraceFollowEvent::Kind::kRestart;
  poll.events.push_back(restart);
  poll.is_pending = true;
  return poll;
}

bool TraceFollower::IsSameFile(bool& is_missing) const {
  struct stat named {};
  const auto held = file_->Status();
  is_missing = file::StatusOf(path_.c_str(), named) != 0;
  return !is_missing && held.has_value() && file::IsSameFile(named, *held);
}

}  // namespace qx::debug
