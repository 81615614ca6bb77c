// What became of one event at the service, for people.
#pragma once

#include <string>

#include "apps/service/base/json.h"

namespace morvik_service {

/// `history` as Store::eventHistory gives it. One sentence: with which requests the event arrived, first or again, and
/// what each was answered.
std::string eventSentence(const Json& history);

}  // namespace morvik_service
