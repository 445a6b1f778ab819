#include "tools/qxrelay/message/Message.h"

#include <cassert>
#include <cstring>
#include <limits>
#include <utility>

#include "tools/qxrelay/message/Subject.h"

namespace qx::relay {

namespace {

constexpr std::string_view kMark = "QXR";
constexpr unsigned kVarintBits = 7;
constexpr unsigned kVarintBytesMax = 5;

template <typename Integer>
void Put(std::string& bytes, Integer value) {
  for (std::size_t i = 0; i < sizeof value; ++i) {
    bytes += static_cast<char>(static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i)));
  }
}

void PutVarint(std::string& bytes, std::uint32_t value) {
  for (; value >= 0x80U; value >>= kVarintBits) bytes += static_cast<char>(static_cast<std::uint8_t>(value | 0x80U));
  bytes += static_cast<char>(value);
}

void PutHead(std::string& bytes, const MessageHead& head) {
  bytes += kMark;
  Put(bytes, kFormatVersion);
  Put(bytes, static_cast<std::uint8_t>(head.kind));
  Put(bytes, static_cast<std::uint8_t>(head.reason));
  Put(bytes, static_cast<std::uint16_t>(head.report.size()));
  bytes.append(head.identity.begin(), head.identity.end());
  for (const std::uint64_t field : {head.incarnation, head.session, head.first, head.count, head.hash_before,
                                    head.store_next, static_cast<std::uint64_t>(head.sent_ms)}) {
    Put(bytes, field);
  }
  Put(bytes, head.ring_slots);
  Put(bytes, std::uint32_t{0});
  bytes += head.report;
}

// Reads one field after another. The caller has checked that there are enough bytes.
class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : bytes_(bytes) {}

  [[nodiscard]] std::string_view Rest() const { return bytes_; }

  std::string_view Take(std::size_t size) {
    const std::string_view taken = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return taken;
  }

  template <typename Integer>
  Integer Take() {
    std::uint64_t value = 0;
    const std::string_view taken = Take(sizeof(Integer));
    for (std::size_t i = taken.size(); i-- > 0;) value = value << 8U | static_cast<std::uint8_t>(taken[i]);
    return static_cast<Integer>(value);
  }

  // Takes a varint of at most 32 bits. Unset if the bytes end before it does, or if it has more bytes than it needs.
  std::optional<std::uint32_t> TakeVarint() {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < kVarintBytesMax && i < bytes_.size(); ++i) {
      const auto byte = static_cast<std::uint8_t>(bytes_[i]);
      value |= std::uint64_t{byte & 0x7FU} << (kVarintBits * i);
      if ((byte & 0x80U) != 0) continue;
      const bool is_shortest = i == 0 || byte != 0;
      if (!is_shortest || value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
      bytes_.remove_prefix(i + 1);
      return static_cast<std::uint32_t>(value);
    }
    return std::nullopt;
  }

 private:
  std::string_view bytes_;
};

bool HasTexts(MessageKind kind) {
  return kind == MessageKind::kRecords || kind == MessageKind::kNames || kind == MessageKind::kAbout;
}

bool IsKnownKind(std::uint8_t kind) {
  return kind >= static_cast<std::uint8_t>(MessageKind::kRecords) &&
         kind <= static_cast<std::uint8_t>(MessageKind::kAbout);
}

bool HasFittingReason(const MessageHead& head) {
  const auto reason = static_cast<std::uint8_t>(head.reason);
  if (head.kind != MessageKind::kGap) return head.reason == GapReason::kNone;
  return reason >= static_cast<std::uint8_t>(GapReason::kOverwritten) &&
         reason <= static_cast<std::uint8_t>(GapReason::kUnreadable);
}

bool HasFittingCount(const MessageHead& head) {
  if (head.count > std::numeric_limits<std::uint64_t>::max() - head.first) return false;
  switch (head.kind) {
    case MessageKind::kRecords:
    case MessageKind::kGap:
      return head.count > 0;
    case MessageKind::kEmpty:
      return head.count == 0;
    case MessageKind::kNames:
      return head.first == 0 && head.count <= 1;
    case MessageKind::kAbout:
      return head.first == 0;
  }
  return false;
}

bool HasFittingName(const MessageHead& head) {
  if (head.kind == MessageKind::kAbout) return head.report.empty();
  return IsReportName(head.report);
}

