#include "tools/qxctl/fetch/LookEvents.h"

namespace qx::ctl {

using report::LookEvent;
using report::ReportLook;

void LookTally::Count(const ReportLook& look) {
  if (look.event == LookEvent::kGap) {
    ++gaps;
    lost = lost && look.lost ? std::optional(*lost + *look.lost) : std::nullopt;
  }
  ambiguous += look.event == LookEvent::kAmbiguous ? 1 : 0;
  started_over += look.event == LookEvent::kStartedOver ? 1 : 0;
}

Json ToJson(const LookTally& tally) {
  Json object = {{"gaps", tally.gaps}, {"recordsLost", nullptr}};
  if (tally.lost) object["recordsLost"] = *tally.lost;
  object["ambiguous"] = tally.ambiguous;
  object["startedOver"] = tally.started_over;
  return object;
}

std::string EventText(const std::string& report, const ReportLook& look) {
  switch (look.event) {
    case LookEvent::kNone:
      return "";
    case LookEvent::kGap:
      if (look.lost) {
        return report + ": gap: the ring has moved over " + std::to_string(*look.lost) +
               " records that had not been printed";
      }
      return report +
             ": gap: none of the records printed last is in the ring any more; how many were written and lost " +
             "meanwhile is not known";
    case LookEvent::kAmbiguous:
      return report + ": ambiguous: records repeat, so it is not certain which are new; some may be missing, none is " +
             "printed twice";
    case LookEvent::kStartedOver:
      return report + ": started over: it holds fewer records than were printed; what it had gained before is lost";
  }
  return "";
}

std::string EventName(const ReportLook& look) {
  switch (look.event) {
    case LookEvent::kNone:
      return "";
    case LookEvent::kGap:
      return "gap";
    case LookEvent::kAmbiguous:
      return "ambiguous";
    case LookEvent::kStartedOver:
      return "startedOver";
  }
  return "";
}

Status BlockedStatus(std::uint32_t index) {
  return {ExitCode::kFinding, "record " + std::to_string(index) +
                                  " (counted from 0) has 1 MiB or more, too large for a chunk; neither it nor " +
                                  "what follows it can be transferred until it has left the ring"};
}

Status OutrunStatus(const std::string& report) {
  return {ExitCode::kChanged,
          "the ring of report \"" + report + "\" moves faster than it can be read; try again when less is written"};
}

}  // namespace qx::ctl
