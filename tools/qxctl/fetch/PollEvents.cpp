#include "tools/qxctl/fetch/PollEvents.h"

namespace qx::ctl {

using report::PollEvent;
using report::ReportPoll;

void PollTally::Count(const ReportPoll& poll) {
  if (poll.event == PollEvent::kGap) {
    ++gaps;
    lost = lost && poll.lost ? std::optional(*lost + *poll.lost) : std::nullopt;
  }
  ambiguous += poll.event == PollEvent::kAmbiguous ? 1 : 0;
  started_over += poll.event == PollEvent::kStartedOver ? 1 : 0;
}

Json ToJson(const PollTally& tally) {
  Json object = {{"gaps", tally.gaps}, {"recordsLost", nullptr}};
  if (tally.lost) object["recordsLost"] = *tally.lost;
  object["ambiguous"] = tally.ambiguous;
  object["startedOver"] = tally.started_over;
  return object;
}

std::string EventText(const std::string& report, const ReportPoll& poll) {
  switch (poll.event) {
    case PollEvent::kNone:
      return "";
    case PollEvent::kGap:
      if (poll.lost) {
        return report + ": gap: " + std::to_string(*poll.lost) + (*poll.lost == 1 ? " record was" : " records were") +
               " overwritten before they could be printed";
      }
      return report +
             ": gap: the ring has none of the records that were printed last; records may be lost, and their number " +
             "is not known";
    case PollEvent::kAmbiguous:
      return report + ": ambiguous: records repeat, so it is not certain which are new; some may be missing, none is " +
             "printed twice";
    case PollEvent::kStartedOver:
      return report + ": started over: it has fewer records than before, so it is a new report; records of the " +
             "old one that had not been printed are lost";
  }
  return "";
}

std::string EventName(const ReportPoll& poll) {
  switch (poll.event) {
    case PollEvent::kNone:
      return "";
    case PollEvent::kGap:
      return "gap";
    case PollEvent::kAmbiguous:
      return "ambiguous";
    case PollEvent::kStartedOver:
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
