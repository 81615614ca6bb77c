// URLs that open the app: re-engagement clicks, their failures and retries, and the Facebook referral.

#include <algorithm>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "MorvikCoreLib/failure_counts.h"
#include "MorvikCoreLib/gone_from.h"
#include "services/converters.h"
#include "services/endpoints.h"
#include "services/guard.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::Value;

/// The module that keeps the conversion key with which the app was last opened.
constexpr const char* kRetainedConversionModule = "FendoLib";

/// "No key" in the stored result of a re-engagement.
constexpr int64_t kNoConversionKey = -1;

constexpr services::Guard kPassOpenURLGuard{services::block("MRVK_QA-[MorvikCoreLib error] Exception from passOpenURL!"
                                                            "\n                          exceptionName: %@"
                                                            "\n                          reason: %@"
                                                            "\n                          exceptionInfo: %@"),
                                            services::block("MRVK_QA-[MorvikCoreLib error] Exception from passOpenURL!"
                                                            "\n                          exception print: %@")};

constexpr services::Guard kMakeParameterGuard{
    services::block("MRVK_QA-[MorvikCore error] Exception from MorvikCoreService!"
                    "\n                              exceptionName: %@"
                    "\n                              reason: %@"
                    "\n                              exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCore error] Exception from MorvikCoreService!"
                    "\n                              exception print: %@")};

constexpr services::Guard kRecorderGuard{
    services::oneLine(lcl_vTrace, "! MRVK_QA-MorvikCore makeReEngagementConversionParameter Exception: %@\n"),
    services::oneLine(lcl_vTrace, "! MRVK_QA-MorvikCore makeReEngagementConversionParameter Exception: %@\n")};

constexpr services::Guard kRetryGuard{
    services::oneLine(lcl_vTrace, "! MRVK_QA-MorvikCore makeFailureReEngagementConversionParameter Exception: %@\n"),
    services::block("MRVK_QA-[MorvikCore error] Exception from makeFailureReEngagementConversionParameter!"
                    "\n                              exception print: %@")};

constexpr services::Guard kReEngagementConversionGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from MorvikCoreService!"
                    "\n                              exceptionName: %@"
                    "\n                              reason: %@"
                    "\n                              exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from MorvikCoreService!"
                    "\n                              exception print: %@")};

constexpr services::Guard kTaskGuard{
    services::oneLine(
        lcl_vTrace,
        "! MRVK_QA-reEngagementConversion_MorvikCore reEngagementConversion from ReEngagement task(Block) "
        "Exception: %@\n"),
    services::oneLine(
        lcl_vTrace,
        "! MRVK_QA-reEngagementConversion_MorvikCore reEngagementConversion from ReEngagement task(Block) "
        "Exception: %@\n")};

constexpr services::Guard kFacebookGuard{
    services::oneLine(lcl_vTrace, "! MRVK_QA-MorvikCoreLib setReferralUrlForFacebook Exception: %@\n"),
    services::oneLine(lcl_vTrace, "! MRVK_QA-MorvikCoreLib setReferralUrlForFacebook Exception: %@\n")};

bool isPresent(const Value& query, const char* key) {
  return !query[key].isAbsent();
}

/// Changes a list and returns what replaces it in the store; if nothing changed, nothing is stored.
template <class Change>
bool changed(const Value& list, Value next, Change store) {
  if (next.identicalTo(list))
    return false;
  store(std::move(next));
  return true;
}

}  // namespace

// --------------------------------------------------------------------------------------------------------- opened URLs

void MorvikCoreLib::passOpenURL(const kit::Url& url) {
  passOpenURL(url, OpeningMoment{.time = std::nullopt, .is_first_launch = isFirstLaunchOk_});
}

