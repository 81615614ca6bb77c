// Who brought this install: conversion requests, the referral record, Search Ads and iAd attribution.

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "services/converters.h"
#include "services/endpoints.h"
#include "services/guard.h"

namespace morvik {
namespace {

using kit::lcl_vCritical;
using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::Value;

/// The tenth failure in a row ends the chain of retries.
constexpr int32_t kConversionFailuresToStop = 10;
constexpr double kConversionRetryDelaySeconds = 10.0;

/// Search Ads attribution is asked for from this system version on.
constexpr double kSearchAdsMinSystemVersion = 10.0;

constexpr services::Guard kMakeConversionParameterGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from makeConversionParameter!"
                    "\n                          exceptionName: %@"
                    "\n                          reason: %@"
                    "\n                          exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from makeConversionParameter!"
                    "\n                          exception print: %@")};

constexpr services::Guard kConversionRetryGuard{
    services::oneLine(lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]"),
    services::oneLine(lcl_vTrace, "! MRVK_QA-MorvikCore reGetReferral Failed Exception: %@\n")};

constexpr services::Guard kSaveFendoUserInfoGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from saveFendoUserInfo!"
                    "\n                          exceptionName: %@"
                    "\n                          reason: %@"
                    "\n                          exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from saveFendoUserInfo!"
                    "\n                          exception print: %@")};

constexpr services::Guard kMakeIAdParameterGuard{
    services::block("MRVK_QA-[MorvikCoreService error] Exception from MorvikCoreService!"
                    "\n                          exceptionName: %@"
                    "\n                          reason: %@"
                    "\n                          exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreService error] Exception from MorvikCoreService!"
                    "\n                          exception print: %@")};

constexpr const char* kSaveFendoUserInfoOperation =
    "-[MorvikCoreLib saveFendoUserInfo:shardNum:referralKey:subReferralKey:refUSN:channelType:shardNo:referralData:"
    "reengagementConversionKey:reengagementData:reengagementDateTime:lastReferralKey:lastReferralData:"
    "lastReferralDatetime:installDatetime:installmDatetime:]";

/// A date as whole seconds since 1970, or `otherwise` if there is none.
int64_t secondsOr(const std::optional<kit::Date>& date, int64_t otherwise) {
  return date ? date->microseconds / 1'000'000 : otherwise;
}

/// The elements of an array in a new array; an empty one for anything else.
Value copiedArray(const Value& value) {
  kit::MutableArray copy;
  for (const Value& element : value.array())
    copy.append(element);
  return Value(std::move(copy));
}

}  // namespace

/// How the two conversion requests differ: endpoint, texts, whether an answer resets the failure counter, and
/// whether saving the record pushes the held activities.
struct MorvikCoreLib::ConversionTexts {
  services::Endpoint endpoint;
  const char* operation;
  const char* handler_operation;
  const char* parameter_text;
  const char* url_text;
  const char* json_text;
  const char* no_identifier_text;
  bool resets_failures;
  bool pushes_tracking;
  kit::WhenHeld when_held;

  static const ConversionTexts& own();
  static const ConversionTexts& thirdParty();
};

const MorvikCoreLib::ConversionTexts& MorvikCoreLib::ConversionTexts::own() {
  static constexpr ConversionTexts texts{
      services::Endpoint::kConversion,
      "-[MorvikCoreLib conversion:]",
      "-[MorvikCoreLib conversion:]_block_invoke",
      "MRVK_QA-conversion_parameterInfo : %@",
      "MRVK_QA-conversion_request.URL.absoluteString : %@",
      "MRVK_QA-conversion_JSON: %@",
      "IDFA not passed!",
      true,
      true,
      kit::WhenHeld::kEnds,
  };
  return texts;
}

