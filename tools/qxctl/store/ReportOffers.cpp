#include "tools/qxctl/store/ReportOffers.h"

#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

std::vector<Offer> Reports(const Context&, const OfferRequest&) {
  std::vector<Offer> offers;
  for (const std::string& name : report::FindReports(ReportDirectory()).names) offers.push_back({name});
  return offers;
}

}  // namespace

constinit const OfferSource kReportOffers = {"reports", Reports};

}  // namespace qx::ctl
