#include "tools/qxctl/trace/TraceOffers.h"

#include "tools/qxctl/trace/TracePlace.h"

namespace qx::ctl {

namespace {

std::vector<Offer> TraceFiles(const Context&, const OfferRequest&) {
  const std::string directory = TraceDirectoryHere();
  std::vector<std::string> names;
  (void)FindTraceFiles(directory, names);  // a directory that cannot be listed has nothing to offer
  std::vector<Offer> offers;
  offers.reserve(names.size());
  for (const std::string& name : names) {
    std::string path = directory;
    offers.push_back({path.append("/").append(name)});
  }
  return offers;
}

}  // namespace

constinit const OfferSource kTraceOffers = {"traces", TraceFiles};

}  // namespace qx::ctl
