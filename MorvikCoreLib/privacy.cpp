// The user's wish to be forgotten, and its withdrawal.

#include <deque>
#include <utility>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "services/endpoints.h"
#include "services/guard.h"
#include "services/text_codes.h"
#include "services/uuid.h"
#include "services/value_key_pairs.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::lcl_vWarning;
using kit::Value;

/// The module that receives remote notifications.
constexpr const char* kPushModule = "QuintPush";

/// Names the request's extension for the erasure service.
constexpr const char* kErasureDomainName = "erasure.morvik.example";

constexpr const char* kOperation = "-[MorvikCoreLib gdprForgetMe:]";
constexpr const char* kErasureHandler = "-[MorvikCoreLib gdprForgetMe:]_block_invoke";

constexpr services::Guard kMakeGdprParameterGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from makeConversionParameter!"
                    "\n                          exceptionName: %@"
                    "\n                          reason: %@"
                    "\n                          exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from makeConversionParameter!"
                    "\n                          exception print: %@")};

/// The place of a wish among the unreported ones. Given up if something throws before the wish is stored.
class UntoldWish {
 public:
  UntoldWish(std::deque<bool>& wishes, bool takes_place_of_last) : wishes_(wishes), is_added_(!takes_place_of_last) {
    if (is_added_)
      wishes_.push_back(false);
  }
  UntoldWish(const UntoldWish&) = delete;
  UntoldWish& operator=(const UntoldWish&) = delete;
  ~UntoldWish() {
    if (is_added_ && !stands_)
      wishes_.pop_back();
  }
  void stands(bool wish) {
    wishes_.back() = wish;
    stands_ = true;
  }

 private:
  std::deque<bool>& wishes_;
  const bool is_added_;
  bool stands_ = false;
};

Value orAbsent(const std::optional<std::string>& text) {
  return text ? Value(*text) : Value();
}

bool isSuccess(const std::optional<kit::Response>& response) {
  return response && response->status_code >= 200 && response->status_code <= 299;
}

}  // namespace

bool MorvikCoreLib::isGdprForgetMe() const {
  return services().isGDPRForgetMe();
}

void MorvikCoreLib::gdprForgetMe(bool forget_me) {
  if (!recordForgetMe(forget_me))
    MORVIK_LOG(log(), lcl_vWarning, kOperation, "MRVK_QA-[MorvikCore GDPR] already Synced And Set. Return..");
}

/// One step, so that of wishes made on several threads the last stored is the last reported. False: the service has
/// accepted this one already.
bool MorvikCoreLib::recordForgetMe(bool forget_me) {
  return store().inOneStep([this, forget_me] {
    if (store().MorvikCoreUserInfo_isGDPRForgetMe() == forget_me && wasForgetMeSynced())
      return false;
    // Memory is allocated first: no wish is stored that would not be reported.
    const bool takes_place_of_last = untold_wishes_.size() >= kMaxUntoldWishes;
    if (!takes_place_of_last)
      ports_.main_queue.async([self = shared_from_this()] { self->tellNextWish(); });
    UntoldWish untold(untold_wishes_, takes_place_of_last);
    // A process that dies before the wish is reported must not leave it marked as accepted.
    synced_before_wish_ = wasForgetMeSynced();
    if (store().MorvikCoreUserInfo_isGDPRForgetMeServerSynced())
      setForgetMeSynced(false);
    setForgetMe(forget_me);
    untold.stands(forget_me);
    return true;
  });
}

void MorvikCoreLib::setWishesHeld(bool held) {
  are_wishes_held_ = held;
  while (!held && tellNextWish()) {
  }
}

/// False: there was none, or they are held. Without a network they are not held; what is unreported then stays so.
bool MorvikCoreLib::tellNextWish() {
  if (are_wishes_held_ && util().getNetworkStatus() != kit::kNetworkUnknown)
    return false;
  const auto wish = store().inOneStep([this]() -> std::optional<bool> {
    if (untold_wishes_.empty())
      return std::nullopt;
    const bool first = untold_wishes_.front();
    untold_wishes_.pop_front();
    return first;
  });
  if (!wish)
    return false;
  tellForgetMe(*wish);
  if (are_wishes_held_)
    tellNextWish();
  return true;
}

/// What the stored flag said before any wish that is still unreported.
bool MorvikCoreLib::wasForgetMeSynced() const {
  return synced_before_wish_.value_or(store().MorvikCoreUserInfo_isGDPRForgetMeServerSynced());
}

void MorvikCoreLib::tellForgetMe(bool forget_me) {
  if (util().getNetworkStatus() == kit::kNetworkUnknown)
    return leaveForgetMeUntold();
  store().inOneStep([this] { synced_before_wish_.reset(); });
  const kit::Module* push = ports_.modules.find(kPushModule);
  if (push != nullptr && push->setRemotePushEnable)
    push->setRemotePushEnable(!forget_me);
  sendErasureRequest();
}

/// Without a network the flag stays as it was.
void MorvikCoreLib::leaveForgetMeUntold() {
  store().inOneStep([this] {
    if (std::exchange(synced_before_wish_, std::nullopt).value_or(false))
      setForgetMeSynced(true);
  });
}

