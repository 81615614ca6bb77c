// The service's endpoints: the shared rows (testing/service_endpoint.h), and the checks and answers that need code.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/service/answers/answer_data.h"
#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"
#include "apps/service/base/refusal.h"
#include "apps/service/store/store.h"
#include "apps/service/wire/payload_form.h"
#include "testing/service_endpoint.h"

namespace morvik_service {

/// "ResultCode" of the answers.
inline constexpr int kResultCodeFine = 0;
inline constexpr int kResultCodeNoParameters = 1;
inline constexpr int kResultCodeUnchanged = 1001;

/// What an answer is made from.
struct AnswerContext {
  std::int64_t now_milliseconds;
  const std::optional<Json>& payload;  ///< checked; absent when the body was empty
  bool counted;                        ///< the content of the payload was counted
  AnswerData& data;
  Store& store;
};

/// A row of the table that the simulated service reads too, and this service's code for it.
struct Endpoint : morvik::testing::ServiceEndpointRow {
  /// Throws Refusal when the payload lacks what it must hold. Absent if the row's required texts are all.
  void (*check)(const Json& payload) = nullptr;
  /// Throws Refusal when the checked payload names another app; absent if its form has checked that, or it names
  /// none.
  void (*check_app)(const Json& payload, const Keys& keys) = nullptr;
  /// Absent if the row has a fixed answer.
  Json (*answer)(const AnswerContext& context) = nullptr;
  /// Answered with status 200 to a payload that the checks refuse; without it the refusal itself is the answer.
  Json (*answer_refused)(const Refusal& refusal) = nullptr;
};

/// All checks of the payload. Throws Refusal.
void checkPayload(const Endpoint& endpoint, const Json& payload, const Keys& keys);

/// The endpoint's answer to a payload that passed the checks, or to none.
Json answerOf(const Endpoint& endpoint, const AnswerContext& context);

const std::vector<Endpoint>& endpoints();

/// The endpoint of a path, or nullptr.
const Endpoint* findEndpoint(std::string_view path);

/// The names, as the inspection's behaviours use them.
std::vector<std::string> endpointNames();

}  // namespace morvik_service
