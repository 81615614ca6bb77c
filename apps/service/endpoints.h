// The tracking service's endpoints: path, key, what a payload must hold, what is answered. A later endpoint is one more
// row here and one more answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/service/attribution.h"
#include "apps/service/json.h"
#include "apps/service/keys.h"
#include "apps/service/store.h"

namespace morvik_service {

/// "ResultCode" of the attribution answers.
inline constexpr int kResultCodeFine = 0;
inline constexpr int kResultCodeNoParameters = 1;

/// What an answer is made from.
struct AnswerContext {
  std::int64_t now_milliseconds;
  const std::optional<Json>& payload;  ///< checked; absent when the body was empty
  bool counted;                        ///< the payload's events were taken in
  const Attribution& attribution;
  Store& store;
};

struct Endpoint {
  std::string_view name;
  std::string_view path;
  KeyChoice key;
  bool payload_required;               ///< an empty body is refused
  bool has_events;                     ///< its payload's events and impressions are counted
  void (*check)(const Json& payload);  ///< throws Refusal
  Json (*answer)(const AnswerContext& context);
};

const std::vector<Endpoint>& endpoints();

/// The endpoint of a path, or nullptr.
const Endpoint* findEndpoint(std::string_view path);

/// The names, as the inspection's behaviours use them.
std::vector<std::string> endpointNames();

}  // namespace morvik_service
