#include "morvik/status.h"

namespace morvik {

std::string_view toText(FlushReason reason) {
  switch (reason) {
    case FlushReason::kDelivered:
      return "delivered";
    case FlushReason::kNotAttributed:
      return "the install is not attributed";
    case FlushReason::kNoNetwork:
      return "there is no network";
    case FlushReason::kRefused:
      return "the service did not accept it";
    case FlushReason::kNoAnswer:
      return "the service did not answer";
    case FlushReason::kSendingOff:
      return "sending is off";
    case FlushReason::kForgotten:
      return "the user asked to be forgotten";
    case FlushReason::kNoTrackingKey:
      return "the tracking key is empty";
    case FlushReason::kNoActivity:
      return "impressions leave with the next activity";
    case FlushReason::kSlotHeld:
      return "an earlier attempt holds the place until the next session";
    case FlushReason::kTimeout:
      return "the time was up";
    case FlushReason::kTooMany:
      return "too many flushes wait already";
    case FlushReason::kStopped:
      return "the kit was stopped";
    case FlushReason::kInsideACallback:
      return "a callback cannot wait";
    case FlushReason::kGivenUp:
      return "nothing waits, but a rule let some go that the service has not accepted";
    case FlushReason::kStaysStored:
      return "the service accepted the batches, and these were in none of them";
    case FlushReason::kOutOfMemory:
      return "the process is out of memory";
  }
  return "unknown";
}

}  // namespace morvik