void MorvikCoreLib::passOpenURL(const kit::Url& url, const OpeningMoment& moment) {
  static constexpr const char* kOperation = "-[MorvikCoreLib passOpenURL:]";
  services::guarded(log(), kPassOpenURLGuard, MORVIK_HERE(kOperation), [this, &url, &moment] {
    if (services().isSendingOff())
      return keepURL(url);
    const Value query = util().getURLParmaters(url);
    MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-P.O. URL : %@, getURLParamaters : %@", url, query);
    const bool is_re_engagement = isPresent(query, "ck") && (util().checkNilToNo(query["mrvk_eng"]) ||
                                                             !util().checkNilToNo(query["isFacebookCpi"]));
    if (is_re_engagement)
      openReEngagementClick(url, query, moment);
    else
      openAdvertisingIdClick(url, query, moment);
  });
}

/// Until the next session start, or until sending is on again.
void MorvikCoreLib::keepURL(const kit::Url& url) {
  store().setURL(url, services::kPassOpenUrlKey);
  store().synchronize();
}

void MorvikCoreLib::openReEngagementClick(const kit::Url& url, const Value& query, const OpeningMoment& moment) {
  if (isPresent(query, "cid"))
    reportCommerceClick(query, moment);
  sendReEngagement(url, query, moment);
}

/// A click that only the advertising identifier tells from an install's: it is a re-engagement only once the install
/// has its own attribution, and not on the launch that had to wait for it.
void MorvikCoreLib::openAdvertisingIdClick(const kit::Url& url, const Value& query, const OpeningMoment& moment) {
  if (!services().appleAdvertisingIdentifier() || query.isAbsent())
    return;
  if (isPresent(query, "cid"))
    reportCommerceClick(query, moment);
  if (!util().checkNilToNo(query["mrvk_deeplink_cvr"]) || !isPresent(query, "ck") || !isPresent(query, "sn"))
    return;
  if (store().fendoUserInfo_referralKey() == -1 || moment.is_first_launch)
    return;
  sendReEngagement(url, query, moment);
}

void MorvikCoreLib::sendReEngagement(const kit::Url& url, const Value& query, const OpeningMoment& moment) {
  MORVIK_LOG(log(), lcl_vTrace, "-[MorvikCoreLib passOpenURL:]", "MRVK_QA-ReEngagement_URL : %@", url);
  const Value parameters = reEngagementParameter(url, moment.is_first_launch);
  sendClick(
      parameters,
      kit::LedgerLoad{.kind = kit::LedgerKind::kReEngagementClicks, .records = {built_click_}, .is_only_copy = true});
  resetRetainedConversionCache(query);
}

void MorvikCoreLib::resetRetainedConversionCache(const Value& query) {
  if (const kit::Module* module = ports_.modules.find(kRetainedConversionModule))
    services().setResetRetainedConversionCacheDeleate(sharedObjectOf(module));
  const auto delegate = services().resetRetainedConversionCacheDeleate();
  if (delegate != nullptr && delegate->resetRetainedConversionCache)
    delegate->resetRetainedConversionCache(query);
}

// ------------------------------------------------------------------------------------------------ a click's parameters

Value MorvikCoreLib::makeReEngagementConversionParameter(const kit::Url& url) {
  return reEngagementParameter(url, isFirstLaunchOk_);
}

Value MorvikCoreLib::reEngagementParameter(const kit::Url& url, bool is_first_launch) {
  static constexpr const char* kOperation = "-[MorvikCoreLib makeReEngagementConversionParameter:]";
  const auto parameters = services::guarded(log(), kMakeParameterGuard, MORVIK_HERE(kOperation), [&] {
    if (isGateClosed())
      return Value();
    kit::MutableDictionary fields = services().makeCommonParameter(ports_.update_log.getSDKVersion());
    built_click_ = clickRecord(url, is_first_launch);
    newest_click_ = 0;
    fields.set("deeplink_info", built_click_);
    // Weak, since the object itself holds it.
    setReEngagement_task([self = weak_from_this(), url, is_first_launch] {
      if (const auto object = self.lock())
        object->recordFailedReEngagement(url, is_first_launch);
    });
    const Value payload(std::move(fields));
    MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-makeReEngagementConversionParameter_jsonDict : %@", payload);
    return sealedWithHashKey(payload);
  });
  return parameters.value_or(Value());
}