/// The one request that passes the gate of the user's wish.
void MorvikCoreLib::sendErasureRequest() {
  auto request =
      services::postRequest(ports_.endpoints, services::Endpoint::kGdprReq, Value(), services::AcceptEncoding::kUnset);
  auto body = ports_.json.writePretty(makeGdprParameter(ErasureForm::kPlain));
  // Without a body nothing is sent: an answer would count as one to the wish.
  if (const auto* error = std::get_if<kit::Error>(&body)) {
    erasureDidFail(std::nullopt, *error);
    return;
  }
  request.setValue("application/json", "Accept-Encoding");
  request.setValue("application/json", "Content-Type");
  request.setHTTPBody(std::get<std::string>(std::move(body)));
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-[MorvikCore GDPR] URL.absoluteString : %@",
             request.absoluteString());
  const auto self = shared_from_this();
  auto operation = services::MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequestIgnoreGDPR(
      requestTools(), std::move(request),
      [self, identity = util().IDFA()](const kit::Request&, const kit::Response& response, const Value& json) {
        self->erasureDidAnswer(response, json);
        // The request named another device, as it turned out: nothing of this one is erased.
        if (self->util().IDFA() != identity)
          self->noteForgetMeNotAccepted();
      },
      [self](const kit::Request&, const std::optional<kit::Response>& response, const kit::Error& error, const Value&) {
        self->erasureDidFail(response, error);
      });
  setForgetMeSynced(false);
  operation.start();
}

Value MorvikCoreLib::makeGdprParameter(ErasureForm form) {
  static constexpr const char* kMakeOperation = "-[MorvikCoreLib makeGdprParameter:]";
  Value made;
  services::guarded(log(), kMakeGdprParameterGuard, MORVIK_HERE(kMakeOperation), [&] {
    const std::string request_id = services::inCapitals(services::makeRandomUuid(ports_.random));
    const kit::Date server_now = ports_.clock.now().shiftedBySeconds(services().intervalSinceServerDate());
    kit::MutableDictionary body =
        services::untilAbsent({{"subject_request_id", request_id},
                               {"subject_request_type", "erasure"},
                               {"submitted_time", orAbsent(util().getUTCFormateDateISO(server_now))},
                               {"api_version", "1.0"},
                               {"status_callback_urls", ""}});
    made = Value(kit::MutableDictionary(body));
    const Value identity(services::untilAbsent({{"identity_type", "ios_advertising_id"},
                                                {"identity_value", orAbsent(util().IDFA())},
                                                {"identity_format", "raw"}}));
    body.set("subject_identities", kit::Array{identity});
    made = Value(kit::MutableDictionary(body));
    const Value extension(services::untilAbsent({{"appkey", services().appKey()}, {"type", "classic"}}));
    body.set("extensions", kit::Dictionary{{kErasureDomainName, extension}});
    made = Value(std::move(body));
    if (form == ErasureForm::kSealed)
      made = sealedWithHashKey(made);
    else
      MORVIK_LOG(log(), lcl_vTrace, kMakeOperation, "MRVK_QA-[MorvikCore GDPR] made jsonDict %@", made);
  });
  return made;
}

/// An accepted request marks the user as forgotten, whichever wish it carried: an accepted withdrawal does so too.
void MorvikCoreLib::erasureDidAnswer(const std::optional<kit::Response>& response, const Value& json) {
  failedGDPRCnt_ = 0;
  MORVIK_LOG(log(), lcl_vDebug, kErasureHandler, "MRVK_QA-[MorvikCore GDPR] %@", json);
  if (!isSuccess(response))
    return noteForgetMeNotAccepted();
  MORVIK_LOG(log(), lcl_vTrace, kErasureHandler, "MRVK_QA-[MorvikCore GDPR] Recieved an HTTP %ld",
             services::statusCode(response));
  store().inOneStep([this] {
    synced_before_wish_.reset();
    setForgetMe(true);
    setForgetMeSynced(true);
  });
}

void MorvikCoreLib::erasureDidFail(const std::optional<kit::Response>& response, const kit::Error& error) {
  MORVIK_LOG(log(), lcl_vError, kErasureHandler, "MRVK_QA-[MorvikCore GDPR] Recieved an HTTP %ld",
             services::statusCode(response));
  MORVIK_LOG(log(), lcl_vError, kErasureHandler, "MRVK_QA-[MorvikCore GDPR] The error was: %@", error);
  noteForgetMeNotAccepted();
}

/// Also if a later wish is unreported: what that restores without a network is not an acceptance.
void MorvikCoreLib::noteForgetMeNotAccepted() {
  store().inOneStep([this] {
    if (synced_before_wish_)
      synced_before_wish_ = false;
    setForgetMeSynced(false);
  });
}

void MorvikCoreLib::setForgetMe(bool forget_me) {
  store().setMorvikCoreUserInfo_isGDPRForgetMe(forget_me);
  services().setIsGDPRForgetMe(forget_me);
}

void MorvikCoreLib::setForgetMeSynced(bool synced) {
  store().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(synced);
  services().setIsGDPRForgetMeServerSynced(synced);
}

}  // namespace morvik
