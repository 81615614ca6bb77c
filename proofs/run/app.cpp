#include "proofs/run/app.h"

#include <algorithm>
#include <utility>

namespace morvik::proofs {

bool RunApp::losesRecord(RecordNumber number) const {
  const ExpectedRecord& record = driver_.tracker().facts.records[number];
  return driver_.sabotage().losesRecord({.kind = record.kind,
                                         .is_healthy_end = driver_.isHealthy(),
                                         .is_excused = record.may_go != 0,
                                         .is_next_to_refused = is_next_to_refused_,
                                         .is_writable = driver_.isStoreWritable()});
}

void RunApp::recordEvent(const std::string& name, const std::optional<std::string>& param) {
  driver_.perform([this, name, param] {
    if (driver_.process().isGdprForgetMe())
      return driver_.checkAnswer(driver_.process().addActivity("shop", name, "refused"), Recorded::kRefusedForgotten);
    const RecordNumber number = driver_.tracker().addRecord(RecordKind::kActivities, name);
    if (!losesRecord(number))
      driver_.checkAnswerOfTheStore(driver_.process().addActivity("shop", name, param), number);
  });
}

void RunApp::recordEventCalledEnd(const std::string& name) {
  driver_.perform([this, name] {
    if (driver_.process().isGdprForgetMe())
      return;
    const RecordNumber number = driver_.tracker().addRecord(RecordKind::kActivities, name);
    driver_.tracker().facts.records.permit(number, RemovalReason::kKeptSession);
    driver_.process().addActivity("game", "end", name);
  });
}

void RunApp::recordMeanwhile(const std::string& name) {
  driver_.tracker().addRecord(RecordKind::kActivities, name);
  driver_.process().addActivity("shop", name, std::nullopt);
  ++driver_.figures().recorded_meanwhile;
}

void RunApp::recordEventWithoutGroup(const std::string& name) {
  driver_.perform([this, name] {
    const bool is_forgotten = driver_.process().isGdprForgetMe();
    driver_.checkAnswer(driver_.process().addActivity(is_forgotten ? "shop" : "", name, "refused"),
                        is_forgotten ? Recorded::kRefusedForgotten : Recorded::kRefusedEmpty);
  });
}

void RunApp::offerEventOfForgotten() {
  driver_.perform([this] {
    if (driver_.process().isGdprForgetMe())
      driver_.checkAnswer(driver_.process().addActivity("shop", "never", std::nullopt), Recorded::kRefusedForgotten);
  });
}

void RunApp::offerTooLarge(LimitedCall call) {
  driver_.perform([this, call] {
    runtime::Instance& process = driver_.process();
    const std::string text(kMaxEventBytes + 1, 'x');
    const bool is_event = call == LimitedCall::kActivity || call == LimitedCall::kImpression;
    const Recorded rightly =
        process.isGdprForgetMe() && is_event ? Recorded::kRefusedForgotten : Recorded::kRefusedTooLarge;
    const auto answer = [&] {
      switch (call) {
        case LimitedCall::kActivity:
          return process.addActivity("shop", "look", text);
        case LimitedCall::kImpression:
          return process.addImpression({.campaign_key = 7, .space_key = text});
        case LimitedCall::kUserId:
          return process.setUserId(text);
        case LimitedCall::kUrl:
          break;
      }
      return process.passOpenURL("shop://offer?cid=" + text);
    };
    driver_.checkAnswer(driver_.sabotage().told(answer()), rightly);
    ++driver_.figures().too_large;
  });
}

void RunApp::addImpression(const std::string& name) {
  driver_.perform([this, name] {
    const kit::Value impression = kit::Dictionary{
        {"campaignKey", 7}, {"spaceKey", name}, {"createdAt", kit::Value(driver_.machine().loop.now())}};
    if (losesRecord(driver_.tracker().addRecord(RecordKind::kImpressions, name)))
      return;
    const auto properties = driver_.process().properties();
    properties.inOneStep([&] {
      kit::MutableArray impressions(properties.fendoImpressionInfos());
      impressions.append(impression);
      properties.setFendoImpressionInfos(kit::Value(std::move(impressions)));
    });
    properties.synchronize();
  });
}

void RunApp::openUrl(const std::string& url) {
  driver_.perform([this, url] { driver_.process().passOpenURL(url); });
}

void RunApp::openCommerceUrl(const std::string& url_before_name, const std::string& name) {
  // Without an advertising identifier only a re-engagement link counts as one.
  const bool counts = driver_.app().device.idfa.source() != Identifier::Source::kNone ||
                      url_before_name.find("ck=") != std::string::npos;
  driver_.perform([this, counts, name, url = url_before_name + name] {
    if (counts && losesRecord(driver_.tracker().addRecord(RecordKind::kCommerceClicks, name)))
      return;
    driver_.process().passOpenURL(url);
  });
}

void RunApp::keepUrl(const std::string& url) {
  driver_.perform([this, url] { driver_.process().storeOpenedUrl(url); });
}

void RunApp::reportCrash(const std::string& reason, bool concerns_the_kit) {
  driver_.perform([this, reason, concerns_the_kit] {
    runtime::Instance& process = driver_.process();
    process.reportUncaughtException({.reason = reason, .call_stack_symbols = {"0 app"}, .moment = std::nullopt});
    const auto is_among = [&reason](const kit::Array& reports) {
      return std::any_of(reports.begin(), reports.end(),
                         [&reason](const kit::Value& report) { return report["exception_reason"].string() == reason; });
    };
    const bool is_kept = is_among(process.properties().MorvikCoreUserInfo_Crash().array()) ||
                         is_among(driver_.machine().report_shelf.reports());
    if (is_kept != concerns_the_kit)
      driver_.complain(kNothingIsLost, reason + (is_kept ? " was kept" : " was not kept"));
    driver_.crash();
  });
}

void RunApp::setAge(int32_t age) {
  driver_.perform([this, age] {
    driver_.tracker().setDemographic("age=" + std::to_string(age), true, "age");
    driver_.process().setAge(age);
  });
}

void RunApp::setGender(int32_t gender) {
  driver_.perform([this, gender] {
    driver_.tracker().setDemographic("gender=" + std::to_string(gender), true, "gender");
    driver_.process().setGender(gender);
  });
}

void RunApp::setUserId(const std::string& name) {
  driver_.perform([this, name] {
    const RecordNumber number = *driver_.tracker().setDemographic("userId=" + name, true, "userId");
    if (!losesRecord(number))
      driver_.checkAnswerOfTheStore(driver_.process().setUserId(name), number);
  });
}

void RunApp::takeAgeBack() {
  driver_.perform([this] {
    driver_.tracker().setDemographic("", false, "age");
    driver_.process().setAge(-1);
  });
}

void RunApp::takeGenderBack() {
  driver_.perform([this] {
    driver_.tracker().setDemographic("", false, "gender");
    driver_.process().setGender(-1);
  });
}

void RunApp::wish(bool forget_me) {
  driver_.perform([this, forget_me] {
    driver_.process().gdprForgetMe(forget_me);
    driver_.noteWish(forget_me);
  });
}

void RunApp::push() {
  driver_.perform([this] { driver_.process().pushTracking(); });
}

void RunApp::enterForeground() {
  driver_.perform([this] {
    driver_.noteSessionRequest();
    driver_.process().applicationDidBecomeActive();
  });
}

void RunApp::leaveForeground() {
  driver_.perform([this] { driver_.process().applicationDidEnterBackground(); });
}

void RunApp::setOffline(bool offline) {
  driver_.perform([this, offline] { driver_.machine().setOffline(offline); });
}

}  // namespace morvik::proofs