/// What is sent of a click, and stored if sending failed.
Value MorvikCoreLib::clickRecord(const kit::Url& url, bool is_first_launch) const {
  const Value query = util().getURLParmaters(url);
  return kit::Dictionary{
      {"session_no", util().checkLongLongNilToZero(query["sn"])},
      {"conversion_key", util().checkIntegerNilToZero(query["ck"])},
      {"deeplink_uri", url.absoluteString()},
      {"sub_conversion_key", util().checkNilToBlankString(query["sub_referral"])},
      {"is_first_launch", is_first_launch},
  };
}

// --------------------------------------------------------------------------------------------------------- the request

void MorvikCoreLib::reEngagementConversion(const Value& parameters) {
  sendClick(parameters, std::nullopt);
}

void MorvikCoreLib::sendClick(const Value& parameters, const std::optional<kit::LedgerLoad>& load) {
  static constexpr const char* kOperation = "-[MorvikCoreLib reEngagementConversion:]";
  services::guarded(log(), kReEngagementConversionGuard, MORVIK_HERE(kOperation), [&] {
    if (isGateClosed())
      return;
    MORVIK_LOG(log(), lcl_vDebug, kOperation, "MRVK_QA-reEngagementConversion_parameterInfo : %@", parameters);
    auto request = services::postRequest(ports_.endpoints, services::Endpoint::kReEngagementConversion, parameters,
                                         services::AcceptEncoding::kGzip);
    const auto self = shared_from_this();
    // Without parameters the request carries nothing.
    const kit::LedgerTicket ticket = load && !parameters.isNil() ? ledger().carries(*load) : 0;
    if (load && load->is_only_copy)
      newest_click_ = ticket;
    services::run(
        requestTools(), std::move(request),
        [self, ticket](const Value& json) { self->reEngagementDidSucceed(json, ticket); },
        [self, ticket](const std::optional<kit::Response>& response, const kit::Error& error) {
          self->reEngagementDidFail(response, error, ticket);
        },
        {.ticket = ticket});
  });
}

void MorvikCoreLib::reEngagementDidSucceed(const Value& json, kit::LedgerTicket ticket) {
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib reEngagementConversion:]_block_invoke",
             "MRVK_QA-reEngagementConversion_JSON: %@", json);
  takeServerTime(json);
  if (!util().checkNilToNo(json["Result"])) {
    ledger().answered(ticket, kit::LedgerAnswer::kNotAccepted);
    return ledger().lost(ticket, kit::LedgerReason::kNotAccepted);
  }
  ledger().answered(ticket, kit::LedgerAnswer::kAccepted);
  const Value& result = json["Data"]["conversion_result"];
  const int64_t conversion_key = util().checkIntegerNilToZero(result["conversion_key"]);
  services().saveConversionInfoForCache(conversion_key);
  services().saveConversionTimeInfoForCache(services::format("%d", {conversion_key}),
                                            util().checkDoubleNilToZero(baseTimeOf(json)));
  passRetainedConversionKey(conversion_key);
  store().setFendoUserInfo_reengagement_conversion_key(conversion_key == 0 ? kNoConversionKey : conversion_key);
  store().setFendoUserInfo_reengagement_data(
      std::string(util().checkNilToBlankString(result["reengagement_data"]).string()));
  store().setFendoUserInfo_reengagement_datetime(util().checkIntegerNilToZero(result["reengagement_datetime"]));
  strikeOffFailedReEngagement(conversion_key);
}

void MorvikCoreLib::passRetainedConversionKey(int64_t conversion_key) {
  if (const kit::Module* module = ports_.modules.find(kRetainedConversionModule))
    services().setSaveRetainedConversionKeyDelegate(sharedObjectOf(module));
  const auto delegate = services().saveRetainedConversionKeyDelegate();
  if (delegate != nullptr && delegate->saveRetainedConversionKey)
    delegate->saveRetainedConversionKey(conversion_key);
}