const MorvikCoreLib::ConversionTexts& MorvikCoreLib::ConversionTexts::thirdParty() {
  static constexpr ConversionTexts texts{
      services::Endpoint::kThirdPartyConversion,
      "-[MorvikCoreLib thirdPartyConversion:]",
      "-[MorvikCoreLib thirdPartyConversion:]_block_invoke",
      "MRVK_QA-thirdPartyConversion parameterInfo : %@",
      "MRVK_QA-thirdPartyConversion_request.URL.absoluteString : %@",
      "MRVK_QA-thirdPartyConversion_JSON: %@",
      "MRVK_QA-thirdPartyConversion_IDFA not passed!",
      false,
      false,
      kit::WhenHeld::kWaits,
  };
  return texts;
}

Value MorvikCoreLib::makeConversionParameter() {
  static constexpr const char* kOperation = "-[MorvikCoreLib makeConversionParameter]";
  const auto parameters = services::guarded(log(), kMakeConversionParameterGuard, MORVIK_HERE(kOperation), [this] {
    kit::MutableDictionary payload = services().makeCommonParameter(ports_.update_log.getSDKVersion());
    const kit::Date server_now = ports_.clock.now().shiftedBySeconds(services().intervalSinceServerDate());
    const kit::Dictionary start{
        {"group", services::kFendoActivityGroupSession},      {"activity", "start"}, {"param", ""},
        {"created_at", util().getUTCFormateDate(server_now)}, {"prev_group", ""},    {"prev_activity", ""}};
    payload.set("activity_info", kit::Array{start});
    for (const kit::Entry& entry : fB_DeepLinkData_.dictionary())
      payload.set(entry.key, entry.value);
    payload.set("searchads_response",
                searchAdsAttributionDetails_.isAbsent() ? Value("") : searchAdsAttributionDetails_);
    MORVIK_LOG(log(), lcl_vDebug, kOperation, "MRVK_QA-jsonDict : %@", Value(kit::MutableDictionary(payload)));
    return sealedWithHashKey(Value(std::move(payload)));
  });
  return parameters.value_or(Value());
}

/// Attribution payloads are sealed with the hash key joined to itself, not with the tracking key.
Value MorvikCoreLib::sealedWithHashKey(const Value& payload) {
  const std::string hash_key = services().hashKey();
  return services().makeJsonParameter(payload, hash_key + hash_key);
}

/// The stores first: one that is recovered while the parameters are made does not count as known then.
MorvikCoreLib::MadeConversion MorvikCoreLib::makeConversion() {
  MadeConversion made = madeElsewhere(Value());
  made.parameters = makeConversionParameter();
  return made;
}

MorvikCoreLib::MadeConversion MorvikCoreLib::madeElsewhere(const Value& parameters) const {
  return {.stores_known = stores_brought_, .records_known = records_brought_, .parameters = parameters};
}

void MorvikCoreLib::conversion(const Value& parameters) {
  conversion(madeElsewhere(parameters));
}

void MorvikCoreLib::conversion(MadeConversion made) {
  requestConversion(std::move(made), ConversionTexts::own(),
                    [self = shared_from_this()](const std::optional<kit::Response>& response, const kit::Error& error) {
                      self->conversionDidFail(response, error);
                    });
}

void MorvikCoreLib::thirdPartyConversion(const Value& parameters) {
  thirdPartyConversion(madeElsewhere(parameters));
}

void MorvikCoreLib::thirdPartyConversion(MadeConversion made) {
  requestConversion(std::move(made), ConversionTexts::thirdParty(),
                    [logger = log()](const std::optional<kit::Response>& response, const kit::Error& error) {
                      static constexpr const char* kOperation = "-[MorvikCoreLib thirdPartyConversion:]_block_invoke";
                      MORVIK_LOG(logger, lcl_vError, kOperation, "MRVK_QA-thirdPartyConversion_Recieved an HTTP %ld",
                                 services::statusCode(response));
                      MORVIK_LOG(logger, lcl_vError, kOperation, "MRVK_QA-thirdPartyConversion_The error was: %@",
                                 error);
                    });
}

