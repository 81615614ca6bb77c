// What the one who starts the service may choose of its answers.
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
