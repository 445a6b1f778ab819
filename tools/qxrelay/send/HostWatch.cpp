#include "tools/qxrelay/send/HostWatch.h"

#include "tools/qxrelay/message/Message.h"

namespace qx::relay {

// If a look-up has no answer, the next one is made after the usual period.
void HostWatch::Step(TimeMs now) {
  if (token_ != 0 && now >= deadline_) {
    is_unanswered_ = true;
    token_ = 0;
  }
  if (now < due_) return;
  due_ = now + kPeriodMs;
  deadline_ = now + context_.times.timeout;
  token_ = context_.NewToken(owner_);
  if (!context_.stream.LookUp(token_, subject_)) token_ = 0;
}

void HostWatch::Connected(TimeMs now) {
  token_ = 0;
  due_ = now;
  context_.are_labels_known = false;
}

std::optional<Rival> HostWatch::OnReply(TimeMs now, const StreamReply& reply) {
  if (reply.token != token_) return std::nullopt;
  token_ = 0;
  is_unanswered_ = false;
  due_ = now + kPeriodMs;
  context_.own_labels_sequence = 0;
  context_.are_labels_known = reply.kind == ReplyKind::kNone || reply.kind == ReplyKind::kNewest;
  if (reply.kind == ReplyKind::kNone) session_ = 0;
  if (reply.kind == ReplyKind::kNone) return Rival::kNone;
  if (reply.kind != ReplyKind::kNewest) return std::nullopt;
  const DecodedMessage message = DecodeMessage(reply.payload);
  if (message.fault != MessageFault::kNone || message.head.kind != MessageKind::kAbout) return Rival::kNone;
  session_ = message.head.session;
  const SenderIdentity& own = context_.state.Identity();
  if (message.head.identity == own.identity) context_.own_labels_sequence = reply.sequence;
  return RivalOf(message.head, own.identity, own.session);
}

}  // namespace qx::relay
