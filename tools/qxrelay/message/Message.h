// Encodes and decodes the messages of the stream. The bytes of a message:
//
//   offset  bytes
//   0       3   "QXR"
//   3       1   format version, 1
//   4       1   kind: 1 records, 2 gap, 3 empty, 4 names, 5 about
//   5       1   reason of a gap: 1 overwritten, 2 over the limit, 3 unreadable; 0 for other kinds
//   6       2   length of the report's name
//   8       16  identity of the host
//   24      8   incarnation of the store, a random number
//   32      8   session of the sender; a later one has a larger number
//   40      8   number of the first record, counted from 0 at the creation of the store
//   48      8   number of records: those in the message, or those that a gap has lost
//   56      8   hash of the record before the first (RecordHash of reportfile/tools/RecordOverlap.h); 0: not known
//   64      8   number of the record that the store's writer appends next, when the message was made
//   72      8   when the message was made, in milliseconds since 1970
//   80      4   slots of the store's ring
//   84      4   zeros
//   88          the report's name, the length of each text as a varint, the texts
//
// Integers are little-endian. A varint has seven bits in each byte, the lowest ones first. The highest bit is set in
// all bytes except the last one. A varint has no more bytes than it needs. The texts of records are the bytes of the
// data file, with their line ends.
//
//   kind     first, count           texts
//   records  those of the records   the records
//   gap      the lost records       no text
//   empty    the next record, 0     no text
//   names    0, 1                   the whole file; count 0 without a text if there is no file
//   about    0, n                   n labels, each "name=value"
//
// The decoder trusts no byte: before a length is used, it is compared with the number of bytes that are left. A message
// is refused as a whole. For a refused message no memory is allocated.
//
// Everything here is pure and never throws anything but std::bad_alloc. [any thread]
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qx::relay {

inline constexpr std::uint8_t kFormatVersion = 1;
inline constexpr std::size_t kHeadBytes = 88;
inline constexpr std::size_t kReportNameBytesMax = 4096;
// The largest message that is decoded. Servers refuse more than 1 MiB by default, and 64 MiB at most.
inline constexpr std::size_t kMessageBytesMax = std::size_t{64} * 1024 * 1024;
// A message with one text is at most this many bytes longer than the name and the text.
inline constexpr std::size_t kOverheadBytesMax = kHeadBytes + 5;

enum class MessageKind : std::uint8_t { kRecords = 1, kGap = 2, kEmpty = 3, kNames = 4, kAbout = 5 };

enum class GapReason : std::uint8_t {
  kNone = 0,
  kOverwritten = 1,  // the ring replaced the records before they could be sent
  kOverLimit = 2,    // a record is larger than a message may be
  kUnreadable = 3,   // the files do not have the record any more, or the system cannot read it
};

using HostIdentity = std::array<std::uint8_t, 16>;

// A message without its texts. The table above describes the fields.
struct MessageHead {
  MessageKind kind = MessageKind::kEmpty;
  GapReason reason = GapReason::kNone;
  HostIdentity identity = {};
  std::uint64_t incarnation = 0;
  std::uint64_t session = 0;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
  std::uint64_t hash_before = 0;
  std::uint64_t store_next = 0;
  std::int64_t sent_ms = 0;
  std::uint32_t ring_slots = 0;
  std::string report;

  // The number of the record after those of the message.
  [[nodiscard]] std::uint64_t Next() const { return first + count; }

  friend bool operator==(const MessageHead&, const MessageHead&) = default;
};

// Why bytes are not a message. The receiver counts each kind.
enum class MessageFault : std::uint8_t {
  kNone,
  kForeign,    // does not begin with "QXR"
  kVersion,    // the version is not known to this program: receivers are upgraded first
  kTruncated,  // the bytes end before the lengths say
  kTrailing,   // there are bytes after the end that the lengths say
  kTooLong,    // more than kMessageBytesMax
  kValue,      // a field has a value that no sender writes
};

// A text for findings and logs, such as "the bytes end before their lengths say".
[[nodiscard]] std::string_view TextOfFault(MessageFault fault);

struct DecodedMessage {
  MessageFault fault = MessageFault::kNone;
  MessageHead head;
  std::vector<std::string_view> texts;  // parts of the decoded bytes; valid as long as they are
};

// `texts` is all texts without separators, and `lengths` has the length of each. The sum of the lengths must be
// texts.size(), and their number must be the one that the kind of the message requires.
[[nodiscard]] std::string EncodeMessage(const MessageHead& head, std::span<const std::uint32_t> lengths = {},
                                        std::string_view texts = {});

// If there is a fault, `head` and `texts` are empty.
[[nodiscard]] DecodedMessage DecodeMessage(std::string_view bytes);

}  // namespace qx::relay