/// Parameters made before a store was recovered name another install: they would register this device as a new one.
void MorvikCoreLib::requestConversion(MadeConversion made, const ConversionTexts& texts,
                                      services::ErrorHandler failure) {
  if (isGateClosed())
    return;
  if (made.stores_known != stores_brought_)
    made = makeConversion();
  MORVIK_LOG(log(), lcl_vDebug, texts.operation, texts.parameter_text, made.parameters);
  auto request =
      services::postRequest(ports_.endpoints, texts.endpoint, made.parameters, services::AcceptEncoding::kGzip);
  MORVIK_LOG(log(), lcl_vTrace, texts.operation, texts.url_text, request.absoluteString());
  const auto self = shared_from_this();
  const bool has_begun = services::run(
      requestTools(), std::move(request),
      [self, &texts, records_known = made.records_known](const Value& json) {
        --self->attributions_under_way_;
        self->conversionDidSucceed(json, texts, records_known);
        self->attributionDidEnd();
      },
      [self, failure = std::move(failure)](const std::optional<kit::Response>& response, const kit::Error& error) {
        --self->attributions_under_way_;
        failure(response, error);
        self->attributionDidEnd();
      },
      {.when_held = texts.when_held, .not_sent = [self] {
         --self->attributions_under_way_;
         self->attributionDidEnd();
       }});
  if (has_begun)
    ++attributions_under_way_;
}

void MorvikCoreLib::attributionDidEnd() {
  if (!isAttributionUnderWay() && delivery_observer_.attributionDidEnd)
    delivery_observer_.attributionDidEnd();
}

void MorvikCoreLib::storeRecovered() {
  ++stores_brought_;
  if (store().fendoUserInfo_referralKey() != -1)
    ++records_brought_;
}

void MorvikCoreLib::conversionDidSucceed(const Value& json, const ConversionTexts& texts, uint64_t records_known) {
  if (texts.resets_failures)
    failedGetReferralCnt_ = 0;
  MORVIK_LOG(log(), lcl_vDebug, texts.handler_operation, texts.json_text, json);
  const bool result = util().checkNilToNo(json["Result"]);
  services().setConversionResult(result);
  services().setConversionResultCode(util().checkIntegerNilToZero(json["ResultCode"]));
  takeServerTime(json);
  if (!result || isOutdated(records_known))
    return;
  saveReferralIfDue(json, texts, records_known);
  saveConversionKeys(json);
  passDeferredDeepLink(json, texts);
}

/// An install that is attributed already is overwritten only by an answer that carries a positive referral key.
void MorvikCoreLib::saveReferralIfDue(const Value& json, const ConversionTexts& texts, uint64_t records_known) {
  const bool attributed = store().fendoUserInfo_referralKey() > 0;
  if (attributed && util().checkIntegerNilToZero(json["Data"]["referralKey"]) <= 0)
    return;
  saveReferral(referralRecord(json, 0), records_known);
  if (texts.pushes_tracking)
    pushTracking();
}

void MorvikCoreLib::saveConversionKeys(const Value& json) {
  services().saveConversionInfoForCacheWithConversionArr(copiedArray(json["Data"]["conversion_key_list"]));
}

void MorvikCoreLib::passDeferredDeepLink(const Value& json, const ConversionTexts& texts) {
  const std::string deeplink(util().checkNilToBlankString(json["Data"]["deeplink"]).string());
  if (deeplink.empty())
    return;
  if (!services().appleAdvertisingIdentifier()) {
    MORVIK_LOG(log(), lcl_vCritical, texts.handler_operation, texts.no_identifier_text);
    return;
  }
  const auto delegate = ports_.facade.delegate();
  if (delegate != nullptr && delegate->didReceiveDeeplink)
    delegate->didReceiveDeeplink(deeplink);
}