/// The recorder is the one held at this moment: that of the latest click, whichever request failed.
void MorvikCoreLib::reEngagementDidFail(const std::optional<kit::Response>& response, const kit::Error& error,
                                        kit::LedgerTicket ticket) {
  static constexpr const char* kOperation = "-[MorvikCoreLib reEngagementConversion:]_block_invoke";
  MORVIK_LOG(log(), lcl_vError, kOperation, "MRVK_QA-reEngagementConversion_Recieved an HTTP %ld",
             services::statusCode(response));
  MORVIK_LOG(log(), lcl_vError, kOperation, "MRVK_QA-reEngagementConversion_The error was: %@", error);
  services::guarded(log(), kTaskGuard, MORVIK_HERE(kOperation), [this, ticket] {
    const kit::Block task = ReEngagement_task();
    if (!task)
      return ledger().lost(ticket, kit::LedgerReason::kSessionEnded);
    if (ticket != newest_click_)
      ledger().lost(ticket, kit::LedgerReason::kNewerClick);
    task();
  });
}

// ------------------------------------------------------------------------------------------------------- failed clicks

/// Another thread may commit between two writes, and the process may end there. A count without its click is dropped at
/// some session end; a click without its count would be sent again for ever. So the count is written first and removed
/// last, here and below.
void MorvikCoreLib::recordFailedReEngagement(const kit::Url& url, bool is_first_launch) {
  static constexpr const char* kOperation = "-[MorvikCoreLib makeReEngagementConversionParameter:]_block_invoke";
  services::guarded(log(), kRecorderGuard, MORVIK_HERE(kOperation), [&] {
    const Value click = clickRecord(url, is_first_launch);
    const bool is_new = store().inOneStep([this, &click] {
      const int64_t key = conversionKeyOf(click);
      const Value clicks = store().reEngagementInfos();
      if (failed_clicks_.contains(clicks, key)) {
        ledger().lost(newest_click_, kit::LedgerReason::kSameKey);
        return false;
      }
      // A count without its click is left over from a process that died in between.
      const Value counts = failed_click_counts_.without(store().reEngagementConversionFailedCnt(), key);
      store().setReEngagementConversionFailedCnt(
          failed_click_counts_.appended(counts, failureCount(key, kFirstFailureCount)));
      Value next = failed_clicks_.appended(clicks, click);
      ledger().recorded(kit::LedgerKind::kReEngagementClicks, 1);
      store().setReEngagementInfos(std::move(next));
      return true;
    });
    if (is_new)
      store().synchronize();
  });
}

/// A list without a record of the key is not written.
void MorvikCoreLib::strikeOffFailedReEngagement(int64_t conversion_key) {
  const bool was_failed = store().inOneStep([this, conversion_key] {
    const Value clicks = store().reEngagementInfos();
    return changed(clicks, failed_clicks_.without(clicks, conversion_key), [this, &clicks](const Value& next) {
      ledger().removed(kit::LedgerKind::kReEngagementClicks, goneFrom(clicks, next),
                       kit::LedgerReason::kOtherKeyAccepted);
      store().setReEngagementInfos(next);
    });
  });
  if (was_failed)
    store().synchronize();
  const bool was_counted = store().inOneStep([this, conversion_key] {
    const Value counts = store().reEngagementConversionFailedCnt();
    return changed(counts, failed_click_counts_.without(counts, conversion_key),
                   [this](const Value& next) { store().setReEngagementConversionFailedCnt(next); });
  });
  if (was_counted)
    store().synchronize();
}

