// A document as a reply.
#pragma once

#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

// What the API returns is never kept by a browser.
[[nodiscard]] HttpReply ReplyOf(const ctl::Json& document);
// The same with a document that is a text already.
[[nodiscard]] HttpReply ReplyOf(HttpReply::Text document);

}  // namespace qx::view