void MorvikCoreLib::conversionDidFail(const std::optional<kit::Response>& response, const kit::Error& error) {
  static constexpr const char* kOperation = "-[MorvikCoreLib conversion:]_block_invoke";
  MORVIK_LOG(log(), lcl_vError, kOperation, "MRVK_QA-Recieved an HTTP %ld", services::statusCode(response));
  MORVIK_LOG(log(), lcl_vError, kOperation, "MRVK_QA-The error was: %@", error);
  ++failedGetReferralCnt_;
  if (failedGetReferralCnt_ >= kConversionFailuresToStop || failedGetReferralCnt_ == 0)
    return;
  // Once sending is on again the conversion is requested again.
  if (services().isSendingOff())
    return;
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-MorvikCore reTry reGetReferral");
  services::guarded(log(), kConversionRetryGuard, MORVIK_HERE(kOperation), [this] {
    ports_.main_queue.after(kConversionRetryDelaySeconds,
                            [self = shared_from_this(), made = makeConversion()] { self->conversion(made); });
  });
}

ReferralRecord MorvikCoreLib::referralRecord(const Value& json, int64_t install_date_if_unparsable) const {
  const Value& data = json["Data"];
  const auto number = [&](const char* key) { return util().checkIntegerNilToZero(data[key]); };
  const auto text = [&](const char* key) { return std::string(util().checkNilToBlankString(data[key]).string()); };
  ReferralRecord record;
  record.fendoUserNo = util().checkLongLongNilToZero(data["user_no"]);
  // Not the nested number: the top-level key of that spelling, which usual answers do not have.
  record.shardNum = util().checkIntegerNilToZero(json["Data.shard_no"]);
  record.referralKey = number("referralKey");
  record.subReferralKey = number("subreferralKey");
  record.refUSN = text("refusn");
  record.channelType = util().checkNilToZero(data["channel_type"]);
  record.shardNo = number("shard_no");
  record.referralData = text("referral_data");
  record.reengagementConversionKey = number("reengagement_conversion_key");
  record.reengagementData = text("reengagement_data");
  record.reengagementDateTime = number("reengagement_datetime");
  record.lastReferralKey = number("last_referral_key");
  record.lastReferralData = text("last_referral_data");
  record.lastReferralDatetime = text("last_referral_datetime");
  record.installDatetime = text("install_datetime");
  record.installmDatetime = secondsOr(_df.dateFromString(record.installDatetime), install_date_if_unparsable);
  return record;
}

void MorvikCoreLib::saveFendoUserInfo(const ReferralRecord& record) {
  saveReferral(record, records_brought_);
}

void MorvikCoreLib::saveReferral(const ReferralRecord& record, uint64_t records_known) {
  services::guarded(log(), kSaveFendoUserInfoGuard, MORVIK_HERE(kSaveFendoUserInfoOperation), [&] {
    MORVIK_LOG(log(), lcl_vTrace, kSaveFendoUserInfoOperation,
               "MRVK_QA-fendoUserNo : %lld, referralKey : %ld, subReferralKey : %ld, refUSN : %@, channelType : %ld, "
               "shardNo : %ld, referralData : %@ reengagementDateTime : %ld",
               record.fendoUserNo, record.referralKey, record.subReferralKey, record.refUSN, record.channelType,
               record.shardNo, record.referralData, record.reengagementDateTime);
    if (storeReferral(record, records_known))
      notifyReferralSaved(record);
  });
}