void MorvikCoreLib::makeFailureReEngagementConversionParameter() {
  services::guarded(
      log(), kRetryGuard, MORVIK_HERE("-[MorvikCoreLib makeFailureReEngagementConversionParameter]"), [this] {
        if (isGateClosed())
          return;
        kit::MutableDictionary payload = services().makeCommonParameter(ports_.update_log.getSDKVersion());
        countSessionEndOfFailedReEngagements();
        resendFailedReEngagements(std::move(payload));
      });
}

/// One step and one flush for all of them. The clicks that are given up are removed before their counts: if the process
/// is killed in between, they are given up again.
void MorvikCoreLib::countSessionEndOfFailedReEngagements() {
  const bool has_counts = store().inOneStep([this] {
    const Value counts = store().reEngagementConversionFailedCnt();
    if (counts.array().empty())
      return false;
    const CountedSessionEnd counted = countSessionEnd(counts.array());
    const Value clicks = store().reEngagementInfos();
    changed(clicks, withoutGivenUp(clicks, counted.given_up), [this, &clicks](const Value& next) {
      ledger().removed(kit::LedgerKind::kReEngagementClicks, goneFrom(clicks, next),
                       kit::LedgerReason::kSixthSessionEnd);
      store().setReEngagementInfos(next);
    });
    store().setReEngagementConversionFailedCnt(counted.counts);
    return true;
  });
  if (has_counts)
    store().synchronize();
}

void MorvikCoreLib::resendFailedReEngagements(kit::MutableDictionary payload) {
  const kit::Array clicks = store().reEngagementInfos().array();
  for (const Value& click : clicks) {
    payload.set("deeplink_info", kit::Dictionary{
                                     {"session_no", util().checkLongLongNilToZero(click["session_no"])},
                                     {"conversion_key", util().checkIntegerNilToZero(click["conversion_key"])},
                                     {"deeplink_uri", util().checkNilToBlankString(click["deeplink_uri"])},
                                     {"sub_conversion_key", util().checkNilToBlankString(click["sub_conversion_key"])},
                                     {"is_first_launch", util().checkNilToNo(click["is_first_launch"])},
                                 });
    const Value fields{kit::MutableDictionary(payload)};
    MORVIK_LOG(log(), lcl_vTrace, "-[MorvikCoreLib makeFailureReEngagementConversionParameter]",
               "MRVK_QA-makeFailureReEngagementConversionParameter_failed Past jsonDict info: %@", fields);
    sendClick(sealedWithHashKey(fields),
              kit::LedgerLoad{.kind = kit::LedgerKind::kReEngagementClicks, .records = {click}});
  }
}

// --------------------------------------------------------------------------------------------------- Facebook referral

void MorvikCoreLib::setReferralUrlForFacebook(const kit::Url& url) {
  services::guarded(log(), kFacebookGuard, MORVIK_HERE("-[MorvikCoreLib setReferralUrlForFacebook:]"), [this, &url] {
    if (isGateClosed())
      return;
    if (fB_DeepLinkData_.isAbsent())
      fB_DeepLinkData_ = kit::Dictionary();
    const Value query = util().getURLParmaters(url);
    const int64_t conversion_key = util().checkIntegerNilToZero(query["ck"]);
    if (isConversionReported(conversion_key))
      return;
    kit::MutableDictionary data(fB_DeepLinkData_);
    data.set("deeplink_info", kit::Dictionary{
                                  {"conversion_key", conversion_key},
                                  {"deeplink_uri", url.absoluteString()},
                                  {"sub_conversion_key", util().checkNilToBlankString(query["sub_referral"])},
                              });
    fB_DeepLinkData_ = Value(std::move(data));
    thirdPartyConversion(makeConversion());
  });
}

bool MorvikCoreLib::isConversionReported(int64_t conversion_key) const {
  const kit::Array reported = store().fendoConversionInfoForCaches().array();
  return std::any_of(reported.begin(), reported.end(), [this, conversion_key](const Value& key) {
    return services::isConversionKey(key) && util().checkIntegerNilToZero(key) == conversion_key;
  });
}

}  // namespace morvik
