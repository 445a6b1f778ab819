#include "tools/qxview/api/Failure.h"

#include "tools/qxview/http/Reply.h"

namespace qx::view {

namespace {

struct Row {
  unsigned status;
  std::string_view code;
};

// The status and the code of each failure, in the order of Failure.
constexpr Row kRows[] = {
    {401, "QX601"}, {403, "QX602"}, {403, "QX603"}, {403, "QX604"}, {404, "QX605"}, {405, "QX606"},
    {400, "QX607"}, {404, "QX608"}, {503, "QX609"}, {503, "QX610"}, {503, "QX611"},
};

const Row& RowOf(Failure failure) { return kRows[static_cast<std::size_t>(failure)]; }

}  // namespace

std::string_view CodeOf(Failure failure) { return RowOf(failure).code; }

HttpReply ReplyOf(Failure failure, std::string_view message) {
  HttpReply reply = ReplyOf(ctl::Json{{"code", RowOf(failure).code}, {"message", message}});
  reply.status = RowOf(failure).status;
  if (failure == Failure::kBadMethod) reply.headers.emplace_back("Allow", "GET, HEAD");
  return reply;
}

}  // namespace qx::view
