// All verbs. Each is a row of the table at the end, and a function above that runs it.
#include <csignal>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "apps/device/explanation_fields.h"
#include "apps/device/json_dates.h"
#include "apps/device/ledger_rows.h"
#include "apps/device/phone.h"
#include "apps/device/property_values.h"
#include "apps/device/status_fields.h"
#include "apps/device/verbs.h"

namespace morvik_device {

// On a thread of the app's own: what is thrown on the main queue is caught there. Not local to this file: a trace names
// only functions that the program exports.
void crash(Phone&, const Arguments& arguments, const Reply&) {
  std::thread([text = arguments.words[0]] { throw std::runtime_error(text); }).join();
}

namespace {

namespace kit = morvik::kit;

/// How long "settle" waits by default.
constexpr double kSettleSeconds = 30.0;
/// How long "flush" and "wait-delivered" wait by default.
constexpr double kFlushSeconds = 30.0;

Outcome refused(std::string reason) {
  Outcome outcome;
  outcome.refusal = std::move(reason);
  return outcome;
}

kit::Value count(size_t number) {
  return kit::Value(static_cast<int64_t>(number));
}

std::string whatIsBusy(const morvik::runtime::Pending& pending) {
  const std::pair<size_t, const char*> parts[] = {{pending.requests, "requests in flight"},
                                                  {pending.main_blocks, "blocks on the main queue"},
                                                  {pending.background_blocks, "blocks on the background queue"},
                                                  {pending.session_end_blocks, "session ends in their half second"}};
  std::string text;
  for (const auto& [number, name] : parts) {
    if (number > 0)
      text += (text.empty() ? "still busy: " : ", ") + std::to_string(number) + " " + name;
  }
  return text;
}

/// The outcome of a call that records something.
Outcome told(morvik::Recorded recorded) {
  if (!isKept(recorded))
    return refused(std::string(toText(recorded)));
  Outcome outcome;
  if (recorded == morvik::Recorded::kKeptInMemory)
    outcome.fields.set("kept", toText(recorded));
  return outcome;
}

Outcome told(const morvik::FlushResult& result) {
  Outcome outcome;
  if (!result.is_delivered)
    outcome.refusal = std::string(toText(result.reason));
  outcome.fields.set("waiting", count(result.waiting));
  return outcome;
}

morvik::Impression impressionOf(const kit::Value& record) {
  return {.campaign_key = record["campaignKey"].integer(),
          .space_key = std::string(record["spaceKey"].string()),
          .resource_key = record["resourceKey"].integer(),
          .conversion_key = record["conversionKey"].integer(),
          .is_first_time = record["isFirstTime"].boolean()};
}

void becomeActive(Phone& phone, const Arguments&, const Reply& reply) {
  phone.instance().applicationDidBecomeActive();
  reply({});
}

void enterBackground(Phone& phone, const Arguments&, const Reply& reply) {
  phone.instance().applicationDidEnterBackground();
  reply({});
}

void recordEvent(Phone& phone, const Arguments& arguments, const Reply& reply) {
  const auto& words = arguments.words;
  reply(told(phone.instance().addActivity(
      words[0], words[1], words.size() > 2 ? std::optional<std::string_view>(words[2]) : std::nullopt)));
}

void recordImpression(Phone& phone, const Arguments& arguments, const Reply& reply) {
  if (!arguments.json.isDictionary())
    return reply(refused("an impression record is a JSON object, such as {\"campaignKey\":7,\"spaceKey\":\"top\"}"));
  const kit::Value impression = withDates(arguments.json);
  if (impression["createdAt"].isAbsent())
    return reply(told(phone.instance().addImpression(impressionOf(impression))));
  // No batch can be built with such a record: it would block all events until it is gone.
  if (!impression["createdAt"].isDate())
    return reply(refused("an impression's time is a date, such as \"createdAt\":\"2024-05-01T12:00:00Z\""));
  const auto properties = phone.instance().properties();
  properties.append(morvik::services::property::fendoImpressionInfos, impression);
  properties.synchronize();
  reply({});
}

void openUrl(Phone& phone, const Arguments& arguments, const Reply& reply) {
  reply(told(phone.instance().passOpenURL(arguments.words[0])));
}

void storeUrl(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.instance().storeOpenedUrl(arguments.words[0]);
  reply({});
}

void passFacebookUrl(Phone& phone, const Arguments& arguments, const Reply& reply) {
  reply(told(phone.instance().setReferralUrlForFacebook(arguments.words[0])));
}

void reportThirdPartyConversion(Phone& phone, const Arguments&, const Reply& reply) {
  reply(told(phone.instance().thirdPartyConversion()));
}

void setStored(Phone& phone, const Arguments& arguments, const Reply& reply) {
  const std::string& property = arguments.words[0];
  const auto read = propertyValue(property, arguments.json);
  if (const auto* mistake = std::get_if<std::string>(&read))
    return reply(refused(*mistake));
  phone.levers().edit(property, std::get<kit::Value>(read));
  phone.instance().properties().synchronize();
  reply({});
}

void setAge(Phone& phone, const Arguments& arguments, const Reply& reply) {
  reply(told(phone.instance().setAge(*arguments.number)));
}

void setGender(Phone& phone, const Arguments& arguments, const Reply& reply) {
  reply(told(phone.instance().setGender(*arguments.number)));
}

void setUserId(Phone& phone, const Arguments& arguments, const Reply& reply) {
  reply(told(phone.instance().setUserId(arguments.words[0])));
}

void clearUserId(Phone& phone, const Arguments&, const Reply& reply) {
  reply(told(phone.instance().clearUserId()));
}

void forgetMe(Phone& phone, const Arguments& arguments, const Reply& reply) {
  reply(told(phone.instance().gdprForgetMe(*arguments.flag)));
}

void tellWhetherForgotten(Phone& phone, const Arguments&, const Reply& reply) {
  Outcome outcome;
  outcome.fields.set("value", phone.instance().isGdprForgetMe());
  reply(outcome);
}

void goOffline(Phone& phone, const Arguments&, const Reply& reply) {
  phone.levers().setOffline(true);
  reply({});
}

void goOnline(Phone& phone, const Arguments&, const Reply& reply) {
  phone.levers().setOffline(false);
  reply({});
}

// The kit's own: no function of the program's is between its loop and the library. What perform() runs is the app's.
void crashBySignal(Phone& phone, const Arguments& arguments, const Reply&) {
  phone.levers().after(0, std::bind(::raise, *fatalSignal(arguments.words[0])));
}

void push(Phone& phone, const Arguments&, const Reply& reply) {
  phone.instance().pushTracking();
  reply({});
}

void flush(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.instance().flush([reply](const morvik::FlushResult& result) { reply(told(result)); },
                         millisecondsOf(arguments.seconds.value_or(kFlushSeconds)));
}

void waitDelivered(Phone& phone, const Arguments& arguments, const Reply& reply) {
  reply(told(phone.instance().waitUntilDelivered(millisecondsOf(arguments.seconds.value_or(kFlushSeconds)))));
}

void switchSending(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.instance().setSendingEnabled(*arguments.flag);
  reply({});
}

void wait(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.levers().after(*arguments.seconds, [reply] { reply({}); });
}

void moveClock(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.levers().moveClock(*arguments.seconds);
  reply({});
}

void settle(Phone& phone, const Arguments& arguments, const Reply& reply) {
  phone.instance().settle(arguments.seconds.value_or(kSettleSeconds), [&phone, reply](bool settled) {
    const morvik::runtime::Pending pending = phone.instance().pending();
    Outcome outcome = settled ? Outcome() : refused(whatIsBusy(pending));
    outcome.fields.set("background_tasks", count(pending.background_tasks));
    outcome.fields.set("retries", count(pending.retries));
    reply(outcome);
  });
}

void showStore(Phone& phone, const Arguments& arguments, const Reply& reply) {
  std::optional<std::string> unknown;
  const kit::Value values = phone.storeView().show(arguments.words, unknown);
  if (unknown)
    return reply(refused("\"" + *unknown + "\" is not a stored property; \"store\" alone shows them all"));
  Outcome outcome;
  outcome.fields.set("values", values);
  reply(outcome);
}

void showStatus(Phone& phone, const Arguments&, const Reply& reply) {
  Outcome outcome;
  outcome.fields = fieldsOf(phone.instance().status());
  reply(outcome);
}

void showLedger(Phone& phone, const Arguments&, const Reply& reply) {
  Outcome outcome;
  outcome.fields = rowsOf(phone.instance().ledger()).asDictionary();
  reply(outcome);
}

void explainEvent(Phone& phone, const Arguments& arguments, const Reply& reply) {
  const morvik::Explanation explanation = phone.instance().explain(arguments.words.front());
  Outcome outcome;
  if (explanation.state == morvik::Explanation::State::kNotAnId)
    outcome.refusal = explanation.sentence;
  else
    outcome.fields = fieldsOf(explanation);
  reply(outcome);
}

void killProcess(Phone&, const Arguments&, const Reply&) {
  std::raise(SIGKILL);
}

void endProgram(Phone&, const Arguments&, const Reply& reply) {
  Outcome outcome;
  outcome.ends_program = true;
  reply(outcome);
}

using reading::clockStep;
using reading::duration;
using reading::durationOrNothing;
using reading::eventWords;
using reading::json;
using reading::kAnyNumber;
using reading::onOrOff;
using reading::propertyAndJson;
using reading::signal;
using reading::trueOrFalse;
using reading::wholeNumber;
using reading::words;

constexpr Verb kVerbs[] = {
    {"active", "", "the app becomes active", words<0>, becomeActive},
    {"background", "", "the app enters the background", words<0>, enterBackground},
    {"event", "GROUP NAME [PARAM]", "records an activity; a PARAM that begins with '{' takes the rest of the line",
     eventWords, recordEvent},
    {"impression", "JSON", "records an impression: campaignKey, spaceKey, resourceKey, conversionKey, isFirstTime",
     json, recordImpression},
    {"open-url", "URL", "a URL opens the app", words<1>, openUrl},
    {"store-url", "URL", "keeps a URL that opened the app for the next session start", words<1>, storeUrl},
    {"facebook-url", "URL", "passes a referral URL obtained from Facebook", words<1>, passFacebookUrl},
    {"third-party-conversion", "", "reports the install as a third party conversion", words<0>,
     reportThirdPartyConversion},
    {"age", "N", "sets the user's age", wholeNumber, setAge},
    {"gender", "N", "sets the user's gender: 1 female, 2 male", wholeNumber, setGender},
    {"user-id", "TEXT", "sets the app's id of the user", words<1>, setUserId},
    {"clear-user-id", "", "removes the user id, even one that is still to be sent", words<0>, clearUserId},
    {"forget-me", "true|false", "the user asks to be forgotten, or withdraws that", trueOrFalse, forgetMe},
    {"is-forgotten", "", "prints whether the user is marked as forgotten", words<0>, tellWhetherForgotten},
    {"offline", "", "the network status reports no network; the transport still works", words<0>, goOffline},
    {"online", "", "the network status reports the network again", words<0>, goOnline},
    {"set", "PROPERTY JSON", "writes a stored property; null makes it absent", propertyAndJson, setStored},
    {"push", "", "sends what is stored now", words<0>, push},
    {"flush", "[SECONDS]", "delivers everything recorded so far and waits for that, at most SECONDS (30)",
     durationOrNothing, flush},
    {"wait-delivered", "[SECONDS]", "the same on a thread of the app, which blocks meanwhile", durationOrNothing,
     waitDelivered, true},
    {"sending", "on|off", "turns sending on, or off for everything but an erasure", onOrOff, switchSending},
    {"wait", "SECONDS", "lets time pass", duration, wait},
    {"clock", "SECONDS", "moves the device's wall clock forward or back; timers are not affected", clockStep,
     moveClock},
    {"settle", "[SECONDS]", "runs until nothing is in flight, at most SECONDS (30)", durationOrNothing, settle},
    {"store", "[PROPERTY ...]", "prints these stored properties, or all", words<0, kAnyNumber>, showStore},
    {"status", "", "prints the state of the kit: session, attribution, what is pending, the latest answers", words<0>,
     showStatus},
    {"ledger", "", "prints what became of everything recorded", words<0>, showLedger},
    {"explain", "ID", "prints what became of the event with this id", words<1>, explainEvent},
    {"crash", "TEXT", "throws an uncaught exception with this text on a thread of the app", words<1>, crash},
    {"crash-signal", "NAME", "ends the process by this signal, such as SIGSEGV, as a crash of the kit", signal,
     crashBySignal},
    {"kill", "", "ends the process at once by SIGKILL", words<0>, killProcess},
    {"erase", "", "removes what the kit keeps, except for the wish to be forgotten, and ends the program", words<0>,
     endProgram},
    {"quit", "[SECONDS]", "shuts down, after a flush of at most SECONDS (none); the end of the input does the same",
     durationOrNothing, endProgram},
};

}  // namespace

std::span<const Verb> verbs() {
  return kVerbs;
}

}  // namespace morvik_device
