#include "proofs/run/sabotage.h"

#include <utility>

#include "proofs/oracle/payload_values.h"
#include "proofs/run/stored_keys.h"
#include "testing/service_endpoint.h"

namespace morvik::proofs {
namespace {

using kit::Value;
using testing::ServiceEndpoint;

constexpr size_t kForgottenEvery = 20;
constexpr int64_t kTooMany = 10;

bool isBatch(const kit::Request& request) {
  return testing::endpointOf(request.url) == ServiceEndpoint::kTracking;
}

class SelectedSabotage final : public MachineSabotage {
 public:
  explicit SelectedSabotage(Sabotage sabotage) : sabotage_(sabotage) {}

  size_t copiesOf(const kit::Request& request) override {
    return sabotage_ == Sabotage::kSendsBatchesTwice && isBatch(request) ? 2 : 1;
  }
  bool losesHandlerOf(const kit::Request& request) override {
    return sabotage_ == Sabotage::kLosesHandlers && isBatch(request);
  }
  bool losesTheWishWhileRequestsWait() override { return sabotage_ == Sabotage::kLetsOutWhatWaits; }
  bool spoilsAnswerTo(const kit::Request& request) override {
    return sabotage_ == Sabotage::kSpoilsDemographics &&
           testing::endpointOf(request.url) == ServiceEndpoint::kDemographics;
  }
  size_t timesPutOff(double delay_seconds) override {
    return sabotage_ == Sabotage::kRetriesTwice && delay_seconds > 1 ? 2 : 1;
  }

  Value stored(std::string_view key, Value value) override {
    switch (sabotage_) {
      case Sabotage::kForgetsAnActivity:
        return key == "fendoActivityInfos" ? withoutLast(value) : value;
      case Sabotage::kForgetsToDelete:
        return key == "fendoActivityInfos" ? theLonger(value) : value;
      case Sabotage::kStoresStrangers:
        return key == "fendoImpressionInfos" ? withStranger(value) : value;
      case Sabotage::kStoresClicksTwice:
        return key == "reEngagementInfos" ? doubled(value) : value;
      case Sabotage::kCountsTooFar:
        return key == "reEngagementConversionFailedCnt" ? raised(value) : value;
      case Sabotage::kLosesTheWish:
        return key == "MorvikCoreUserInfo_isGDPRForgetMe" ? Value(false) : value;
      case Sabotage::kIsAnotherDevice:
        return key == kInstallIdKey ? Value() : value;
      case Sabotage::kForgetsTheAccount:
        return key == kLedgerKey ? Value("no account") : value;
      default:
        return value;
    }
  }
  std::string logged(std::string_view line) override {
    return (sabotage_ == Sabotage::kSaysStrangeThings ? "strange: " : "") + std::string(line);
  }

 private:
  /// Each 20th time that it grew.
  Value withoutLast(const Value& list) {
    const bool grew = list.size() > std::exchange(last_size_, list.size());
    if (!grew || ++grown_ % kForgottenEvery != 0)
      return list;
    kit::MutableArray shorter;
    const kit::Array records = list.array();
    for (size_t i = 0; i + 1 < records.size(); ++i)
      shorter.append(records[i]);
    return Value(std::move(shorter));
  }
  Value theLonger(const Value& list) {
    if (list.size() >= longest_.size())
      longest_ = list;
    return longest_;
  }
  static Value withStranger(const Value& impressions) {
    kit::MutableArray more(impressions);
    more.append(kit::Dictionary{{"campaignKey", 7}, {"spaceKey", "strange"}, {"createdAt", kit::Value(kit::Date{})}});
    return Value(std::move(more));
  }
  static Value doubled(const Value& list) {
    kit::MutableArray twice(list);
    for (const Value& each : list.array())
      twice.append(each);
    return Value(std::move(twice));
  }
  static Value raised(const Value& counts) {
    kit::MutableArray raised;
    for (const Value& count : counts.array())
      raised.append(
          kit::Dictionary{{"conversion_key", conversionKeyOf(count)}, {"failure_cnt", failuresOf(count) + kTooMany}});
    return Value(std::move(raised));
  }

  const Sabotage sabotage_;
  size_t last_size_ = 0;
  Value longest_;
  size_t grown_ = 0;
};

}  // namespace

std::unique_ptr<MachineSabotage> makeSabotage(Sabotage sabotage) {
  return sabotage == Sabotage::kNone ? nullptr : std::make_unique<SelectedSabotage>(sabotage);
}

}  // namespace morvik::proofs
