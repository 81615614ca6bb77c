// The parts of the answers that can be chosen when the service is started.
#pragma once

#include "apps/service/answers/attribution.h"
#include "apps/service/answers/schedule.h"

namespace morvik_service {

struct AnswerData {
  Attribution attribution;        ///< "Data" of the conversion answers
  Schedule schedule;              ///< "Data" of the schedule answers
  bool premium_postback = false;  ///< "commerce.premium_postback" of the configuration
};

}  // namespace morvik_service