/// In one step: another thread that reads the record gets all of it, and a store is recovered either before or after.
bool MorvikCoreLib::storeReferral(const ReferralRecord& record, uint64_t records_known) {
  const kit::Date now = ports_.clock.now();
  return store().inOneStep([&] {
    if (isOutdated(records_known))
      return false;
    store().setFendoUserInfo_fendoUserNo(record.fendoUserNo);
    store().setFendoUserInfo_shardNum(record.shardNum);
    store().setFendoUserInfo_referralKey(record.referralKey);
    store().setFendoUserInfo_subReferralKey(record.subReferralKey);
    store().setFendoUserInfo_refUSN(record.refUSN);
    store().setFendoUserInfo_channelType(record.channelType);
    store().setFendoUserInfo_shardNo(record.shardNo);
    store().setFendoUserInfo_updated_at(now);
    store().setFendoUserInfo_referral_data(record.referralData);
    store().setFendoUserInfo_reengagement_conversion_key(record.reengagementConversionKey);
    store().setFendoUserInfo_reengagement_data(record.reengagementData);
    store().setFendoUserInfo_reengagement_datetime(record.reengagementDateTime);
    store().setFendoUserInfo_last_referral_key(record.lastReferralKey);
    store().setFendoUserInfo_last_referral_data(record.lastReferralData);
    store().setFendoUserInfo_last_referral_datetime(record.lastReferralDatetime);
    store().setFendoUserInfo_install_datetime(record.installDatetime);
    store().setFendoUserInfo_install_mdatetime(record.installmDatetime);
    return true;
  });
}

void MorvikCoreLib::notifyReferralSaved(const ReferralRecord& record) {
  const auto services_delegate = services().saveFendoUserInfoDelegate();
  if (services_delegate != nullptr && services_delegate->didSaveFendoUserInfo) {
    services_delegate->didSaveFendoUserInfo(record.fendoUserNo, record.referralKey, record.subReferralKey,
                                            record.refUSN, record.channelType);
  }
  const auto delegate = ports_.facade.delegate();
  if (delegate != nullptr && delegate->didSaveConversionKey) {
    delegate->didSaveConversionKey(record.referralKey, services::format("%ld", {record.subReferralKey}));
  }
}

void MorvikCoreLib::searchAds() {
  if (isGateClosed())
    return;
  if (services::leadingDouble(ports_.device.systemVersion()) < kSearchAdsMinSystemVersion)
    return;
  if (ports_.ad_client == nullptr || !ports_.ad_client->offersAttributionDetails())
    return;
  ports_.ad_client->requestAttributionDetailsWithBlock(
      [self = shared_from_this()](const Value& details, const std::optional<kit::Error>& error) {
        --self->attributions_under_way_;
        self->searchAdsDidAnswer(details, error);
        self->attributionDidEnd();
      });
  ++attributions_under_way_;
}

/// The lines of this answer go straight to the platform log, whatever the level.
void MorvikCoreLib::searchAdsDidAnswer(const Value& details, const std::optional<kit::Error>& error) {
  if (!error) {
    for (const kit::Entry& entry : details.dictionary()) {
      if (entry.value.isNil())
        continue;
      log().writePlain("SearchAds Attribution Dictionary: %@", {entry.value});
      searchAdsAttributionDetails_ = entry.value;
    }
  }
  log().writePlain("SearchAds Attribution searchAdsAttributionDetails: %@", {searchAdsAttributionDetails_});
  if (services().isSendingOff())
    return;
  if (store().fendoUserInfo_referralKey() == -1)
    conversion(makeConversion());
}

