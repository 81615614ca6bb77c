// The service's endpoints: path, form of the payload, key, what a payload must hold, what is answered. A later endpoint
// is one more row here and one more answer.
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

namespace morvik_service {

/// "ResultCode" of the answers.
inline constexpr int kResultCodeFine = 0;
inline constexpr int kResultCodeNoParameters = 1;
inline constexpr int kResultCodeUnchanged = 1001;

/// "code" of the answers to crash reports.
inline constexpr int kCodeFine = 0;
inline constexpr int kCodeNotCounted = 1;

/// Stands in a path for the app key.
inline constexpr std::string_view kAppKeyInPath = "{app key}";

/// What an answer is made from.
struct AnswerContext {
  std::int64_t now_milliseconds;
  const std::optional<Json>& payload;  ///< checked; absent when the body was empty
  bool counted;                        ///< what the payload brings was taken in
  AnswerData& data;
  Store& store;
};

struct Endpoint {
  std::string_view name;
  std::string_view method = "POST";
  std::string_view path;  ///< exact, but for kAppKeyInPath
  PayloadForm form = PayloadForm::kEnvelope;
  KeyChoice key = KeyChoice::kHashKeyTwice;  ///< of sealed forms
  bool payload_required = true;              ///< an empty body is refused
  Counting counting = Counting::kNothing;
  void (*check)(const Json& payload) = nullptr;  ///< throws Refusal
  /// Throws Refusal when the checked payload names another app; absent where its form has seen to that, or it names
  /// none.
  void (*check_app)(const Json& payload, const Keys& keys) = nullptr;
  Json (*answer)(const AnswerContext& context) = nullptr;
  /// Answered with status 200 to a payload that `check` refuses; without it the refusal itself is the answer.
  Json (*answer_refused)(const Refusal& refusal) = nullptr;
};

const std::vector<Endpoint>& endpoints();

/// The endpoint of a path, or nullptr.
const Endpoint* findEndpoint(std::string_view path);

/// The names, as the inspection's behaviours use them.
std::vector<std::string> endpointNames();

}  // namespace morvik_service
