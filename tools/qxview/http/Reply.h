// Makes a reply from a document.
#pragma once

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

// A reply that no browser stores.
[[nodiscard]] HttpReply ReplyOf(const ctl::Json& document);
// ReplyOf for a document that is a text already.
[[nodiscard]] HttpReply ReplyOf(HttpReply::Text document);

}  // namespace qx::view
