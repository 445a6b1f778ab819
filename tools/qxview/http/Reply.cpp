#include "tools/qxview/http/Reply.h"

#include <memory>
#include <string>
#include <utility>

#include "tools/qxctl/cli/text/JsonText.h"

namespace qx::view {

HttpReply ReplyOf(const ctl::Json& document) {
  return ReplyOf(std::make_shared<const std::string>(ctl::JsonLine(document) + "\n"));
}

HttpReply ReplyOf(HttpReply::Text document) {
  return {.status = 200,
          .type = "application/json",
          .text = std::move(document),
          .headers = {{"Cache-Control", "no-store"}}};
}

}  // namespace qx::view
