#include "tools/qxctl/fetch/FieldOffers.h"

#include <algorithm>
#include <string>

#include "tools/qxctl/chart/RecordFields.h"
#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/store/NewestRecords.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

constexpr std::uint32_t kRecords = 20;

// Completes the field after the last comma of a list.
//   "cpu,lo" => "cpu,load"
std::vector<Offer> Fields(const Context&, const OfferRequest& request) {
  std::vector<Offer> offers;
  std::string base_path;
  if (!FindBasePath(request.Text("REPORT"), base_path).IsOk()) return offers;
  const std::string before = request.current.substr(0, request.current.rfind(',') + 1);
  const FieldRules rules = {request.Text("--separator"), {.now_ms = NowMs()}};
  for (const std::string& record : NewestRecords(base_path, kRecords)) {
    for (const RecordField& field : ParseFields(TextOfRecord(record).text, rules)) {
      const std::string word = before + field.name;
      const bool is_known =
          std::any_of(offers.begin(), offers.end(), [&](const Offer& offer) { return offer.word == word; });
      if (field.IsNumber() && !is_known) offers.push_back({word});
    }
  }
  return offers;
}

}  // namespace

constinit const OfferSource kFieldOffers = {"fields", Fields};

}  // namespace qx::ctl