void MorvikCoreLib::iAdConversion() {
  static constexpr const char* kOperation = "-[MorvikCoreLib iAdConversion]";
  if (services().isSendingOff() || ports_.ad_client == nullptr)
    return;
  const auto self = shared_from_this();
  if (ports_.ad_client->offersConversionDetails()) {
    MORVIK_LOG(log(), lcl_vDebug, kOperation, "MRVK_QA-iOS 8 call exists");
    ports_.ad_client->lookupAdConversionDetails(
        [self](std::optional<kit::Date> app_purchase_date, std::optional<kit::Date> iad_impression_date) {
          MORVIK_LOG(self->log(), lcl_vDebug, "-[MorvikCoreLib iAdConversion]_block_invoke",
                     "MRVK_QA-iAdOriginatedInstallation : %d", iad_impression_date.has_value());
          if (!iad_impression_date || self->services().isSendingOff())
            return;
          const uint64_t records_known = self->records_brought_;
          self->iAdAppAttributionTracking(
              self->makeIAdAppAttributionTrackingParameter(app_purchase_date, iad_impression_date), records_known);
        });
  } else if (ports_.ad_client->offersInstallationAttribution()) {
    MORVIK_LOG(log(), lcl_vDebug, kOperation, "MRVK_QA-iOS 7.1 call exists");
    ports_.ad_client->determineAppInstallationAttributionWithCompletionHandler([self](bool attributed) {
      if (!attributed || self->services().isSendingOff())
        return;
      const uint64_t records_known = self->records_brought_;
      self->iAdAppAttributionTracking(self->makeIAdAppAttributionTrackingParameter(std::nullopt, std::nullopt),
                                      records_known);
    });
  }
}

Value MorvikCoreLib::makeIAdAppAttributionTrackingParameter(std::optional<kit::Date> app_purchase_date,
                                                            std::optional<kit::Date> iad_impression_date) {
  const auto parameters = services::guarded(
      log(), kMakeIAdParameterGuard,
      MORVIK_HERE("-[MorvikCoreLib makeIAdAppAttributionTrackingParameter:iAdImpressionDate:]"), [&] {
        kit::MutableDictionary payload = services().makeCommonParameter(ports_.update_log.getSDKVersion());
        if (app_purchase_date && iad_impression_date) {
          payload.set("iAd",
                      kit::Dictionary{{"appPurchaseDate", util().getKoreaDateFormateDate(*app_purchase_date)},
                                      {"iAdImpressionDate", util().getKoreaDateFormateDate(*iad_impression_date)}});
        }
        return sealedWithHashKey(Value(std::move(payload)));
      });
  return parameters.value_or(Value());
}

void MorvikCoreLib::iAdAppAttributionTracking(const Value& parameters) {
  iAdAppAttributionTracking(parameters, records_brought_);
}

void MorvikCoreLib::iAdAppAttributionTracking(const Value& parameters, uint64_t records_known) {
  if (isGateClosed())
    return;
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib iAdAppAttributionTracking:]",
             "MRVK_QA-iAdAppAttributionTracking_parameterInfo : %@", parameters);
  auto request = services::postRequest(ports_.endpoints, services::Endpoint::kIADAttribution, parameters,
                                       services::AcceptEncoding::kGzip);
  services::run(
      requestTools(), std::move(request),
      [self = shared_from_this(), records_known](const Value& json) {
        self->iAdAttributionDidSucceed(json, records_known);
      },
      [logger = log()](const std::optional<kit::Response>& response, const kit::Error& error) {
        static constexpr const char* kOperation = "-[MorvikCoreLib iAdAppAttributionTracking:]_block_invoke";
        MORVIK_LOG(logger, lcl_vError, kOperation, "MRVK_QA-iAdAppAttributionTracking_Recieved an HTTP %ld",
                   services::statusCode(response));
        MORVIK_LOG(logger, lcl_vError, kOperation, "MRVK_QA-iAdAppAttributionTracking_The error was: %@", error);
      },
      {.when_held = kit::WhenHeld::kEnds});
}

/// Saves without asking what is stored: an iAd answer always overwrites the record. An install date that cannot be read
/// is -1 here, and 0 in the conversion's answer.
void MorvikCoreLib::iAdAttributionDidSucceed(const Value& json, uint64_t records_known) {
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib iAdAppAttributionTracking:]_block_invoke",
             "MRVK_QA-iAdAppAttributionTracking_JSON: %@", json);
  if (!util().checkNilToNo(json["Result"]) || isOutdated(records_known))
    return;
  saveReferral(referralRecord(json, -1), records_known);
  saveConversionKeys(json);
}

}  // namespace morvik
