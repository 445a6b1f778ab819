#include "tools/qxctl/settings/IniOffers.h"

#include "inifile/tools/ProfileText.h"

namespace qx::ctl {

namespace {

std::vector<Offer> Sections(const Context&, const OfferRequest& request) {
  std::vector<Offer> offers;
  for (const std::string& name : inifile::ReadThroughClass(request.Text("FILE")).sections) offers.push_back({name});
  return offers;
}

std::vector<Offer> Keys(const Context&, const OfferRequest& request) {
  const inifile::ProfileContent content = inifile::ReadThroughClass(request.Text("FILE"));
  const auto section = content.entries.find(request.Text("SECTION"));
  if (section == content.entries.end()) return {};
  std::vector<Offer> offers;
  for (const inifile::ProfileEntry& entry : section->second) offers.push_back({entry.key, entry.value});
  return offers;
}

}  // namespace

constinit const OfferSource kIniSectionOffers = {"ini-sections", Sections};
constinit const OfferSource kIniKeyOffers = {"ini-keys", Keys};

}  // namespace qx::ctl
