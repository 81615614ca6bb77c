#include "apps/device/explanation_fields.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "services/json_writer.h"

namespace morvik_device {
namespace {

using morvik::Explanation;

std::string jsonOf(const Explanation& explanation) {
  return morvik::services::jsonDescription(morvik::kit::Value(fieldsOf(explanation)));
}

TEST(ExplanationFields, TellAllThatThereIs) {
  const Explanation::Time noon(std::chrono::seconds(1'714'564'800));
  Explanation explanation;
  explanation.event_id = "an id";
  explanation.state = Explanation::State::kGivenUp;
  explanation.recorded = noon;
  explanation.exchanges = {{.begun = noon,
                            .left = noon + std::chrono::milliseconds(250),
                            .ended = noon + std::chrono::seconds(1),
                            .endpoint = "v1/tracking",
                            .outcome = "failed",
                            .http_status = 413,
                            .error = "too large"}};
  explanation.reason = "a reason";
  explanation.sentence = "a sentence";
  EXPECT_EQ(jsonOf(explanation),
            R"({"event_id":"an id","state":"given up","recorded":"2024-05-01T12:00:00Z","exchanges":[)"
            R"({"begun":"2024-05-01T12:00:00Z","left":"2024-05-01T12:00:00.250000Z","ended":"2024-05-01T12:00:01Z",)"
            R"("endpoint":"v1/tracking","outcome":"failed","http_status":413,"error":"too large"}],)"
            R"("reason":"a reason","sentence":"a sentence"})");
}

TEST(ExplanationFields, TellNullForTimesThatAreNotKnown) {
  Explanation explanation;
  explanation.exchanges = {{.begun = Explanation::Time(std::chrono::seconds(1'714'564'800)), .outcome = "under way"}};
  EXPECT_EQ(jsonOf(explanation), R"({"event_id":"","state":"unknown","recorded":null,"exchanges":[)"
                                 R"({"begun":"2024-05-01T12:00:00Z","left":null,"ended":null,"endpoint":"",)"
                                 R"("outcome":"under way","http_status":0,"error":""}],"reason":"","sentence":""})");
}

TEST(ExplanationFields, NameEachState) {
  using State = Explanation::State;
  const std::vector<std::pair<State, std::string>> names = {
      {State::kNotAnId, "not an id"},   {State::kUnknown, "unknown"},  {State::kPending, "pending"},
      {State::kDelivered, "delivered"}, {State::kGivenUp, "given up"}, {State::kUnclear, "unclear"}};
  for (const auto& [state, name] : names) {
    Explanation explanation;
    explanation.state = state;
    EXPECT_NE(jsonOf(explanation).find("\"state\":\"" + name + "\""), std::string::npos) << name;
  }
}

}  // namespace
}  // namespace morvik_device
