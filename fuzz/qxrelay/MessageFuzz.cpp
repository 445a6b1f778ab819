// Decodes any bytes as a relay message. Decoding must not crash, texts must be inside the bytes, and encoding an
// accepted message must give the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/message/Subject.h"

namespace {

using qx::relay::MessageFault;

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const qx::relay::DecodedMessage message = qx::relay::DecodeMessage(bytes);
  if (message.fault != MessageFault::kNone) {
    Require(message.texts.empty() && message.texts.capacity() == 0);
    return 0;
  }
  std::vector<std::uint32_t> lengths;
  std::string texts;
  for (const std::string_view text : message.texts) {
    Require(text.empty() || (text.data() >= bytes.data() && text.data() + text.size() <= bytes.data() + bytes.size()));
    lengths.push_back(static_cast<std::uint32_t>(text.size()));
    texts += text;
  }
  Require(qx::relay::IsReportName(message.head.report));
  Require(qx::relay::EncodeMessage(message.head, lengths, texts) == bytes);
  return 0;
}