MessageFault ReadHead(FieldReader& reader, MessageHead& head) {
  if (reader.Take(kMark.size()) != kMark) return MessageFault::kForeign;
  if (reader.Take<std::uint8_t>() != kFormatVersion) return MessageFault::kVersion;
  const auto kind = reader.Take<std::uint8_t>();
  head.kind = static_cast<MessageKind>(kind);
  head.reason = static_cast<GapReason>(reader.Take<std::uint8_t>());
  const std::size_t name_bytes = reader.Take<std::uint16_t>();
  const std::string_view identity = reader.Take(head.identity.size());
  std::memcpy(head.identity.data(), identity.data(), identity.size());
  for (std::uint64_t* const field :
       {&head.incarnation, &head.session, &head.first, &head.count, &head.hash_before, &head.store_next}) {
    *field = reader.Take<std::uint64_t>();
  }
  head.sent_ms = reader.Take<std::int64_t>();
  head.ring_slots = reader.Take<std::uint32_t>();
  const bool is_zero = reader.Take<std::uint32_t>() == 0;
  if (!is_zero || !IsKnownKind(kind) || name_bytes > kReportNameBytesMax) return MessageFault::kValue;
  if (reader.Rest().size() < name_bytes) return MessageFault::kTruncated;
  head.report = reader.Take(name_bytes);
  return HasFittingReason(head) && HasFittingCount(head) && HasFittingName(head) ? MessageFault::kNone
                                                                                 : MessageFault::kValue;
}

// The length of each text takes at least one byte, so there cannot be more texts than bytes left.
MessageFault ReadLengths(FieldReader& reader, std::uint64_t count, std::vector<std::uint32_t>& lengths) {
  if (count > reader.Rest().size()) return MessageFault::kTruncated;
  lengths.reserve(static_cast<std::size_t>(count));
  for (std::uint64_t i = 0; i < count; ++i) {
    const bool is_at_end = reader.Rest().empty();
    const std::optional<std::uint32_t> length = reader.TakeVarint();
    if (!length.has_value()) return is_at_end ? MessageFault::kTruncated : MessageFault::kValue;
    lengths.push_back(*length);
  }
  return MessageFault::kNone;
}

MessageFault ReadTexts(FieldReader& reader, std::uint64_t count, std::vector<std::string_view>& texts) {
  std::vector<std::uint32_t> lengths;
  if (const MessageFault fault = ReadLengths(reader, count, lengths); fault != MessageFault::kNone) return fault;
  std::uint64_t sum = 0;
  for (const std::uint32_t length : lengths) sum += length;
  if (sum > reader.Rest().size()) return MessageFault::kTruncated;
  texts.reserve(lengths.size());
  for (const std::uint32_t length : lengths) texts.push_back(reader.Take(length));
  return MessageFault::kNone;
}

MessageFault ReadMessage(std::string_view bytes, DecodedMessage& message) {
  if (bytes.size() > kMessageBytesMax) return MessageFault::kTooLong;
  if (!bytes.starts_with(kMark.substr(0, bytes.size()))) return MessageFault::kForeign;
  if (bytes.size() < kHeadBytes) return MessageFault::kTruncated;
  FieldReader reader(bytes);
  if (const MessageFault fault = ReadHead(reader, message.head); fault != MessageFault::kNone) return fault;
  if (HasTexts(message.head.kind)) {
    const MessageFault fault = ReadTexts(reader, message.head.count, message.texts);
    if (fault != MessageFault::kNone) return fault;
  }
  return reader.Rest().empty() ? MessageFault::kNone : MessageFault::kTrailing;
}

}  // namespace

std::string_view TextOfFault(MessageFault fault) {
  switch (fault) {
    case MessageFault::kNone:
      return "a message";
    case MessageFault::kForeign:
      return "not a message of qxrelay";
    case MessageFault::kVersion:
      return "a message of a newer version of qxrelay: upgrade this program";
    case MessageFault::kTruncated:
      return "a message that is cut off";
    case MessageFault::kTrailing:
      return "a message with foreign bytes at its end";
    case MessageFault::kTooLong:
      return "a message that is too long";
    case MessageFault::kValue:
      return "a message with impossible values";
  }
  return "not a message of qxrelay";
}

std::string EncodeMessage(const MessageHead& head, std::span<const std::uint32_t> lengths, std::string_view texts) {
  assert(head.report.size() <= kReportNameBytesMax);
  assert(HasTexts(head.kind) ? lengths.size() == head.count : lengths.empty());
  std::string bytes;
  bytes.reserve(kHeadBytes + head.report.size() + lengths.size() * 2 + texts.size());
  PutHead(bytes, head);
  for (const std::uint32_t length : lengths) PutVarint(bytes, length);
  bytes += texts;
  return bytes;
}

DecodedMessage DecodeMessage(std::string_view bytes) {
  DecodedMessage message;
  const MessageFault fault = ReadMessage(bytes, message);
  if (fault == MessageFault::kNone) return message;
  return {.fault = fault, .head = {}, .texts = {}};
}

}  // namespace qx::relay
