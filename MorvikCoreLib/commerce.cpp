// Commerce clicks, the commerce events of the tracking module, and the premium postback.

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "services/endpoints.h"
#include "services/guard.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::Value;

/// The module that keeps the commerce events.
constexpr const char* kCommerceModule = "Fendo";

constexpr const char* kGranted = "true";
constexpr const char* kNotGranted = "false";

constexpr services::Guard kPremiumPostbackGuard{
    services::oneLine(lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]"),
    services::oneLine(lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]")};

double millisecondsSince1970(kit::Date date) {
  return date.secondsSince1970() * 1000.0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------- commerce clicks

/// Stores the click before it is sent.
void MorvikCoreLib::reportCommerceClick(const Value& query, const OpeningMoment& moment) {
  if (!moment.is_commerce_recorded)
    recordCommerceClick(query, moment);
  commerceConversion();
}

void MorvikCoreLib::recordCommerceClick(const Value& query, const OpeningMoment& moment) {
  const Value click = kit::Dictionary{
      {"clickId", query["cid"]},
      {"idfa", util().IDFA().value_or("")},
      {"mtime", millisecondsSince1970(moment.time ? *moment.time : ports_.clock.now())},
  };
  store().inOneStep([this, &click, &moment] {
    kit::MutableArray clicks(store().commerceConversionInfos());
    clicks.append(click);
    ledger().recorded(kit::LedgerKind::kCommerceClicks, 1);
    store().setCommerceConversionInfos(Value(std::move(clicks)));
    if (moment.when_commerce_recorded)
      moment.when_commerce_recorded();
  });
  MORVIK_LOG(log(), lcl_vTrace, "-[MorvikCoreLib passOpenURL:]", "MRVK_QA-commerceConversionInfos : %@",
             store().commerceConversionInfos());
  store().synchronize();
}

void MorvikCoreLib::commerceConversion() {
  static constexpr const char* kOperation = "-[MorvikCoreLib commerceConversion]";
  static constexpr const char* kHandlerOperation = "-[MorvikCoreLib commerceConversion]_block_invoke";
  if (isGateClosed())
    return;
  services::MutableURLRequest request(services::urlOf(ports_.endpoints, services::Endpoint::kCommerceConversion));
  request.setValue("gzip", "Accept-Encoding");
  request.addValue("application/json", "Content-Type");
  request.setHTTPMethod("POST");
  const uint64_t stores_known = stores_brought_;
  const Value clicks = store().commerceConversionInfos();
  auto body = ports_.json.write(clicks);
  if (const auto* error = std::get_if<kit::Error>(&body)) {
    MORVIK_LOG(log(), lcl_vError, kOperation, "MRVK_QA-commerceConversion_error : %@", *error);
    return;
  }
  request.setHTTPBody(std::get<std::string>(std::move(body)));
  request.setTimeoutInterval(static_cast<double>(services::kFendoHttpConnectionTimeoutSeconds));
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-commerceConversion_request.URL.absoluteString : %@",
             request.absoluteString());
  const kit::LedgerTicket ticket =
      ledger().carries({.kind = kit::LedgerKind::kCommerceClicks, .records = clicks.array()});
  services::run(
      requestTools(), std::move(request),
      [self = shared_from_this(), stores_known, clicks, ticket](const Value& json) {
        self->commerceDidSucceed(json, stores_known, clicks, ticket);
      },
      [logger = log()](const kit::Request& sent, const std::optional<kit::Response>& response, const kit::Error& error,
                       const Value&) {
        MORVIK_LOG(logger, lcl_vError, kHandlerOperation, "MRVK_QA-commerceConversion_request : %@, response : %@",
                   sent, response);
        MORVIK_LOG(logger, lcl_vError, kHandlerOperation, "MRVK_QA-commerceConversion_Recieved an HTTP %ld",
                   services::statusCode(response));
        MORVIK_LOG(logger, lcl_vError, kHandlerOperation, "MRVK_QA-commerceConversion_The error was: %@", error);
      },
      {.ticket = ticket});
}

/// Clears the whole list, including clicks recorded meanwhile, except those of a store recovered meanwhile. After an
/// answer with a message all stay.
void MorvikCoreLib::commerceDidSucceed(const Value& json, uint64_t stores_known, const Value& sent,
                                       kit::LedgerTicket ticket) {
  static constexpr const char* kOperation = "-[MorvikCoreLib commerceConversion]_block_invoke";
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-commerceConversion_JSON: %@", json);
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-commerceConversion_errMsg : %@", json["errMsg"]);
  if (!json["errMsg"].isNil())
    return ledger().answered(ticket, kit::LedgerAnswer::kNotAccepted);
  ledger().answered(ticket,
                    json["errMsg"].isAbsent() ? kit::LedgerAnswer::kAcceptedEmpty : kit::LedgerAnswer::kAccepted);
  if (!clearStored(kit::LedgerKind::kCommerceClicks, stores_known, kit::LedgerReason::kAddedDuringUpload))
    removeSent(kit::LedgerKind::kCommerceClicks, sent.array());
}

// ---------------------------------------------------------------------------------------------------- commerce events

/// The module sends by itself, so it is not called while sending is off.
void MorvikCoreLib::saveCommerceEvents() {
  if (services().isSendingOff() || store().commerceExpansionInfos().size() == 0)
    return;
  const kit::Module* module = ports_.modules.find(kCommerceModule);
  if (module != nullptr && module->saveCommerceEventAndSend)
    module->saveCommerceEventAndSend();
}

// --------------------------------------------------------------------------------------------------- premium postback

void MorvikCoreLib::getPremiumPostbackInfoss() {
  services::guarded(log(), kPremiumPostbackGuard, MORVIK_HERE("-[MorvikCoreLib getPremiumPostbackInfoss]"), [this] {
    if (services().isGDPRForgetMe())
      return;
    if (store().commercePremiumPostBack() == kGranted) {
      services().setIsPremiumPostback(true);
      return;
    }
    if (services().isSendingOff() || endedWithinTheMinute())
      return;
    const std::string path = services::format("%@/%@", {services().appKey(), services::kAppConfigFileName});
    auto request =
        services::MorvikADAFHTTPClient(ports_.endpoints.KAppConfigBaseLiveUrl).requestWithMethod("GET", path, Value());
    request.setValue("application/json", "Accept");
    request.setValue("application/json; charset=UTF-8", "Content-Type");
    services::run(
        requestTools(), std::move(request),
        [self = shared_from_this()](const Value& json) { self->premiumPostbackDidSucceed(json); },
        [](const std::optional<kit::Response>&, const kit::Error&) {}, {.when_held = kit::WhenHeld::kEnds});
  });
}

void MorvikCoreLib::premiumPostbackDidSucceed(const Value& json) {
  static constexpr const char* kOperation = "-[MorvikCoreLib getPremiumPostbackInfoss]_block_invoke";
  MORVIK_LOG(log(), lcl_vDebug, kOperation, "Conversion JSON: %@", json);
  const Value text = util().checkNilToBlankString(json["commerce"]["premium_postback"]);
  const bool is_granted = util().checkNilToNo(text);
  services().setIsPremiumPostback(is_granted);
  store().setCommercePremiumPostBack(is_granted ? kGranted : kNotGranted);
  store().synchronize();
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-set the Premium Postback is : %d]",
             services().isPremiumPostback());
}

}  // namespace morvik
